// Threads that read the clock while the origin is being fixed agree on one
// origin: nobody sees a time from before it or far after it. The clock is
// faked: each reading is 1 ms after the one before, whatever the threads'
// timing.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fake_clock.h"
#include "time_util.h"

namespace {

// Runs in a fresh process, whose origin is not fixed yet.
[[noreturn]] void race_first_readings() {
    constexpr int kThreads = 8;
    corvex_test::FakeClock clock;
    clock.monotonic = {100000, 0};
    clock.monotonic_step_ns = 1000000;
    std::atomic<int> ready{0};
    std::vector<time_ms_t> first(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&ready, &first, i] {
            for (ready.fetch_add(1); ready.load() < kThreads;) {
            }
            first[i] = time_get_ms();
        });
    }
    for (auto& thread : threads) thread.join();
    // One thread fixed the origin and read 0; the others read within the
    // kThreads ms that all readings took (a thread that missed the origin
    // would read 100000 s).
    fprintf(stderr, "zero=%d bounded=%d\n", std::count(first.begin(), first.end(), 0u) >= 1,
            *std::max_element(first.begin(), first.end()) < kThreads);
    fflush(stderr);
    _exit(0);
}

TEST(TimeOriginThreads, RacingFirstReadingsAgreeOnTheOrigin) {
    EXPECT_EXIT(race_first_readings(), testing::ExitedWithCode(0), "zero=1 bounded=1");
}

}  // namespace
