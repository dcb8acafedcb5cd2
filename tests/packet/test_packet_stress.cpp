// Driver threads get, clone, chain, coalesce and return packets, handing
// clones to each other, while the background task trims the sheaves and
// checks for errors. Afterwards every count must balance and the buffer
// heap must be whole again.
#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "packet_fixture.h"
#include "recording_module.h"

using namespace packet_test;

namespace {

constexpr int kDrivers = 4;
constexpr int kIterations = 20000;
constexpr packet_length_t kSizes[] = {60, 128, 300, 900, 1518, 2500};

const packet_sheaf_block_t kTable[] = {
    {const_cast<char*>("1518"), 1518, 2, 24, 8, nullptr},
    {const_cast<char*>("512"), 512, 4, 24, 8, nullptr},
    {const_cast<char*>("clone"), 0, 2, 48, 8, nullptr},
    {const_cast<char*>("128"), 128, 8, 48, 16, nullptr},
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
    if (bag.empty()) return nullptr;
    packet_t* packet = bag.back();
    bag.pop_back();
    return packet;
}

struct Failures {
    std::atomic<int> gets{0};
    std::atomic<int> frames{0};
};

packet_t* framed(packet_length_t length, u_int8_t fill) {
    packet_t* p = packet_get(length);
    if (p == nullptr) return nullptr;
    std::memset(p->frame_start, fill, length);
    p->length = length;
    return p;
}

bool frame_is(const packet_t* p, packet_length_t length, u_int8_t fill) {
    if (p->length != length) return false;
    for (packet_length_t i = 0; i < length; ++i)
        if (p->frame_start[i] != fill) return false;
    return true;
}

void drive(unsigned seed, Failures& failures) {
    unsigned state = seed;
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return state >> 16;
    };
    for (int i = 0; i < kIterations; ++i) {
        const packet_length_t length = kSizes[next() % 6];
        const auto fill = static_cast<u_int8_t>(next());
        packet_t* p = framed(length, fill);
        if (p == nullptr) {
            ++failures.gets;
            continue;
        }
        switch (next() % 4) {
            case 0:
                packet_return(p);
                break;
            case 1: {  // clones for other drivers, which may return the first
                       // while the second is being linked; the original goes back first
                for (int n = 0; n < 2; ++n) {
                    packet_t* clone = packet_clone(p);
                    if (clone == nullptr) ++failures.gets;
                    else bag_put(clone);
                }
                packet_return(p);
                break;
            }
            case 2: {  // a two-packet chain coalesced into one
                packet_t* tail = framed(100, fill);
                if (tail == nullptr) {
                    ++failures.gets;
                    packet_return(p);
                    break;
                }
                packet_fragment_add(p, tail);
                packet_t* whole = packet_fragment_coalesce(p);
                if (whole == nullptr) {
                    ++failures.gets;
                    break;
                }
                if (!frame_is(whole, static_cast<packet_length_t>(length + 100), fill)) ++failures.frames;
                packet_return(whole);
                break;
            }
            default: {  // a clone kept here, returned before its original
                packet_t* clone = packet_clone(p);
                if (clone == nullptr) {
                    ++failures.gets;
                } else {
                    if (!frame_is(clone, length, fill)) ++failures.frames;
                    packet_return(clone);
                }
                packet_return(p);
                break;
            }
        }
        if (packet_t* foreign = bag_take()) packet_return(foreign);
    }
}

size_t resting(sheaf_t* sheaf) {
    size_t n = 0;
    for (packet_t* p = sheaf->packets; p != nullptr; p = p->sheaf_next) {
        EXPECT_EQ(p->refcount, 0);
        if (p->buffer != nullptr) {
            EXPECT_EQ(p->buffer->refcount, 0);
        }
        ++n;
    }
    return n;
}

TEST(PacketStress, DriversAndTheBackgroundTaskLeaveEveryCountBalanced) {
    heap_t* heap = make_buffer_heap(4 << 20);
    const size_t heap_start = heap_get_free_bytes(heap);
    packet_pool_init(nullptr, kTable, heap);
    packet_task_start();
    zrmodule_timer_func periodic = recorded_timer("Sheaf Periodic");
    zrmodule_timer_func error_check = recorded_timer("packet error check");
    ASSERT_NE(periodic, nullptr);
    ASSERT_NE(error_check, nullptr);

    Failures failures;
    std::atomic<int> running{kDrivers};
    std::vector<std::thread> drivers;
    for (int d = 0; d < kDrivers; ++d) {
        drivers.emplace_back([d, &failures, &running] {
            drive(0x9e3779b9u * static_cast<unsigned>(d + 1), failures);
            --running;
        });
    }
    int ticks = 0;
    while (running.load() > 0) {
        periodic(nullptr, 5000);
        error_check(nullptr, 10000);
        ++ticks;
    }
    for (std::thread& t : drivers) t.join();
    while (packet_t* clone = bag_take()) packet_return(clone);
    EXPECT_GT(ticks, 0);

    EXPECT_EQ(failures.gets.load(), 0);
    EXPECT_EQ(failures.frames.load(), 0);
    EXPECT_EQ(packet_stats.get_successes - packet_stats.returns, 0u);
    EXPECT_EQ(packet_stats.get_failures, 0u);
    EXPECT_EQ(packet_stats.clone_successes, packet_stats.clone_returns);
    EXPECT_EQ(packet_stats.error_header_refcount + packet_stats.error_buffer_refcount +
                  packet_stats.error_null_buffer,
              0u);

    std::vector<sheaf_t*> sheaves{packet_misfit_sheaf, packet_clone_sheaf};
    for (sheaf_t* s = packet_common_sheaf; s != nullptr; s = s->next) sheaves.push_back(s);
    for (sheaf_t* sheaf : sheaves) {
        SCOPED_TRACE(sheaf->name);
        EXPECT_EQ(sheaf->total, sheaf->nalloc - sheaf->nempty - sheaf->nfree);
        EXPECT_EQ(sheaf->free, resting(sheaf));
        EXPECT_EQ(sheaf->free, sheaf->total) << "every packet is back";
        EXPECT_LE(sheaf->free, sheaf->max);
        sheaf->min = 0;
        sheaf->max = 0;
    }
    // With no room left in any sheaf, one tick destroys every packet.
    periodic(nullptr, 5000);
    for (sheaf_t* sheaf : sheaves) EXPECT_EQ(sheaf->total, 0u) << sheaf->name;
    EXPECT_EQ(heap_get_free_bytes(heap), heap_start);
    heap_walk_arg_t arg{};
    arg.noisy = TRUE;
    EXPECT_EQ(heap_walk(heap, nullptr, &arg), 0);
}

}  // namespace
