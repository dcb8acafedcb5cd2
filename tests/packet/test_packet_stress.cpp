// Drivers get, clone, chain, coalesce and return packets while the background
// task trims the sheaves; afterwards every count balances and the heap is whole.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "packet_pools.h"
#include "recording_module.h"
#include "stress_scale.h"

using namespace corvex_test;

namespace {

constexpr unsigned kDrivers = 4;
constexpr long kIterations = 20000;  // per driver, before CORVEX_STRESS_SCALE
constexpr packet_length_t kSizes[] = {60, 128, 300, 900, 1518, 2500};

const packet_sheaf_block_t kTable[] = {
    {const_cast<char*>("1518"), 1518, 2, 24, 8, nullptr}, {const_cast<char*>("512"), 512, 4, 24, 8, nullptr},
    {const_cast<char*>("clone"), 0, 2, 48, 8, nullptr},   {const_cast<char*>("128"), 128, 8, 48, 16, nullptr},
    {nullptr, 0, 0, 0, 0, nullptr},
};

// Clones travel between drivers: whoever picks one up returns it.
std::mutex bag_mutex;
std::vector<packet_t*> bag;

void bag_put(packet_t* packet) {
    std::lock_guard<std::mutex> hold(bag_mutex);
    bag.push_back(packet);
}
packet_t* bag_take() {
    std::lock_guard<std::mutex> hold(bag_mutex);
    packet_t* packet = bag.empty() ? nullptr : bag.back();
    if (packet != nullptr) bag.pop_back();
    return packet;
}

std::atomic<int> failed_takes{0}, bad_frames{0};

// The packet, or null after counting the failure.
packet_t* counted(packet_t* p) { return p == nullptr ? ++failed_takes, nullptr : p; }

void check_frame(const packet_t* p, int length, u_int8_t fill) {
    if (p->length != length || std::count(p->frame_start, p->frame_start + length, fill) != length) ++bad_frames;
}

void drive(unsigned state) {
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return state >> 16;
    };
    const long iterations = corvex_test::stress_scaled(kIterations);
    for (long i = 0; i < iterations; ++i) {
        const packet_length_t length = kSizes[next() % 6];
        const auto fill = static_cast<u_int8_t>(next());
        packet_t* p = counted(frame_packet(length, fill));
        if (p == nullptr) continue;
        const unsigned action = next() % 5;
        if (action == 1) {  // two clones for other drivers, which may unlink one while the other is linked
            for (int n = 0; n < 2; ++n)
                if (packet_t* clone = counted(packet_clone(p))) bag_put(clone);
        } else if (action == 2) {  // a two-packet chain coalesced into one
            if (packet_t* tail = counted(frame_packet(100, fill))) {
                packet_fragment_add(p, tail);
                p = counted(packet_fragment_coalesce(p));
                if (p != nullptr) check_frame(p, length + 100, fill);
            }
        } else if (action == 3) {  // a clone kept here, returned before its original
            if (packet_t* clone = counted(packet_clone(p))) {
                check_frame(clone, length, fill);
                packet_return(clone);
            }
        } else if (action == 4) {  // copied into a packet of the same sheaf, which replaces it
            if (packet_t* copy = counted(packet_get(length))) {
                // Contents move as far as the sheaf's frame size: a misfit copies its headroom only.
                if (packet_copy(p, copy, TRUE) && p->sheaf->size >= length) check_frame(copy, length, fill);
                packet_return(p);
                p = copy;
            }
        }
        if (p != nullptr) packet_return(p);
        if (packet_t* foreign = bag_take()) packet_return(foreign);
    }
}

size_t resting(sheaf_t* sheaf) {
    size_t n = 0;
    for (packet_t* p = sheaf->packets; p != nullptr; p = p->sheaf_next, ++n) EXPECT_EQ(p->refcount, 0);
    return n;
}

TEST(PacketStress, DriversAndTheBackgroundTaskLeaveEveryCountBalanced) {
    heap_t* heap = make_heap(4 << 20, "packet buffers");
    const size_t heap_start = heap_get_free_bytes(heap);
    packet_pool_init(nullptr, kTable, heap);
    packet_task_start();
    zrmodule_timer_func periodic = recorded_timer("Sheaf Periodic"), error_check = recorded_timer("packet error check");

    std::atomic<int> running{kDrivers};
    std::vector<std::thread> drivers;
    for (unsigned d = 1; d <= kDrivers; ++d) drivers.emplace_back([d, &running] { drive(0x9e3779b9u * d), --running; });
    do periodic(nullptr, 5000), error_check(nullptr, 10000);
    while (running.load() > 0);
    for (std::thread& t : drivers) t.join();
    while (packet_t* clone = bag_take()) packet_return(clone);

    EXPECT_EQ(std::tuple(failed_takes.load(), bad_frames.load(), packet_stats.get_failures,
                         packet_stats.error_header_refcount, packet_stats.error_buffer_refcount,
                         packet_stats.error_null_buffer),
              std::tuple(0, 0, 0u, 0u, 0u, 0u));
    EXPECT_EQ(std::tuple(packet_stats.get_successes, packet_stats.clone_successes, packet_stats.copy_requests),
              std::tuple(packet_stats.returns, packet_stats.clone_returns, packet_stats.copy_successes));

    std::vector<sheaf_t*> sheaves{packet_misfit_sheaf, packet_clone_sheaf};
    for (sheaf_t* s = packet_common_sheaf; s != nullptr; s = s->next) sheaves.push_back(s);
    for (sheaf_t* sheaf : sheaves) {
        SCOPED_TRACE(sheaf->name);
        EXPECT_EQ(std::tuple(sheaf->total, sheaf->free, sheaf->free, sheaf->free <= sheaf->max),
                  std::tuple(sheaf->nalloc - sheaf->nempty - sheaf->nfree, resting(sheaf), sheaf->total, true))
            << "all back";
        sheaf->min = sheaf->max = 0;
    }
    // With no room left in any sheaf, one tick destroys every packet.
    periodic(nullptr, 5000);
    for (sheaf_t* sheaf : sheaves) EXPECT_EQ(sheaf->total, 0u) << sheaf->name;
    EXPECT_EQ(heap_get_free_bytes(heap), heap_start);
    heap_walk_arg_t noisy{TRUE, FALSE, 0, 0, 0, nullptr};
    EXPECT_EQ(heap_walk(heap, nullptr, &noisy), 0);
}

}  // namespace
