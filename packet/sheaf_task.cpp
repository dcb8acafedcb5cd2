// The sheaves' background task: every 5 seconds each registered sheaf is
// grown to its reserve and shrunk to its ceiling, and once a minute it is
// checked for packets that never come back.
#include <syslog.h>

#include "priv_sheaf.h"

namespace corvex::packet {
namespace {

u_int32_t sheaf_check_count;

// Runs up to `rounds` rounds of: produce a packet under the lock, let the
// lock go (so packet traffic is never held up for a whole phase), take it
// again and give the packet back. A round that produces nothing ends it.
template <typename Produce>
void sheaf_tune_rounds(sheaf_t* sheaf, GlbLockGuard& lock, u_int32_t rounds, Produce produce) {
    for (; rounds > 0; --rounds) {
        packet_t* packet = produce();
        lock.release();
        if (packet == nullptr) return;
        lock.acquire(kSheafSource, __LINE__);
        sheaf_free(sheaf, packet);
    }
}

void sheaf_tune(sheaf_t* sheaf) {
    {
        GlbLockGuard lock(kPacketGlbLock, kSheafSource, __LINE__);
        // The reserve never exceeds what the free list may hold, should
        // `max` have been lowered below it.
        const u_int32_t reserve = sheaf->min < sheaf->max ? sheaf->min : sheaf->max;
        if (sheaf->min != 0 && sheaf->free < reserve) {
            sheaf_tune_rounds(sheaf, lock, reserve - sheaf->free, [sheaf] {
                return sheaf_alloc_inline(sheaf, static_cast<sheaf_size_t>(sheaf->size), FALSE);
            });
        }
    }
    {
        GlbLockGuard lock(kPacketGlbLock, kSheafSource, __LINE__);
        if (sheaf->free > sheaf->max) {
            sheaf_tune_rounds(sheaf, lock, sheaf->free - sheaf->max, [sheaf] { return sheaf_packet_dequeue(sheaf); });
        }
    }
}

void sheaf_leak_check(sheaf_t* sheaf) {
    u_int32_t total, min, max;
    {
        // The counters move under the lock on other threads.
        GlbLockGuard lock(kPacketGlbLock, kSheafSource, __LINE__);
        total = sheaf->total;
        min = sheaf->min;
        max = sheaf->max;
    }
    if (max != 0 && total > 10u * max) {
        syslog(LOG_ERR, "SHEAF: possible leak, ID %u (%s) (%d/%d/%d)\n", sheaf->id,
               sheaf->name != nullptr ? sheaf->name : "<none>", static_cast<int>(total), static_cast<int>(min),
               static_cast<int>(max));
    }
}

void sheaf_background() {
    bool checking = false;
    if (sheaf_check_count > 10) {
        sheaf_check_count = 0;
        checking = true;
    } else {
        ++sheaf_check_count;
    }
    if (sheaflist == nullptr) return;
    for (auto* sheaf = static_cast<sheaf_t*>(list_get_head(sheaflist)); sheaf != nullptr;
         sheaf = static_cast<sheaf_t*>(list_get_next(sheaflist, sheaf))) {
        if (checking) sheaf_leak_check(sheaf);
        sheaf_tune(sheaf);
    }
}

void sheaf_task_periodic(zrmodule_timer* /*timer*/, time_t /*interval*/) { sheaf_background(); }

}  // namespace
}  // namespace corvex::packet

using namespace corvex::packet;

extern "C" void sheaf_spawn_perodic_task(void) {
    zrmodule* module = zrmodule_alloc("SHEAF Backgroud", 0, nullptr);
    if (zrmodule_create(module) == 0) zrmodule_quit(22);
    packet_periodc_timer_start(module);
    utime_t every_5s = {5, 0};
    zrmodule_timer_ucreate(module, "Sheaf Periodic", 0, &every_5s, &every_5s, 0, sheaf_task_periodic, nullptr);
}
