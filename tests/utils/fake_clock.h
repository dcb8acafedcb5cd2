// A clock under the test's control.
//
// The test binary defines clock_gettime, gettimeofday and
// pthread_cond_timedwait itself, so the library's calls land here. While a
// FakeClock exists, the monotonic clock and the wall clock read what the
// test set, and a timed wait returns at once, recording its deadline;
// otherwise every call goes to the system.
#pragma once

#include <sys/time.h>
#include <time.h>

#include <vector>

namespace corvex_test {

class FakeClock {
public:
    FakeClock();
    ~FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    void set_monotonic(time_t seconds, long nanoseconds);
    // clock_gettime(CLOCK_MONOTONIC) fails from now on.
    void fail_monotonic();
    void set_wall(time_t seconds, suseconds_t microseconds);
    // The results of the next timed waits, in order; ETIMEDOUT once used up.
    void script_waits(std::vector<int> results);
    // The deadline of every timed wait so far.
    const std::vector<timespec>& wait_deadlines() const;
};

}  // namespace corvex_test
