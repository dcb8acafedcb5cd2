// Heaps for tests, and reading the heap's log records. A heap is registered
// for the life of the process, so its record and range are never released.
#pragma once

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "heap.h"
#include "syslog_capture.h"

// A death whose log records reach the matcher as "<prio>text".
#define EXPECT_LOGGED_DEATH(statement, regex) \
    EXPECT_DEATH({ corvex_test::syslog_echo_to_stderr(true); statement; }, regex)

// A death whose log must be exactly what the child expected when it armed
// heap_test::expect_at_abort (addresses differ from the parent's, so the
// child itself compares, and tells the parent through stderr).
#define EXPECT_EXACT_LOG_DEATH(statement) EXPECT_DEATH(statement, "logged exactly as expected")

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

// A zeroed range of `bytes` starting `misalign` bytes past an 8-byte boundary.
inline char* make_range(size_t bytes, size_t misalign = 0) {
    auto* range = static_cast<char*>(std::aligned_alloc(64, bytes + 64));
    std::memset(range, 0, bytes + 64);
    return range + misalign;
}

inline heap_t* new_record() { return static_cast<heap_t*>(std::calloc(1, sizeof(heap_t))); }

inline status_t create(heap_t* heap, const char* first, size_t bytes, const char* name) {
    auto start = reinterpret_cast<uintptr_t>(first);
    return heap_create(heap, start, start + bytes, const_cast<char*>(name));
}

inline heap_t* make_heap(size_t bytes, const char* name = "test") {
    heap_t* heap = new_record();
    EXPECT_EQ(create(heap, make_range(bytes), bytes, name), 0);
    return heap;
}

inline heap_block_t* first_block(heap_t* heap) { return reinterpret_cast<heap_block_t*>(heap->base); }

// Every block in address order, by walking sizes (no validation).
inline std::vector<heap_block_t*> blocks(heap_t* heap) {
    std::vector<heap_block_t*> out;
    for (auto* b = first_block(heap); reinterpret_cast<uintptr_t>(b) < heap->base + heap->size; b = next_of(b)) {
        out.push_back(b);
    }
    return out;
}

inline heap_walk_arg_t walk_arg(bool noisy = false, bool active = false) {
    heap_walk_arg_t arg{};
    arg.noisy = noisy ? TRUE : FALSE;
    arg.active = active ? TRUE : FALSE;
    return arg;
}

inline status_t walk(heap_t* heap, heap_walk_function_t walker = nullptr) {
    heap_walk_arg_t quiet = walk_arg();
    return heap_walk(heap, walker, &quiet);
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

inline std::string fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline std::string fmt(const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

inline std::vector<std::string> log_texts(int priority = 3) {
    std::vector<std::string> out;
    for (const auto& r : corvex_test::syslog_records()) {
        if (r.priority == priority) out.push_back(r.text);
    }
    return out;
}

// What heap_block_log writes for this block, as it is now.
inline std::vector<std::string> block_log_of(heap_t* heap, heap_block_t* block) {
    corvex_test::syslog_clear();
    heap_block_log(3, heap, block);
    auto texts = log_texts();
    corvex_test::syslog_clear();
    return texts;
}

template <typename T>
void append(std::vector<T>& to, const std::vector<T>& more) {
    to.insert(to.end(), more.begin(), more.end());
}

// `title` line and the block log of `block`, as the corruption reports frame them.
inline std::vector<std::string> framed_log(heap_t* heap, const char* title, heap_block_t* block) {
    std::vector<std::string> lines = {"HEAP:\n", "HEAP:\n", fmt("HEAP: %s: %p\n", title, static_cast<void*>(block))};
    append(lines, block_log_of(heap, block));
    return lines;
}

// The corruption report: fixed lines around the block logs of the blocks it names.
inline std::vector<std::string> expected_report(heap_t* heap, const char* error, heap_block_t* block,
                                                heap_block_t* prev = nullptr, heap_block_t* next = nullptr) {
    std::vector<std::string> lines = {"HEAP: Heap Block Corrupted\n", fmt("HEAP: %s\n", error)};
    append(lines, framed_log(heap, "Current Heap Block", block));
    if (prev != nullptr) append(lines, framed_log(heap, "Previous Heap Block", prev));
    if (next != nullptr) append(lines, framed_log(heap, "Next Heap Block", next));
    return lines;
}

using corvex_test::LogRecord;

inline std::vector<LogRecord> records(int priority, const std::vector<std::string>& texts) {
    std::vector<LogRecord> out;
    for (const auto& text : texts) out.push_back({priority, text});
    return out;
}

// The four records of a panic with this message.
inline std::vector<LogRecord> panic_records(const std::string& message) {
    const std::string rule = "--------------------------------------\n";
    return records(0, {rule, "PANIC PANIC PANIC PANIC PANIC PANIC\n", message, rule});
}

struct AbortExpectation {
    std::vector<LogRecord> log;
    u_int32_t failures = 0;
    u_int32_t failures_before = 0;
};
inline AbortExpectation at_abort;

inline void judge_at_abort(int) {
    const auto logged = corvex_test::syslog_records();
    const u_int32_t failures = heap_bp_failure_count - at_abort.failures_before;
    if (logged == at_abort.log && failures == at_abort.failures) {
        fputs("logged exactly as expected\n", stderr);
        return;  // abort() goes on to end the process
    }
    fprintf(stderr, "%u failures counted (%u expected); logged:\n", failures, at_abort.failures);
    for (const auto& r : logged) fprintf(stderr, "<%d>%s", r.priority, r.text.c_str());
}

// Inside a dying child: from here to the abort, exactly `log` is written
// and `failures` heap failures are counted.
inline void expect_at_abort(std::vector<LogRecord> log, u_int32_t failures) {
    at_abort = {std::move(log), failures, heap_bp_failure_count};
    corvex_test::syslog_clear();
    std::signal(SIGABRT, judge_at_abort);
}

}  // namespace heap_test
