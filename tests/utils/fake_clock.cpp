#include "fake_clock.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <deque>

namespace corvex_test {
namespace {

struct State {
    bool armed = false;
    bool monotonic_fails = false;
    timespec monotonic{};
    timeval wall{};
    std::deque<int> wait_results;
    std::vector<timespec> deadlines;
};

State state;

}  // namespace

FakeClock::FakeClock() {
    state = State{};
    state.armed = true;
}
FakeClock::~FakeClock() { state = State{}; }
void FakeClock::set_monotonic(time_t seconds, long nanoseconds) { state.monotonic = {seconds, nanoseconds}; }
void FakeClock::fail_monotonic() { state.monotonic_fails = true; }
void FakeClock::set_wall(time_t seconds, suseconds_t microseconds) { state.wall = {seconds, microseconds}; }
void FakeClock::script_waits(std::vector<int> results) { state.wait_results.assign(results.begin(), results.end()); }
const std::vector<timespec>& FakeClock::wait_deadlines() const { return state.deadlines; }

}  // namespace corvex_test

using corvex_test::state;

extern "C" int clock_gettime(clockid_t clock, struct timespec* now) {
    if (state.armed && clock == CLOCK_MONOTONIC) {
        if (state.monotonic_fails) {
            errno = EINVAL;
            return -1;
        }
        *now = state.monotonic;
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
}

extern "C" int gettimeofday(struct timeval* __restrict now, void* __restrict zone) noexcept {
    if (state.armed) {
        *now = state.wall;
        return 0;
    }
    return static_cast<int>(syscall(SYS_gettimeofday, now, zone));
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* __restrict cond, pthread_mutex_t* __restrict mutex,
                                      const struct timespec* __restrict deadline) {
    if (state.armed) {
        state.deadlines.push_back(*deadline);
        if (state.wait_results.empty()) {
            return ETIMEDOUT;
        }
        const int result = state.wait_results.front();
        state.wait_results.pop_front();
        return result;
    }
    // The current version: a plain dlsym would find the old compatibility one.
    using Wait = int (*)(pthread_cond_t*, pthread_mutex_t*, const struct timespec*);
    static const auto real = reinterpret_cast<Wait>(dlvsym(RTLD_NEXT, "pthread_cond_timedwait", "GLIBC_2.3.2"));
    return real(cond, mutex, deadline);
}
