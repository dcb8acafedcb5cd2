// The sheaves' invariants, as written at sheaf_t in sheaf.h, asserted after
// every take and give-back in builds made with CORVEX_INVARIANTS. The
// callers hold packet_glb_lock, as for the operations themselves.
#include "priv_assert.h"
#include "priv_packet.h"

#if CORVEX_INVARIANTS

namespace corvex::packet {

namespace {

InvariantPaces<sheaf_t> paces;

#define REQUIRE(condition, invariant) CORVEX_ASSERT(condition, invariant, kSheafSource)

}  // namespace

void sheaf_invariants_check(const sheaf_t* sheaf) {
    InvariantPace& pace = paces.of(sheaf, sheaf->id);
    if (!pace.due()) {
        return;
    }
    REQUIRE(sheaf->free <= sheaf->total, "free never exceeds total");
    u_int32_t resting = 0;
    for (const packet_t* packet = sheaf->packets; packet != nullptr && resting <= sheaf->free;
         packet = packet->sheaf_next, ++resting) {
        REQUIRE(packet->sheaf == sheaf, "a resting packet belongs to its sheaf");
    }
    REQUIRE(resting == sheaf->free, "sheaf free count equals its list");
    pace.checked(resting);
}

}  // namespace corvex::packet

#endif  // CORVEX_INVARIANTS
