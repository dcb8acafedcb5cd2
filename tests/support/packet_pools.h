// Packet pools over a buffer heap, and the checks the packet tests share.
// Pools live until the process ends, like the device's own.
#pragma once

#include <cstring>

#include <gtest/gtest.h>

#include "packet_var.h"
#include "test_heaps.h"

// Expected counter growth names only the counters that move.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace corvex_test {

// Rows from the largest size to the smallest, with the clone row among them.
inline const packet_sheaf_block_t kPoolTable[] = {
    {const_cast<char*>("1518"), 1518, 0, 16, 4, nullptr}, {const_cast<char*>("512"), 512, 0, 16, 4, nullptr},
    {const_cast<char*>("clone"), 0, 0, 16, 4, nullptr},   {const_cast<char*>("128"), 128, 0, 16, 4, nullptr},
    {nullptr, 0, 0, 0, 0, nullptr},
};

inline sheaf_t* chain_sheaf(size_t size) {
    for (sheaf_t* sheaf = packet_common_sheaf; sheaf != nullptr; sheaf = sheaf->next)
        if (sheaf->size == size) return sheaf;
    return nullptr;
}

// Runs `body` holding packet_glb_lock, as callers of the sheaf operations must.
template <typename Body>
void under_packet_lock(Body body) {
    ASSERT_EQ(pthread_mutex_lock(&packet_glb_lock), 0);
    body();
    ASSERT_EQ(pthread_mutex_unlock(&packet_glb_lock), 0);
}

// Header-only packets are kept out of their pool by packet_return.
inline void give_back(packet_t* header) {
    under_packet_lock([&] { sheaf_free(header->sheaf, header); });
}

inline bool rests_in(sheaf_t* sheaf, packet_t* packet) {
    for (packet_t* p = sheaf->packets; p != nullptr; p = p->sheaf_next)
        if (p == packet) return true;
    return false;
}

// A packet holding `length` bytes of `fill`, or null when none is left.
inline packet_t* frame_packet(packet_length_t length, u_int8_t fill) {
    packet_t* p = packet_get(length);
    if (p == nullptr) return nullptr;
    std::memset(p->frame_start, fill, length);
    p->length = length;
    return p;
}

#define COUNTER(name) {&packet_stats_t::name, #name}
inline const struct {
    packet_counter_t packet_stats_t::*field;
    const char* name;
} kCounters[] = {
    COUNTER(get_requests),      COUNTER(get_successes),      COUNTER(get_failures),       COUNTER(returns),
    COUNTER(copy_requests),     COUNTER(copy_successes),     COUNTER(copy_failures),      COUNTER(clone_requests),
    COUNTER(clone_successes),   COUNTER(clone_failures),     COUNTER(clone_returns),      COUNTER(coalesce_requests),
    COUNTER(coalesce_failures), COUNTER(coalesce_successes), COUNTER(error_header_refcount),
    COUNTER(error_buffer_refcount), COUNTER(error_null_buffer), COUNTER(error_invalid),
};
#undef COUNTER

// Every counter grew since `before` by what `grew` says, the others not at all.
inline void expect_counted(const packet_stats_t& before, const packet_stats_t& grew,
                           const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    const ::testing::ScopedTrace call_site(file, line, "counters");
    for (const auto& counter : kCounters)
        EXPECT_EQ(packet_stats.*counter.field - before.*counter.field, grew.*counter.field) << counter.name;
}

}  // namespace corvex_test
