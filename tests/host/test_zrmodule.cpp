// The module library: named tasks running periodic timers.
#include <pthread.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host_module.h"
#include "zrmodule_control.h"

namespace {

// Waits until done() holds, for long enough that only a broken timer fails
// the test instead of hanging it.
template <class Done>
bool eventually(Done done) {
    for (int ms = 0; !done(); ++ms) {
        if (ms == 20000) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

struct Call {
    zrmodule_timer* timer;
    time_t interval;  // or, for destroy_own_module, what zrmodule_destroy answered
    pthread_t thread;
    std::string thread_name;
    zrmodule* module;
};

// What the timer functions saw, shared with the test thread.
struct Journal {
    std::mutex lock;
    std::vector<Call> calls;

    void add(const Call& call) {
        std::lock_guard guard(lock);
        calls.push_back(call);
    }
    size_t count(zrmodule_timer* timer) {
        std::lock_guard guard(lock);
        size_t n = 0;
        for (const auto& call : calls) n += call.timer == timer;
        return n;
    }
    bool wait_for(zrmodule_timer* timer, size_t n) {
        return eventually([&] { return count(timer) >= n; });
    }
};

Journal* journal_of(zrmodule_timer* timer) { return static_cast<Journal*>(zrmodule_timer_context(timer)); }

void record_call(zrmodule_timer* timer, time_t interval) {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    journal_of(timer)->add({timer, interval, pthread_self(), name, zrmodule_current()});
}

// Quits before the call is visible, so a test that saw it can rely on the code.
void quit_with_7(zrmodule_timer* timer, time_t interval) {
    zrmodule_quit(7);
    record_call(timer, interval);
}

void destroy_own_module(zrmodule_timer* timer, time_t) {
    const int result = zrmodule_destroy(zrmodule_current());
    journal_of(timer)->add({timer, static_cast<time_t>(result), pthread_self(), "", nullptr});
}

utime_t millis(long ms) { return utime_t{ms / 1000, (ms % 1000) * 1000}; }

// Owns a module for one test so its task never outlives the journal.
struct ModuleGuard {
    zrmodule* module;
    ~ModuleGuard() { EXPECT_EQ(module == nullptr ? 0 : zrmodule_destroy(module), 0); }
};

TEST(Module, TimersRunAtTheirIntervalsDelaysAndCountsOnTheModulesNamedTask) {
    Journal journal;
    ModuleGuard owner{zrmodule_alloc("SHEAF Backgroud with a longer name", 0, &journal)};
    zrmodule* module = owner.module;
    ASSERT_NE(module, nullptr);
    EXPECT_STREQ(zrmodule_name(module), "SHEAF Backgroud with a longer name");
    EXPECT_EQ(zrmodule_context(module), &journal);
    EXPECT_EQ(zrmodule_running(module), 0);

    // Added before the task starts, from durations on the caller's stack
    // that change afterwards.
    utime_t fast = millis(20), slow = millis(50), immediately = {0, 0}, far_away = {3600, 0};
    zrmodule_timer* thrice = zrmodule_timer_ucreate(module, "thrice", 0, &immediately, &fast, 3, record_call, &journal);
    zrmodule_timer* late = zrmodule_timer_ucreate(module, "late", 0, &far_away, &fast, 0, record_call, &journal);
    zrmodule_timer* ticker = zrmodule_timer_ucreate(module, "ticker", 0, nullptr, &fast, 0, record_call, &journal);
    zrmodule_timer* slow_timer = zrmodule_timer_ucreate(module, "slow", 0, &slow, &slow, 0, record_call, &journal);
    ASSERT_TRUE(thrice && late && ticker && slow_timer);
    fast = slow = utime_t{100000, 0};
    EXPECT_STREQ(zrmodule_timer_name(ticker), "ticker");
    EXPECT_EQ(journal.count(thrice), 0u) << "nothing fires before the task starts";
    ASSERT_NE(zrmodule_create(module), 0);
    EXPECT_EQ(zrmodule_create(module), 0) << "a module starts once";

    ASSERT_TRUE(journal.wait_for(thrice, 3));
    ASSERT_TRUE(journal.wait_for(slow_timer, 2));
    // Many periods later the limited timer has not fired again, and the one
    // with an hour's initial delay has not fired at all.
    ASSERT_TRUE(journal.wait_for(ticker, journal.count(ticker) + 8));
    EXPECT_EQ(zrmodule_running(module), 1);
    EXPECT_EQ(journal.count(thrice), 3u);
    EXPECT_EQ(zrmodule_timer_calls(thrice), 3u);
    EXPECT_EQ(journal.count(late), 0u);
    ASSERT_EQ(zrmodule_destroy(module), 0);
    owner.module = nullptr;

    std::lock_guard guard(journal.lock);
    EXPECT_EQ(journal.calls.front().timer, thrice) << "a zero initial delay fires first";
    const pthread_t task = journal.calls.front().thread;
    EXPECT_FALSE(pthread_equal(task, pthread_self()));
    for (const auto& call : journal.calls) {
        EXPECT_TRUE(pthread_equal(call.thread, task)) << "every call on the module's one task";
        EXPECT_EQ(call.thread_name, "SHEAF Backgroud") << "kernel keeps 15 characters";
        EXPECT_EQ(call.interval, call.timer == slow_timer ? 50 : 20) << "period in milliseconds";
        EXPECT_EQ(call.module, module);
    }
}

TEST(Module, QuitOnTheTaskEndsItElsewhereOnlyRecordsTheCode) {
    Journal journal;
    utime_t period = millis(20);
    ModuleGuard owner{zrmodule_alloc("quitter", 0, nullptr)};
    zrmodule* module = owner.module;
    ASSERT_NE(zrmodule_create(module), 0);
    EXPECT_EQ(zrmodule_exit_code(module), -1);
    zrmodule_timer* timer = zrmodule_timer_ucreate(module, "quit", 0, nullptr, &period, 0, quit_with_7, &journal);
    ASSERT_TRUE(journal.wait_for(timer, 1));
    EXPECT_EQ(zrmodule_exit_code(module), 7);
    // The task ends right after the function that quit returns.
    EXPECT_TRUE(eventually([&] { return zrmodule_running(module) == 0; }));
    zrmodule_timer* after = zrmodule_timer_ucreate(module, "after", 0, &period, &period, 0, record_call, &journal);
    ASSERT_NE(after, nullptr) << "the handle stays usable after its task ended";
    ASSERT_EQ(zrmodule_destroy(module), 0);  // joins the ended task
    owner.module = nullptr;
    EXPECT_EQ(journal.count(timer), 1u);
    EXPECT_EQ(journal.count(after), 0u);

    zrmodule_quit(22);
    EXPECT_EQ(zrmodule_last_quit_code(), 22);
    zrmodule_quit(3);
    EXPECT_EQ(zrmodule_last_quit_code(), 3);
    EXPECT_EQ(zrmodule_current(), nullptr);
}

TEST(Module, RefusesWhatCannotWork) {
    Journal journal;
    utime_t period = millis(20), zero = {0, 0}, negative = {-1, 0}, negative_micros = {0, -5};
    utime_t too_long = {static_cast<time_t>(0x7fffffff), 999999};
    EXPECT_EQ(zrmodule_alloc(nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(zrmodule_create(nullptr), 0);
    EXPECT_EQ(zrmodule_destroy(nullptr), 22);
    EXPECT_EQ(zrmodule_timer_ucreate(nullptr, "t", 0, &period, &period, 0, record_call, nullptr), nullptr);

    // A stack below the system's minimum cannot start; the handle still
    // takes timers, which never run.
    ModuleGuard tiny{zrmodule_alloc("tiny stack", 1, nullptr)};
    EXPECT_EQ(zrmodule_create(tiny.module), 0);
    EXPECT_EQ(zrmodule_running(tiny.module), 0);
    ModuleGuard negative_stack{zrmodule_alloc("negative stack", -8, nullptr)};
    EXPECT_EQ(zrmodule_create(negative_stack.module), 0);

    zrmodule* m = tiny.module;
    EXPECT_EQ(zrmodule_timer_ucreate(m, "t", 0, &period, &period, 0, nullptr, nullptr), nullptr);
    utime_t beyond = {static_cast<time_t>(sizeof(time_t) > 4 ? (int64_t{1} << 32) : -1), 0};
    utime_t* refused[][2] = {{&period, nullptr}, {&period, &zero}, {&period, &negative},
                             {&negative_micros, &period}, {&period, &beyond}};  // {initial, interval}
    for (auto& [initial, interval] : refused) {
        EXPECT_EQ(zrmodule_timer_ucreate(m, "t", 0, initial, interval, 0, record_call, nullptr), nullptr);
    }
    zrmodule_timer* longest = zrmodule_timer_ucreate(m, nullptr, 0, nullptr, &too_long, 0, record_call, &journal);
    ASSERT_NE(longest, nullptr) << "the longest interval is allowed";
    EXPECT_STREQ(zrmodule_timer_name(longest), "");

    ModuleGuard self{zrmodule_alloc("self", 0, nullptr)};
    ASSERT_NE(zrmodule_create(self.module), 0);
    zrmodule_timer* timer = zrmodule_timer_ucreate(self.module, "d", 0, nullptr, &period, 1, destroy_own_module, &journal);
    ASSERT_TRUE(journal.wait_for(timer, 1));
    std::lock_guard guard(journal.lock);
    EXPECT_EQ(journal.calls.back().interval, 22) << "a task cannot wait for itself to end";
}

}  // namespace
