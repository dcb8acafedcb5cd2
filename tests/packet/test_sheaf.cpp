// Sheaves over a vector of their own: the background tick (grow, shrink,
// leak check), and the stop of a sheaf without a vector.
#include <cstdlib>

#include <gtest/gtest.h>

#include "packet_pools.h"
#include "recording_module.h"
#include "syslog_capture.h"

using namespace corvex_test;

namespace {

// Header-only packets from the process allocator. A sheaf's `total` moves
// only when the vector made or destroyed a packet.
packet_t* plain_alloc(sheaf_t* sheaf, packet_length_t) {
    auto* packet = static_cast<packet_t*>(std::calloc(1, sizeof(packet_t)));
    std::tie(packet->magic, packet->sheaf) = std::tuple(PACKET_MAGIC, sheaf);
    return packet;
}

boolean plain_free(sheaf_t*, packet_t* packet) { return std::free(packet), TRUE; }

sheaf_vector_t plain_vector = {plain_alloc, plain_free};

sheaf_t* make(const char* name, u_int32_t min, u_int32_t max, u_int32_t init) {
    return sheaf_create(name, 0, min, max, init, &plain_vector, nullptr);
}

// The background tick, as the module library would run it.
void tick() {
    static zrmodule_timer_func periodic = [] { return sheaf_spawn_perodic_task(), recorded_timer("Sheaf Periodic"); }();
    periodic(nullptr, 5000);
}

// Takes n packets without the reserve refill, then gives them all back.
void cycle(sheaf_t* sheaf, int n) {
    under_packet_lock([&] {
        std::vector<packet_t*> out;
        for (int i = 0; i < n; ++i) out.push_back(sheaf_alloc_inline(sheaf, 0, TRUE));
        for (packet_t* p : out) sheaf_free(sheaf, p);
    });
}

TEST(Sheaf, TickGrowsToTheReserveShrinksToMaxAndReportsLeaksEveryTwelfthTime) {
    sheaf_t* sheaf = make("tuned", 3, 6, 0);
    tick();
    EXPECT_EQ(std::tuple(sheaf->free, sheaf->total), std::tuple(3u, 3u));
    cycle(sheaf, 6);
    sheaf->max = 2;
    tick();
    EXPECT_EQ(std::tuple(sheaf->free, sheaf->total, sheaf->nfree), std::tuple(2u, 2u, 4u));
    // Max lowered below the reserve: no packet is made only to be destroyed.
    const u_int32_t nalloc = sheaf->nalloc;
    tick();
    EXPECT_EQ(std::tuple(sheaf->free, sheaf->nalloc), std::tuple(2u, nalloc));
    sheaf->max = 6;

    sheaf_t* leaky = make(nullptr, 0, 2, 0);
    sheaf_t* borderline = make("borderline", 0, 2, 0);
    std::vector<packet_t*> out;
    under_packet_lock([&] {
        for (int i = 0; i < 21; ++i) out.push_back(sheaf_alloc_inline(leaky, 0, FALSE));
        for (int i = 0; i < 20; ++i) out.push_back(sheaf_alloc_inline(borderline, 0, FALSE));
    });
    syslog_clear();
    for (int i = 0; i < 12; ++i) tick();
    EXPECT_EQ(syslog_records(),
              (std::vector<LogRecord>{{3, fmt("SHEAF: possible leak, ID %u (<none>) (21/0/2)\n", leaky->id)}}));
    under_packet_lock([&] {
        leaky->max = borderline->max = 0;
        for (packet_t* p : out) sheaf_free(p->sheaf, p);
    });
}

TEST(SheafDeathTest, SheafWithoutVectorMustNeverMakeOrDestroy) {
    EXPECT_LOGGED_DEATH(pthread_mutex_lock(&packet_glb_lock);
                        sheaf_malloc(sheaf_create("bare", 0, 0, 4, 0, nullptr, nullptr), 0),
                        "<0>sheaf_alloc_default\\(\\)");
    packet_t packet{};
    EXPECT_LOGGED_DEATH(pthread_mutex_lock(&packet_glb_lock);
                        sheaf_free(sheaf_create("bare", 0, 0, 0, 0, nullptr, nullptr), &packet),
                        "<0>sheaf_free_default\\(\\)");
}

}  // namespace
