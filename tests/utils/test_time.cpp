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

timespec real_monotonic() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return now;
}

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

[[noreturn]] void origin_from_startup() {
    FakeClock clock;
    clock.monotonic = {50, 0};
    clock.wall = {1000000000, 1000};
    time_init_startup_time();
    clock.monotonic = {60, 0};
    clock.wall = {5, 5};  // a second start-up changes nothing
    time_init_startup_time();
    std::string facts = "now=" + std::to_string(time_get_ms());
    timeval tv{};
    for (time_ms_t stamp : {0, 998, 999, 1999, 10000}) {
        time_stamp_to_timeofday(stamp, &tv);
        facts += " " + std::to_string(stamp) + "=" + show(tv);
    }
    char date[32], cut[11];
    facts += " ms=" + std::to_string(time_stamp_to_timeofday_str(1234, date, sizeof date)) + " date=" + date;
    time_stamp_to_timeofday_str(1234, cut, sizeof cut);
    report(facts + "cut=" + cut + " none=" + std::to_string(time_stamp_to_timeofday_str(1234, nullptr, 0)));
}

// The origin is fixed once per process: these run in fresh children.
TEST(TimeOrigin, FirstReadingOrStartupFixesIt) {
    EXPECT_EXIT(origin_from_first_reading(), ExitedWithCode(0),
                "^first=0 later=249 raw=100749 after_init=500 wall=1.500000 ms=500 date=Thu Jan  1 00:00:01 1970\n\n$");
    EXPECT_EXIT(origin_from_startup(), ExitedWithCode(0),
                "^now=10000 0=1000000000.1000 998=1000000000.999000 999=1000000001.0 1999=1000000002.0 "
                "10000=1000000010.1000 ms=235 date=Sun Sep  9 01:46:41 2001\ncut=Sun Sep  9 none=235\n$");
}

TEST(TimeReadings, MillisecondsFollowTheMonotonicClock) {
    {
        FakeClock clock;
        // Far enough beyond the present that an origin fixed earlier lies below.
        const time_t base = real_monotonic().tv_sec + 100000;
        clock.monotonic = {base, 0};
        const time_ms_t start = time_get_ms();
        clock.monotonic = {base + 5, 999999999};
        EXPECT_EQ(time_get_ms(), start + 5999);
        EXPECT_EQ(thread_get_runtime(), static_cast<time_ms_t>(base + 5) * 1000 + 999);
        const time_ms_t now = time_get_ms();
        EXPECT_EQ(time_is_in_future(now), 0);
        EXPECT_EQ(time_is_in_future(now - 1), 0);
        EXPECT_EQ(time_is_in_future(now + 1), 1);
        EXPECT_EQ(time_is_in_future(UINT64_MAX), 1);
    }
    // The real clock never goes backwards.
    time_ms_t previous = time_get_ms();
    for (int i = 0; i < 1000; ++i) {
        const time_ms_t next = time_get_ms();
        ASSERT_GE(next, previous);
        previous = next;
    }
    const timespec before = real_monotonic();
    const time_ms_t raw = thread_get_runtime();
    const timespec after = real_monotonic();
    EXPECT_GE(raw, static_cast<time_ms_t>(before.tv_sec) * 1000 + before.tv_nsec / 1000000);
    EXPECT_LE(raw, static_cast<time_ms_t>(after.tv_sec) * 1000 + after.tv_nsec / 1000000);
    // Elapsed time is never negative.
    const time_ms_t elapsed[][3] = {{5, 3, 0}, {3, 5, 2}, {7, 7, 0}, {0, UINT64_MAX, UINT64_MAX}, {UINT64_MAX, 0, 0}};
    for (const auto& e : elapsed) EXPECT_EQ(time_get_elapsed(e[0], e[1]), e[2]) << e[0] << " to " << e[1];
}

TEST(TimeReadings, FailedMonotonicReadIsAnAssertion) {
    EXPECT_DEATH(
        {
            FakeClock clock;
            clock.monotonic_fails = true;
            thread_get_runtime();
        },
        "utils/time:253: thread_get_runtime: Assertion `res == 0' failed");
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
        {0, 0, 128, "0 seconds"}, {999, 0, 128, "0 seconds"}, {1000, 0, 128, "1 second"}, {2000, 0, 128, "2 seconds"},
        {60000, 0, 128, "1 minute"}, {61000, 0, 128, "1 minute, 1 second"}, {3600000, 0, 128, "1 hour"},
        {604800000, 0, 128, "1 week"}, {90061001, 0, 128, "1 day, 1 hour, 1 minute, 1 second"},
        {2 * 604800000ull + 3 * 86400000ull + 2 * 3600000ull + 2 * 60000 + 2000, 0, 128,
         "2 weeks, 3 days, 2 hours, 2 minutes, 2 seconds"},
        {90061001, 0x1 | 0x8 | 0x100, 128, "1 day, 1 hour, 1 minute, 1 second"},  // unknown flags
        // The longest duration: the weeks are kept to 32 bits.
        {UINT64_MAX, kMs, 128, "435797832 weeks, 6 days, 14 hours, 25 minutes, 51 seconds, 615 milliseconds"},
        {UINT64_MAX, kCompact | kMs, 128, "3050584830+14:25:51.615"}, {5, kMs, 128, "0 seconds, 5 milliseconds"},
        {0, kMs, 128, "0 seconds, 0 milliseconds"}, {1001, kMs, 128, "1 second, 1 millisecond"},
        {90061001, kMs, 128, "1 day, 1 hour, 1 minute, 1 second, 1 millisecond"},
        {1209600001, kMs, 128, "2 weeks, 1 millisecond"}, {60000, kMs, 128, "1 minute, 0 milliseconds"},
        {90061001, kCompact, 128, "1+01:01:01"}, {90061001, kCompact | kMs, 128, "1+01:01:01.001"},
        {694861001, kCompact | kMs, 128, "8+01:01:01.001"}, {0, kCompact, 128, "0+00:00:00"},
        {86399999, kCompact | kMs, 128, "0+23:59:59.999"},
        // Truncated texts keep their separator.
        {90061001, 0, 20, "1 day, 1 hour, 1 mi"}, {61000, 0, 21, "1 minute, 1 second"},
        {61000, 0, 20, "1 minute, 1 second,"}, {0, 0, 12, "0 seconds"}, {0, 0, 11, "0 seconds,"}, {0, 0, 1, ""},
        {5, kMs, 24, "0 seconds, 5 millisecon"},
        // Compact: the milliseconds go into whatever room the first part left.
        {90061001, kCompact | kMs, 11, "1+01:01:01"}, {90061001, kCompact | kMs, 13, "1+01:01:01.0"},
        {90061001, kCompact | kMs, 5, "1+01"}, {90061001, kCompact, 1, ""},
    };
    for (const Case& c : cases) {
        char buffer[160];
        memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(time_elapsed_to_str(c.ms, c.flags, buffer, c.size), buffer);
        EXPECT_EQ(buffer[c.size], '#') << "written past size " << c.size;
        EXPECT_STREQ(buffer, c.text) << c.ms << " flags " << c.flags << " size " << c.size;
    }
    // No room at all: nothing is written.
    char untouched[4] = "abc";
    for (u_int32_t flags : {0u, kCompact}) {
        EXPECT_EQ(time_elapsed_to_str(90061001, flags, untouched, 0), untouched);
        EXPECT_STREQ(untouched, "abc");
    }
}

TEST(Delay, OneWaitUntilTheDeadlineWithMicrosecondsCarriedIntoSeconds) {
    {
        FakeClock clock;
        clock.wall = {100, 999000};
        clock.wait_results = {0};  // a spurious wake-up ends the delay all the same
        time_delay_us(1000);
        time_delay_us(1500000);
        time_delay_us(0);
        clock.wall = {100, 400000};
        time_delay_us(600000);  // exactly 1,000,000 microseconds
        time_delay_us(599999);
        const auto& deadlines = clock.wait_deadlines;
        ASSERT_EQ(deadlines.size(), 5u) << "one wait per delay";
        const std::pair<time_t, long> expected[] = {
            {101, 0}, {102, 499000000}, {100, 999000000}, {101, 0}, {100, 999999000}};
        for (size_t i = 0; i < 5; ++i) {
            EXPECT_EQ(deadlines[i].tv_sec, expected[i].first) << i;
            EXPECT_EQ(deadlines[i].tv_nsec, expected[i].second) << i;
        }
    }
    // On the real clock.
    timeval before{}, after{};
    gettimeofday(&before, nullptr);
    time_delay_us(3000);
    gettimeofday(&after, nullptr);
    EXPECT_GE((after.tv_sec - before.tv_sec) * 1000000ll + (after.tv_usec - before.tv_usec), 3000);
}

}  // namespace
