// Time services: the origin, readings, duration texts, delays and the
// conversion to wall-clock time. The clocks are faked (fake_clock.h), so
// every value is exact; tests that need a process whose origin is not fixed
// yet run in a fresh child process.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "fake_clock.h"
#include "time_util.h"

using corvex_test::FakeClock;
using testing::ExitedWithCode;

namespace {

// Reported by the child processes on stderr, where the parent matches it.
[[noreturn]] void report(const std::string& facts) {
    fprintf(stderr, "%s\n", facts.c_str());
    fflush(stderr);
    _exit(0);
}

std::string show(const timeval& tv) { return std::to_string(tv.tv_sec) + "." + std::to_string(tv.tv_usec); }

[[noreturn]] void origin_from_first_reading() {
    FakeClock clock;
    clock.wall = {1000000000, 0};
    clock.monotonic = {100, 500000000};
    std::string facts = "first=" + std::to_string(time_get_ms());
    clock.monotonic = {100, 749999999};
    facts += " later=" + std::to_string(time_get_ms());
    facts += " raw=" + std::to_string(thread_get_runtime());
    time_init_startup_time();  // too late: no wall-clock reading
    clock.monotonic = {101, 0};
    facts += " after_init=" + std::to_string(time_get_ms());
    timeval tv{};
    time_stamp_to_timeofday(1500, &tv);
    facts += " wall=" + show(tv);
    char date[26];
    facts += " ms=" + std::to_string(time_stamp_to_timeofday_str(1500, date, sizeof date));
    report(facts + " date=" + date);
}

// The origin is fixed once per process: this runs in a fresh child.
TEST(TimeOrigin, TheFirstReadingFixesItAndWallTimesFollowFromIt) {
    EXPECT_EXIT(origin_from_first_reading(), ExitedWithCode(0),
                "^first=0 later=249 raw=100749 after_init=500 wall=1.500000 ms=500 date=Thu Jan  1 00:00:01 1970\n\n$");
}

TEST(DurationText, WordedAndCompactFormsAndTheirTruncation) {
    constexpr u_int32_t kMs = TIME_STR_MSEC, kCompact = TIME_STR_COMPACT;
    struct Case {
        time_ms_t ms;
        u_int32_t flags;
        size_t size;
        const char* text;
    };
    const Case cases[] = {
        {999, 0, 128, "0 seconds"}, {61000, 0, 128, "1 minute, 1 second"},
        {2 * 604800000ull + 3 * 86400000ull + 2 * 3600000ull + 2 * 60000 + 2000, 0, 128,
         "2 weeks, 3 days, 2 hours, 2 minutes, 2 seconds"},
        // The longest duration: the weeks are kept to 32 bits.
        {UINT64_MAX, kMs, 128, "435797832 weeks, 6 days, 14 hours, 25 minutes, 51 seconds, 615 milliseconds"},
        {UINT64_MAX, kCompact | kMs, 128, "3050584830+14:25:51.615"}, {86399999, kCompact | kMs, 128, "0+23:59:59.999"},
        // Truncated texts keep their separator; compact milliseconds go into whatever room is left.
        {61000, 0, 21, "1 minute, 1 second"}, {61000, 0, 20, "1 minute, 1 second,"}, {0, 0, 1, ""},
        {90061001, kCompact | kMs, 13, "1+01:01:01.0"}, {90061001, kCompact | kMs, 5, "1+01"},
    };
    for (const Case& c : cases) {
        char buffer[160];
        memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(time_elapsed_to_str(c.ms, c.flags, buffer, c.size), buffer);
        EXPECT_EQ(buffer[c.size], '#') << "written past size " << c.size;
        EXPECT_STREQ(buffer, c.text) << c.ms << " flags " << c.flags << " size " << c.size;
    }
    char untouched[4] = "abc";
    EXPECT_STREQ(time_elapsed_to_str(90061001, 0, untouched, 0), "abc") << "no room at all: nothing is written";
}

TEST(Delay, OneWaitUntilTheDeadlineWithMicrosecondsCarriedIntoSeconds) {
    FakeClock clock;
    clock.wall = {100, 999000};
    clock.wait_results = {0};  // a spurious wake-up ends the delay all the same
    time_delay_us(1000);
    time_delay_us(1500000);
    time_delay_us(0);
    clock.wall = {100, 400000};
    time_delay_us(600000);  // exactly 1,000,000 microseconds
    time_delay_us(599999);
    std::vector<std::pair<time_t, long>> deadlines;
    for (const timespec& d : clock.wait_deadlines) deadlines.emplace_back(d.tv_sec, d.tv_nsec);
    EXPECT_EQ(deadlines, (std::vector<std::pair<time_t, long>>{
                             {101, 0}, {102, 499000000}, {100, 999000000}, {101, 0}, {100, 999999000}}))
        << "one wait per delay";
}

}  // namespace
