#include "fake_clock.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace {
corvex_test::FakeClock* armed = nullptr;
std::mutex monotonic_lock;
}

corvex_test::FakeClock::FakeClock() { armed = this; }
corvex_test::FakeClock::~FakeClock() { armed = nullptr; }

extern "C" int clock_gettime(clockid_t clock, struct timespec* now) {
    if (armed != nullptr && clock == CLOCK_MONOTONIC) {
        std::lock_guard hold(monotonic_lock);
        *now = armed->monotonic;
        const long ns = now->tv_nsec + armed->monotonic_step_ns;
        armed->monotonic = {now->tv_sec + ns / 1000000000, ns % 1000000000};
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
}

extern "C" int gettimeofday(struct timeval* __restrict now, void* __restrict zone) noexcept {
    if (armed != nullptr) {
        *now = armed->wall;
        return 0;
    }
    return static_cast<int>(syscall(SYS_gettimeofday, now, zone));
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* __restrict cond, pthread_mutex_t* __restrict mutex,
                                      const struct timespec* __restrict deadline) {
    if (armed != nullptr) {
        armed->wait_deadlines.push_back(*deadline);
        if (armed->wait_results.empty()) return ETIMEDOUT;
        const int result = armed->wait_results.front();
        armed->wait_results.pop_front();
        return result;
    }
    // The current version: a plain dlsym would find the old compatibility one.
    using Wait = int (*)(pthread_cond_t*, pthread_mutex_t*, const struct timespec*);
    static const auto real = reinterpret_cast<Wait>(dlvsym(RTLD_NEXT, "pthread_cond_timedwait", "GLIBC_2.3.2"));
    return real(cond, mutex, deadline);
}
