// Threads that read the clock while the origin is being fixed agree on one
// origin: nobody sees a time from before it or far after it.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "time_util.h"

using testing::ExitedWithCode;

namespace {

// Runs in a fresh process, whose origin is not fixed yet.
[[noreturn]] void race_first_readings() {
    constexpr int kThreads = 8;
    std::atomic<int> ready{0};
    std::vector<time_ms_t> first(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&ready, &first, i] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
            }
            first[i] = time_get_ms();
        });
    }
    for (auto& thread : threads) thread.join();
    int zeros = 0;
    time_ms_t largest = 0;
    for (time_ms_t value : first) {
        zeros += value == 0 ? 1 : 0;
        largest = value > largest ? value : largest;
    }
    // One thread fixed the origin and read 0; the others read just after.
    fprintf(stderr, "zero=%s bounded=%s\n", zeros >= 1 ? "yes" : "no", largest < 10000 ? "yes" : "no");
    fflush(stderr);
    _exit(0);
}

TEST(TimeOriginThreads, RacingFirstReadingsAgreeOnTheOrigin) {
    EXPECT_EXIT(race_first_readings(), ExitedWithCode(0), "zero=yes bounded=yes");
}

}  // namespace
