// Heaps over fresh ranges. A heap stays registered for the life of the
// process, so its record and range are never released.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "heap.h"

namespace corvex_test {

// A zeroed range of `bytes` starting `misalign` bytes past a 64-byte boundary.
inline char* make_range(size_t bytes, size_t misalign = 0) {
    auto* range = static_cast<char*>(std::aligned_alloc(64, bytes + 64));
    std::memset(range, 0, bytes + 64);
    return range + misalign;
}

inline heap_t* make_heap(size_t bytes, const char* name = "test") {
    auto* heap = static_cast<heap_t*>(std::calloc(1, sizeof(heap_t)));
    auto first = reinterpret_cast<uintptr_t>(make_range(bytes));
    EXPECT_EQ(heap_create(heap, first, first + bytes, const_cast<char*>(name)), 0);
    return heap;
}

}  // namespace corvex_test
