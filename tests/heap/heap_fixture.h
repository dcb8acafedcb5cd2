// Reading heap blocks, and the corruption report as the heap writes it.
#pragma once

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "heap.h"
#include "syslog_capture.h"
#include "test_heaps.h"

namespace heap_test {

using namespace corvex_test;

constexpr size_t kHdr = sizeof(heap_block_t);
constexpr size_t kTrailer = 16 + sizeof(void*);

inline heap_block_t* hdr(void* data) { return reinterpret_cast<heap_block_t*>(static_cast<char*>(data) - kHdr); }
inline void* data(heap_block_t* block) { return reinterpret_cast<char*>(block) + kHdr; }
inline heap_block_t* next_of(heap_block_t* block) { return hdr(static_cast<char*>(data(block)) + block->size + kHdr); }
inline u_int32_t word(const heap_block_t* block) {
    u_int32_t w;
    std::memcpy(&w, &block->header, 4);
    return w;
}

inline status_t walk(heap_t* heap, bool noisy = false, bool active = false) {
    heap_walk_arg_t arg{};
    arg.noisy = noisy ? TRUE : FALSE;
    arg.active = active ? TRUE : FALSE;
    return heap_walk(heap, nullptr, &arg);
}

// One free block spanning the range, every byte accounted free, clean walk.
inline void expect_whole(heap_t* heap, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    const ::testing::ScopedTrace call_site(file, line, "expect_whole");
    auto* block = reinterpret_cast<heap_block_t*>(heap->base);
    EXPECT_EQ(std::tuple(heap->free_bytes, +block->header.allocated, block->size, walk(heap)),
              std::tuple(heap->size, 0u, heap->size - kHdr, 0));
}

// What heap_block_log writes for this block, as it is now.
inline std::vector<std::string> block_log_of(heap_t* heap, heap_block_t* block) {
    syslog_clear();
    heap_block_log(3, heap, block);
    return syslog_texts(3);
}

// The corruption report: a title, then each named block framed and logged.
inline std::vector<std::string> expected_report(heap_t* heap, const char* error, heap_block_t* block,
                                                heap_block_t* prev = nullptr, heap_block_t* next = nullptr) {
    std::vector<std::string> lines = {"HEAP: Heap Block Corrupted\n", fmt("HEAP: %s\n", error)};
    for (auto [title, b] : {std::pair{"Current", block}, {"Previous", prev}, {"Next", next}}) {
        if (b == nullptr) continue;
        lines.insert(lines.end(),
                     {"HEAP:\n", "HEAP:\n", fmt("HEAP: %s Heap Block: %p\n", title, static_cast<void*>(b))});
        auto log = block_log_of(heap, b);
        lines.insert(lines.end(), log.begin(), log.end());
    }
    return lines;
}

}  // namespace heap_test
