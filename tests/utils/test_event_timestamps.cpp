// The event timestamp ring: what is printed, in which order and format, and
// when printing stops.
#include <time.h>

#include <cstdarg>
#include <cstdio>

#include <gtest/gtest.h>

#include "syslog_capture.h"
#include "time_util.h"

namespace {

std::vector<std::string> printed;
int calls = 0, fail_at = -1;  // the call that answers -1

int capture_print(const char* format, ...) {
    if (calls++ == fail_at) return -1;
    char line[256];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    printed.emplace_back(line);
    return length;
}

std::string column(const char* name, const char* kind) { return corvex_test::fmt("%-32s  %-5s at ", name, kind); }

TEST(EventTimestamps, AWrappedRingPrintsAllButTheOldestUntilAPrintFails) {
    char name[] = "before";
    event_timestamp_record_init(4);
    timespec before{}, after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    for (const char* lost : {"lost", "lost too"}) event_timestamp_record(lost, 1);
    event_timestamp_record("x", 257);   // start is the low eight bits
    event_timestamp_record(name, 256);  // kept by pointer
    event_timestamp_record("y", 1);
    clock_gettime(CLOCK_MONOTONIC, &after);
    snprintf(name, sizeof name, "after");
    event_timestamp_record_print(capture_print);
    ASSERT_EQ(printed.size(), 3u);
    unsigned int sec = 0, usec = 0;
    ASSERT_EQ(sscanf(printed[0].c_str() + column("x", "start").size(), "%u sec %u usec\n", &sec, &usec), 2) << printed[0];
    EXPECT_EQ(std::tuple(printed[0].substr(0, 43), printed[1].substr(0, 43), printed[2].substr(0, 43), printed[2].back()),
              std::tuple(column("x", "start"), column("after", "end"), column("y", "start"), '\n'));
    EXPECT_TRUE(sec * 1000000ll + usec >= before.tv_sec * 1000000ll + before.tv_nsec / 1000 - 1 &&
                sec * 1000000ll + usec <= after.tv_sec * 1000000ll + after.tv_nsec / 1000);
    printed.clear();
    calls = 0, fail_at = 1;
    event_timestamp_record_print(capture_print);
    EXPECT_EQ(std::tuple(printed.size(), calls), std::tuple(1u, 2)) << "nothing after the failed call";
    event_timestamp_record_init(0);  // no ring: nothing is recorded or printed
    event_timestamp_record("lost", 1);
    event_timestamp_record_print(capture_print);
    EXPECT_EQ(printed.size(), 1u);
}

}  // namespace
