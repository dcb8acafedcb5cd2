// Heaps for tests. A heap is registered for the life of the process, so
// its record and range are never released (they stay reachable through
// heap_list).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "heap.h"

namespace heap_test {

constexpr size_t kHdr = sizeof(heap_block_t);
constexpr size_t kTrailer = 16 + sizeof(void*);

inline heap_block_t* hdr(void* data) { return reinterpret_cast<heap_block_t*>(static_cast<char*>(data) - kHdr); }
inline void* data(heap_block_t* block) { return reinterpret_cast<char*>(block) + kHdr; }
inline heap_block_t* next_of(heap_block_t* block) {
    return reinterpret_cast<heap_block_t*>(reinterpret_cast<char*>(block) + kHdr + block->size);
}
inline u_int32_t word(const heap_block_t* block) {
    u_int32_t w;
    std::memcpy(&w, &block->header, 4);
    return w;
}

// A range of `bytes` starting `misalign` bytes past an 8-byte boundary.
inline char* make_range(size_t bytes, size_t misalign = 0) {
    auto* range = static_cast<char*>(std::aligned_alloc(64, bytes + 64));
    std::memset(range, 0, bytes + 64);
    return range + misalign;
}

inline heap_t* new_record() {
    auto* heap = static_cast<heap_t*>(std::calloc(1, sizeof(heap_t)));
    return heap;
}

// A created heap over a fresh range (self-test included).
inline heap_t* make_heap(size_t bytes, const char* name = "test") {
    heap_t* heap = new_record();
    char* range = make_range(bytes);
    EXPECT_EQ(heap_create(heap, reinterpret_cast<uintptr_t>(range), reinterpret_cast<uintptr_t>(range) + bytes,
                          const_cast<char*>(name)),
              0);
    return heap;
}

inline heap_block_t* first_block(heap_t* heap) { return reinterpret_cast<heap_block_t*>(heap->base); }

// Every block in address order, by walking sizes (no validation).
inline std::vector<heap_block_t*> blocks(heap_t* heap) {
    std::vector<heap_block_t*> out;
    uintptr_t end = heap->base + heap->size;
    for (auto* b = first_block(heap); reinterpret_cast<uintptr_t>(b) < end; b = next_of(b)) {
        out.push_back(b);
    }
    return out;
}

inline status_t walk(heap_t* heap, heap_walk_function_t walker = nullptr, heap_walk_arg_t* arg = nullptr) {
    heap_walk_arg_t quiet{};
    return heap_walk(heap, walker, arg ? arg : &quiet);
}

// One free block spanning the range, every byte accounted free, clean walk.
inline void expect_whole(heap_t* heap) {
    EXPECT_EQ(heap->free_bytes, heap->size);
    auto all = blocks(heap);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0]->header.allocated, 0u);
    EXPECT_EQ(all[0]->size, heap->size - kHdr);
    EXPECT_EQ(walk(heap), 0);
}

}  // namespace heap_test
