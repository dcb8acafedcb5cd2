// The packet buffer heap and the pool table that the packet tests build on.
// Pools live until the process ends, like the device's own.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "heap.h"
#include "packet_var.h"

namespace packet_test {

// A heap over a fresh range; the record and range stay for the process.
inline heap_t* make_buffer_heap(size_t bytes) {
    auto* heap = static_cast<heap_t*>(std::calloc(1, sizeof(heap_t)));
    auto* range = static_cast<char*>(std::aligned_alloc(64, bytes));
    std::memset(range, 0, bytes);
    EXPECT_EQ(heap_create(heap, reinterpret_cast<uintptr_t>(range), reinterpret_cast<uintptr_t>(range) + bytes,
                          const_cast<char*>("packet buffers")),
              0);
    return heap;
}

// Rows from the largest size to the smallest, with the clone row among them.
inline const packet_sheaf_block_t kPoolTable[] = {
    {const_cast<char*>("1518"), 1518, 0, 16, 4, nullptr},
    {const_cast<char*>("512"), 512, 0, 16, 4, nullptr},
    {const_cast<char*>("clone"), 0, 0, 16, 4, nullptr},
    {const_cast<char*>("128"), 128, 0, 16, 4, nullptr},
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

inline bool rests_in(sheaf_t* sheaf, packet_t* packet) {
    for (packet_t* p = sheaf->packets; p != nullptr; p = p->sheaf_next)
        if (p == packet) return true;
    return false;
}

}  // namespace packet_test
