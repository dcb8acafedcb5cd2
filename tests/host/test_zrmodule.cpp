// The module library: named tasks running periodic timers.
#include <pthread.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host_module.h"
#include "zrmodule_control.h"

namespace {

struct Call {
    zrmodule_timer* timer;
    time_t interval;  // -1 when the call came from outside a module
    pthread_t thread;
    std::string thread_name;
};

// What the timer functions saw, shared with the test thread.
struct Journal {
    std::mutex lock;
    std::vector<Call> calls;
    size_t count(zrmodule_timer* timer) {
        std::lock_guard guard(lock);
        return std::count_if(calls.begin(), calls.end(), [&](const Call& call) { return call.timer == timer; });
    }
};

void record_call(zrmodule_timer* timer, time_t interval) {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    auto* journal = static_cast<Journal*>(zrmodule_timer_context(timer));
    std::lock_guard guard(journal->lock);
    journal->calls.push_back({timer, zrmodule_current() != nullptr ? interval : -1, pthread_self(), name});
}

utime_t millis(long ms) { return utime_t{ms / 1000, (ms % 1000) * 1000}; }

// Advances the held clock by `ms` milliseconds in steps of 10.
void clock_run(long ms) {
    for (long step = 0; step < ms; step += 10) zrmodule_clock_advance(10000);
}

TEST(Module, TimersRunAtTheirIntervalsDelaysAndCountsOnTheModulesNamedTask) {
    zrmodule_clock_hold();  // the timers follow the test's clock alone
    Journal journal;
    zrmodule* module = zrmodule_alloc("SHEAF Backgroud with a longer name", 0, &journal);
    ASSERT_NE(module, nullptr);
    // Added before the task starts, from durations on the caller's stack that change afterwards.
    utime_t fast = millis(20), slow = millis(50), immediately = {0, 0}, far_away = {3600, 0};
    zrmodule_timer* thrice = zrmodule_timer_ucreate(module, "thrice", 0, &immediately, &fast, 3, record_call, &journal);
    zrmodule_timer* late = zrmodule_timer_ucreate(module, "late", 0, &far_away, &fast, 0, record_call, &journal);
    zrmodule_timer* ticker = zrmodule_timer_ucreate(module, "ticker", 0, nullptr, &fast, 0, record_call, &journal);
    zrmodule_timer* slow_timer = zrmodule_timer_ucreate(module, "slow", 0, &slow, &slow, 0, record_call, &journal);
    ASSERT_TRUE(thrice && late && ticker && slow_timer);
    fast = slow = utime_t{100000, 0};
    EXPECT_EQ(journal.count(thrice), 0u) << "nothing fires before the task starts";
    ASSERT_NE(zrmodule_create(module), 0);
    EXPECT_EQ(zrmodule_create(module), 0) << "a module starts once";
    zrmodule_clock_advance(0);
    clock_run(200);  // thrice at 0, 20 and 40 ms; ticker every 20 ms from 20; slow every 50 ms from 50
    EXPECT_EQ(std::tuple(zrmodule_running(module), journal.count(thrice), journal.count(ticker), journal.count(slow_timer),
                         journal.count(late)),
              std::tuple(1, 3u, 10u, 4u, 0u));
    // A task a second late calls each timer once, then keeps its phase:
    // the ticker's next call is at 1220 ms, not 20 ms after 1205.
    zrmodule_clock_advance(1005000);
    EXPECT_EQ(std::tuple(journal.count(ticker), journal.count(slow_timer)), std::tuple(11u, 5u));
    zrmodule_clock_advance(15000);
    EXPECT_EQ(std::tuple(journal.count(ticker), journal.count(slow_timer)), std::tuple(12u, 5u));
    ASSERT_EQ(zrmodule_destroy(module), 0);
    EXPECT_EQ(journal.calls.front().timer, thrice) << "a zero initial delay fires first";
    for (const auto& call : journal.calls) {
        EXPECT_TRUE(pthread_equal(call.thread, journal.calls.front().thread)) << "every call on the module's one task";
        EXPECT_EQ(call.thread_name, "SHEAF Backgroud") << "kernel keeps 15 characters";
        EXPECT_EQ(call.interval, call.timer == slow_timer ? 50 : 20) << "period in milliseconds, on the module's task";
    }
}

}  // namespace
