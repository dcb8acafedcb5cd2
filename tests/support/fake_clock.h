// A clock under the test's control. The test binary defines clock_gettime,
// gettimeofday and pthread_cond_timedwait itself: while a FakeClock exists,
// the monotonic and wall clocks read its fields (each monotonic reading,
// from any thread, then moves that clock on by monotonic_step_ns) and a
// timed wait returns at once, recording its deadline; otherwise every call
// goes to the system.
#pragma once

#include <sys/time.h>
#include <time.h>

#include <deque>
#include <vector>

namespace corvex_test {

struct FakeClock {
    FakeClock();
    ~FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    timespec monotonic{};
    long monotonic_step_ns = 0;
    timeval wall{};
    std::deque<int> wait_results;  // of the next timed waits, in order; then ETIMEDOUT
    std::vector<timespec> wait_deadlines;
};

}  // namespace corvex_test
