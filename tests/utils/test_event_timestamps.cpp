// The event timestamp ring: what is printed, in which order, in which
// format, and when printing stops.
#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "time_util.h"

namespace {

using Lines = std::vector<std::string>;

// A printf-style sink for event_timestamp_record_print.
Lines printed;
int fail_at_call = -1;  // the call (0-based) that answers -1; -1: none
int calls = 0;

int capture_print(const char* format, ...) {
    if (calls++ == fail_at_call) return -1;
    char line[256];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    printed.emplace_back(line);
    return length;
}

Lines print_ring(int fail_at = -1) {
    printed.clear();
    calls = 0;
    fail_at_call = fail_at;
    event_timestamp_record_print(capture_print);
    return printed;
}

// Each printed line up to its " at ".
Lines columns(const Lines& lines) {
    Lines result;
    for (const auto& line : lines) result.push_back(line.substr(0, line.find(" at ")));
    return result;
}

std::string column(const char* name, const char* kind) {
    char text[128];
    snprintf(text, sizeof text, "%-32s  %-5s", name, kind);
    return text;
}

long long monotonic_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000ll + now.tv_nsec / 1000;
}

TEST(EventTimestamps, LineFormatTimestampsAndNames) {
    char name[] = "before";
    event_timestamp_record_init(8);
    const long long before = monotonic_us();
    event_timestamp_record("boot", 1);
    event_timestamp_record("boot", 0);
    event_timestamp_record("a-name-longer-than-thirty-two-characters", 2);
    event_timestamp_record("x", 256);  // start is the low eight bits
    event_timestamp_record("y", 257);
    event_timestamp_record("z", -1);
    event_timestamp_record(name, 1);  // kept by pointer
    const long long after = monotonic_us();
    snprintf(name, sizeof name, "after");
    const auto lines = print_ring();
    EXPECT_EQ(columns(lines), (Lines{"boot                              start", "boot                              end  ",
                                     "a-name-longer-than-thirty-two-characters  start", column("x", "end"),
                                     column("y", "start"), column("z", "start"), column("after", "start")}));
    for (const auto& line : lines) {
        unsigned int sec = 0, usec = 0;
        char tail = 0;
        ASSERT_EQ(sscanf(line.c_str() + line.find(" at "), " at %u sec %u usec%c", &sec, &usec, &tail), 3) << line;
        EXPECT_EQ(tail, '\n');
        EXPECT_LT(usec, 1000000u);
        const long long stamp = sec * 1000000ll + usec;
        EXPECT_GE(stamp, before - 1);  // the clock's microseconds are truncated
        EXPECT_LE(stamp, after);
    }
}

TEST(EventTimestamps, WrappedRingPrintsAllButTheOldest) {
    static const char* const names[] = {"r1", "r2", "r3", "r4", "r5", "r6"};
    event_timestamp_record_init(4);
    for (int i = 0; i < 4; ++i) event_timestamp_record(names[i], 1);
    EXPECT_EQ(columns(print_ring()), (Lines{column("r2", "start"), column("r3", "start"), column("r4", "start")}));
    for (int i = 4; i < 6; ++i) event_timestamp_record(names[i], 0);
    EXPECT_EQ(columns(print_ring()), (Lines{column("r4", "start"), column("r5", "end"), column("r6", "end")}));
    // A ring of one record never shows it.
    event_timestamp_record_init(1);
    event_timestamp_record("only", 1);
    EXPECT_TRUE(print_ring().empty());
    // At most 65535 records: clamped, then wrapped once.
    event_timestamp_record_init(70000);
    static const char* const many[] = {"first", "second", "other"};
    for (int i = 0; i < 65535; ++i) event_timestamp_record(many[i < 2 ? i : 2], 1);
    const auto lines = print_ring();
    ASSERT_EQ(lines.size(), 65534u);
    EXPECT_EQ(columns({lines.front()}), Lines{column("second", "start")});
    event_timestamp_record_init(0);
}

TEST(EventTimestamps, NegativePrintResultStopsPrintingAndEmptyOrAbsentRingsPrintNothing) {
    event_timestamp_record_init(5);
    for (int i = 0; i < 4; ++i) event_timestamp_record("step", i % 2);
    EXPECT_EQ(print_ring(1).size(), 1u);
    EXPECT_EQ(calls, 2) << "nothing after the failed call";
    EXPECT_EQ(print_ring(0).size(), 0u);
    EXPECT_EQ(calls, 1);
    // A new ring replaces the old one and its records.
    event_timestamp_record_init(3);
    EXPECT_TRUE(print_ring().empty());
    EXPECT_EQ(calls, 0);
    // No ring: recording does nothing, printing prints nothing.
    for (int entries : {0, -5}) {
        event_timestamp_record_init(entries);
        event_timestamp_record("lost", 1);
        EXPECT_TRUE(print_ring().empty()) << entries;
    }
    event_timestamp_record_init(2);
    event_timestamp_record_print(nullptr);
}

}  // namespace
