// Reading the heap's log records and formatting expected lines.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "heap.h"
#include "syslog_capture.h"

namespace heap_test {

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

inline void append(std::vector<std::string>& to, const std::vector<std::string>& more) {
    to.insert(to.end(), more.begin(), more.end());
}

// The corruption report: fixed lines around the block logs of the blocks it names.
inline std::vector<std::string> expected_report(heap_t* heap, const char* error, heap_block_t* block,
                                                heap_block_t* prev = nullptr, heap_block_t* next = nullptr) {
    std::vector<std::string> lines = {"HEAP: Heap Block Corrupted\n", fmt("HEAP: %s\n", error), "HEAP:\n", "HEAP:\n",
                                      fmt("HEAP: Current Heap Block: %p\n", static_cast<void*>(block))};
    append(lines, block_log_of(heap, block));
    if (prev != nullptr) {
        append(lines, {"HEAP:\n", "HEAP:\n", fmt("HEAP: Previous Heap Block: %p\n", static_cast<void*>(prev))});
        append(lines, block_log_of(heap, prev));
    }
    if (next != nullptr) {
        append(lines, {"HEAP:\n", "HEAP:\n", fmt("HEAP: Next Heap Block: %p\n", static_cast<void*>(next))});
        append(lines, block_log_of(heap, next));
    }
    return lines;
}

}  // namespace heap_test
