// Time of the library: milliseconds of the monotonic clock counted from an
// origin fixed once per process, with a wall-clock reading taken at the same
// moment so that time stamps can be turned back into dates.
#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "priv_assert.h"
#include "time_util.h"

namespace {

// The monotonic reading (ms) that is the origin of every time_ms_t; 0 until
// fixed. Atomic so that a 32-bit process never sees half of it and two
// threads racing to fix it agree on one value.
std::atomic<time_ms_t> startup_time{0};

// The wall clock when the origin was fixed by time_init_startup_time; all
// zero otherwise, so conversions then count from 1 January 1970.
struct timeval startup_timeofday {};

constexpr u_int32_t kMsPerSecond = 1000;
constexpr u_int32_t kUsPerSecond = 1000000;
constexpr long kNsPerMs = 1000000;

// tv_sec is signed; the product is taken in 64 bits on every target.
time_ms_t timespec_to_ms(const struct timespec& ts) {
    return static_cast<time_ms_t>(static_cast<int64_t>(ts.tv_sec) * kMsPerSecond + ts.tv_nsec / kNsPerMs);
}

time_ms_t monotonic_ms() {
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return timespec_to_ms(now);
}

// Appends printf output at *length, never past size - 1 characters; keeps
// *length at the length the untruncated text would have.
template <typename... Args>
void append_text(char* buffer, size_t size, size_t* length, const char* format, Args... args) {
    size_t offset = std::min(*length, size);
    int written = snprintf(buffer + offset, size - offset, format, args...);
    if (written > 0) {
        *length += static_cast<size_t>(written);
    }
}

const char* plural(u_int32_t count) { return count == 1 ? "" : "s"; }

}  // namespace

extern "C" {

time_ms_t time_get_ms(void) {
    time_ms_t now = monotonic_ms();
    time_ms_t origin = startup_time.load(std::memory_order_relaxed);
    if (origin == 0 && startup_time.compare_exchange_strong(origin, now, std::memory_order_relaxed)) {
        origin = now;
    }
    // A thread that read the clock just before another fixed the origin
    // would otherwise see a time far in the future.
    return now >= origin ? now - origin : 0;
}

time_ms_t time_get_elapsed(time_ms_t start, time_ms_t finish) { return start > finish ? 0 : finish - start; }

int time_is_in_future(time_ms_t time) { return time_get_ms() < time ? 1 : 0; }

char* time_elapsed_to_str(time_ms_t ms, u_int32_t flags, char* buffer, size_t size) {
    if (size == 0) {
        return buffer;
    }
    const auto msec = static_cast<u_int32_t>(ms % 1000);
    time_ms_t rest = ms / 1000;
    const auto seconds = static_cast<u_int32_t>(rest % 60);
    rest /= 60;
    const auto minutes = static_cast<u_int32_t>(rest % 60);
    rest /= 60;
    const auto hours = static_cast<u_int32_t>(rest % 24);
    rest /= 24;
    const auto days = static_cast<u_int32_t>(rest % 7);
    const auto weeks = static_cast<u_int32_t>(rest / 7);

    if ((flags & TIME_STR_COMPACT) != 0) {
        size_t length = 0;
        append_text(buffer, size, &length, "%u+%02u:%02u:%02u", weeks * 7 + days, hours, minutes, seconds);
        if ((flags & TIME_STR_MSEC) != 0 && length < size - 1) {
            append_text(buffer, size, &length, ".%03u", msec);
        }
        return buffer;
    }

    // The worded text is built whole first: whether its last separator is
    // dropped depends on whether all of it fits.
    char text[160];
    size_t length = 0;
    const struct {
        u_int32_t count;
        const char* format;
    } units[] = {{weeks, "%u week%s, "}, {days, "%u day%s, "}, {hours, "%u hour%s, "}, {minutes, "%u minute%s, "}};
    for (const auto& unit : units) {
        if (unit.count != 0) {
            append_text(text, sizeof text, &length, unit.format, unit.count, plural(unit.count));
        }
    }
    if (seconds != 0 || length == 0) {
        append_text(text, sizeof text, &length, "%u second%s, ", seconds, plural(seconds));
    }
    if ((flags & TIME_STR_MSEC) != 0) {
        append_text(text, sizeof text, &length, "%u millisecond%s, ", msec, plural(msec));
    }
    static_assert(sizeof text > 5 * sizeof("4294967295 minutes, ") + sizeof("4294967295 milliseconds, "),
                  "every piece fits");
    const size_t kept = length <= size - 1 ? length - 2 : size - 1;
    memcpy(buffer, text, kept);
    buffer[kept] = '\0';
    return buffer;
}

void time_delay_us(u_int32_t useconds) {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    int64_t seconds = static_cast<int64_t>(now.tv_sec) + useconds / kUsPerSecond;
    int64_t micros = static_cast<int64_t>(now.tv_usec) + useconds % kUsPerSecond;
    if (micros >= kUsPerSecond) {
        micros -= kUsPerSecond;
        seconds += 1;
    }
    struct timespec deadline {};
    deadline.tv_sec = static_cast<time_t>(seconds);
    deadline.tv_nsec = static_cast<long>(micros * 1000);

    // Private to this call and never signalled: the wait ends at the deadline.
    pthread_cond_t never_signalled = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    // One wait, its result not examined: the delay follows the wall clock,
    // and a spurious wake-up ends it early, as callers of this delay expect.
    pthread_cond_timedwait(&never_signalled, &mutex, &deadline);
    pthread_mutex_unlock(&mutex);
    pthread_cond_destroy(&never_signalled);
    pthread_mutex_destroy(&mutex);
}

void time_stamp_to_timeofday(time_ms_t tstmp, struct timeval* tv) {
    // Unsigned arithmetic: a stamp beyond the range of time_t wraps instead
    // of overflowing.
    u_int64_t seconds = static_cast<u_int64_t>(startup_timeofday.tv_sec) + tstmp / kMsPerSecond;
    u_int64_t micros = static_cast<u_int64_t>(startup_timeofday.tv_usec) + (tstmp % kMsPerSecond) * 1000;
    if (micros >= kUsPerSecond) {
        micros -= kUsPerSecond;
        seconds += 1;
    }
    tv->tv_sec = static_cast<time_t>(seconds);
    tv->tv_usec = static_cast<suseconds_t>(micros);
}

u_int32_t time_stamp_to_timeofday_str(time_ms_t tstmp, char* buffer, size_t size) {
    struct timeval tv {};
    time_stamp_to_timeofday(tstmp, &tv);
    // asctime_r writes 26 bytes; a smaller buffer gets what fits of them.
    char date[26] = "";
    struct tm broken_down {};
    if (gmtime_r(&tv.tv_sec, &broken_down) == nullptr || asctime_r(&broken_down, date) == nullptr) {
        date[0] = '\0';  // a year that the format cannot show
    }
    if (size > 0) {
        const size_t kept = std::min(strlen(date), size - 1);
        memcpy(buffer, date, kept);
        buffer[kept] = '\0';
    }
    return static_cast<u_int32_t>(tv.tv_usec / 1000);
}

void time_init_startup_time(void) {
    if (startup_time.load(std::memory_order_relaxed) == 0) {
        time_get_ms();
        gettimeofday(&startup_timeofday, nullptr);
    }
}

time_ms_t thread_get_runtime(void) {
    struct timespec now {};
    int res = clock_gettime(CLOCK_MONOTONIC, &now);
    CORVEX_ASSERT_AT(res == 0, "res == 0", "utils/time", 253);
    return timespec_to_ms(now);
}

}  // extern "C"
