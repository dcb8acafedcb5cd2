// The module library: each module is a named task (one thread) that runs
// its timers, earliest deadline first, on absolute monotonic deadlines.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "host_module.h"
#include "zrmodule_control.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

// Longest duration a timer accepts: 2^31 seconds.
constexpr int64_t kMaxSeconds = int64_t{1} << 31;
constexpr int64_t kMicrosPerSecond = 1'000'000;
constexpr size_t kThreadNameMax = 15;  // what the kernel keeps of a thread's name

enum class TaskState { idle, running, ended };

}  // namespace

struct _zrmodule_timer {
    std::string name;
    Clock::duration period{};
    Clock::time_point deadline{};
    time_t interval_ms = 0;
    u_int remaining = 0;  // calls left when limited
    bool limited = false;
    bool finished = false;
    zrmodule_timer_func func = nullptr;
    void* context = nullptr;
    std::atomic<unsigned long> calls{0};
};

struct _zrmodule {
    std::string name;
    int stack_kib = 0;
    void* context = nullptr;
    mutable std::mutex lock;
    std::condition_variable wake;
    std::vector<std::unique_ptr<zrmodule_timer>> timers;  // never shrinks while the task runs
    TaskState state = TaskState::idle;
    std::condition_variable settled;
    unsigned long settled_generation = 0;  // of the held clock: no call was due then
    bool thread_started = false;  // a thread exists that destroy must join
    bool stop_requested = false;
    bool quit_requested = false;
    int exit_code = -1;
    pthread_t thread{};
};

namespace {

// Every module ever allocated and not destroyed. The host never frees the
// modules it starts, so they stay reachable from here; the registry is
// never destroyed because tasks may still run while the process exits.
struct Registry {
    std::mutex lock;
    std::vector<zrmodule*> modules;
};

Registry& registry() {
    static Registry* instance = new Registry;
    return *instance;
}

thread_local zrmodule* current_module = nullptr;
std::atomic<int> last_quit_code{-1};

// The clock the timers follow: the monotonic clock, or one a test holds
// and moves by hand. Each move is a new generation.
struct HeldClock {
    std::mutex lock;
    bool held = false;
    Clock::time_point now{};
    unsigned long generation = 0;
};

HeldClock& held_clock() {
    static HeldClock* instance = new HeldClock;  // tasks may read it while the process exits
    return *instance;
}

struct ClockReading {
    Clock::time_point now;
    bool held;
    unsigned long generation;
};

ClockReading clock_read() {
    HeldClock& clock = held_clock();
    std::lock_guard guard(clock.lock);
    return clock.held ? ClockReading{clock.now, true, clock.generation} : ClockReading{Clock::now(), false, 0};
}

// A caller's duration in microseconds; -1 when negative or too long.
int64_t duration_micros(const utime_t& value) {
    if (value.ut_sec < 0 || value.ut_usec < 0) return -1;
    const auto seconds = static_cast<int64_t>(value.ut_sec);
    const auto micros = static_cast<int64_t>(value.ut_usec);
    constexpr int64_t max_micros = kMaxSeconds * kMicrosPerSecond;
    if (seconds > kMaxSeconds || micros > max_micros) return -1;
    const int64_t total = seconds * kMicrosPerSecond + micros;
    return total > max_micros ? -1 : total;
}

time_t saturated_millis(int64_t micros) {
    const int64_t millis = micros / 1000;
    constexpr auto time_max = static_cast<int64_t>(std::numeric_limits<time_t>::max());
    return static_cast<time_t>(std::min(millis, time_max));
}

zrmodule_timer* earliest_due(zrmodule& module) {
    zrmodule_timer* earliest = nullptr;
    for (auto& timer : module.timers) {
        if (!timer->finished && (earliest == nullptr || timer->deadline < earliest->deadline)) {
            earliest = timer.get();
        }
    }
    return earliest;
}

// Next deadline after a call: one period on from the last one, skipping
// the periods a slow call overran so the timer keeps its phase.
void advance(zrmodule_timer& timer) {
    if (timer.limited && --timer.remaining == 0) {
        timer.finished = true;
        return;
    }
    timer.deadline += timer.period;
    const auto now = clock_read().now;
    if (timer.deadline <= now) {
        timer.deadline += timer.period * ((now - timer.deadline) / timer.period + 1);
    }
}

void name_calling_thread(const std::string& name) {
    char short_name[kThreadNameMax + 1] = {};
    name.copy(short_name, kThreadNameMax);
    pthread_setname_np(pthread_self(), short_name);
}

void* run_task(void* argument) {
    auto& module = *static_cast<zrmodule*>(argument);
    current_module = &module;
    name_calling_thread(module.name);
    std::unique_lock guard(module.lock);
    while (!module.stop_requested && !module.quit_requested) {
        zrmodule_timer* timer = earliest_due(module);
        const ClockReading clock = clock_read();
        if (clock.held && (timer == nullptr || clock.now < timer->deadline)) {
            // Nothing is due until the held clock moves: say so, and wait for it.
            module.settled_generation = clock.generation;
            module.settled.notify_all();
            module.wake.wait(guard);
        } else if (timer == nullptr) {
            module.wake.wait(guard);
        } else if (clock.now < timer->deadline) {
            module.wake.wait_until(guard, timer->deadline);
        } else {
            guard.unlock();
            timer->func(timer, timer->interval_ms);
            timer->calls.fetch_add(1, std::memory_order_relaxed);
            guard.lock();
            advance(*timer);
        }
    }
    module.state = TaskState::ended;
    module.settled.notify_all();
    current_module = nullptr;
    return nullptr;
}

bool start_thread(zrmodule& module) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return false;
    bool ok = module.stack_kib >= 0;
    if (ok && module.stack_kib > 0) {
        ok = pthread_attr_setstacksize(&attributes, static_cast<size_t>(module.stack_kib) * 1024) == 0;
    }
    ok = ok && pthread_create(&module.thread, &attributes, run_task, &module) == 0;
    pthread_attr_destroy(&attributes);
    return ok;
}

}  // namespace

extern "C" zrmodule* zrmodule_alloc(const char* name, int stack_kib, void* context) {
    if (name == nullptr) return nullptr;
    auto* module = new (std::nothrow) zrmodule;
    if (module == nullptr) return nullptr;
    module->name = name;
    module->stack_kib = stack_kib;
    module->context = context;
    auto& all = registry();
    std::lock_guard guard(all.lock);
    all.modules.push_back(module);
    return module;
}

extern "C" int zrmodule_create(zrmodule* module) {
    if (module == nullptr) return 0;
    std::lock_guard guard(module->lock);
    if (module->state != TaskState::idle) return 0;
    module->state = TaskState::running;  // before the task can look
    if (!start_thread(*module)) {
        module->state = TaskState::idle;
        return 0;
    }
    module->thread_started = true;
    return 1;
}

extern "C" void zrmodule_quit(int code) {
    zrmodule* module = current_module;
    if (module == nullptr) {
        last_quit_code.store(code);
        return;
    }
    std::lock_guard guard(module->lock);
    module->quit_requested = true;
    module->exit_code = code;
}

extern "C" zrmodule_timer* zrmodule_timer_ucreate(zrmodule* module, const char* name, flag_t,
                                                  utime_t* initial, utime_t* interval, u_int count,
                                                  zrmodule_timer_func func, void_t context) {
    if (module == nullptr || interval == nullptr || func == nullptr) return nullptr;
    const int64_t period = duration_micros(*interval);
    const int64_t delay = initial != nullptr ? duration_micros(*initial) : period;
    if (period <= 0 || delay < 0) return nullptr;
    auto timer = std::unique_ptr<zrmodule_timer>(new (std::nothrow) zrmodule_timer);
    if (timer == nullptr) return nullptr;
    timer->name = name != nullptr ? name : "";
    timer->period = microseconds(period);
    timer->interval_ms = saturated_millis(period);
    timer->limited = count != 0;
    timer->remaining = count;
    timer->func = func;
    timer->context = context;
    timer->deadline = clock_read().now + microseconds(delay);
    std::lock_guard guard(module->lock);
    zrmodule_timer* handle = timer.get();
    module->timers.push_back(std::move(timer));
    module->wake.notify_one();
    return handle;
}

extern "C" int zrmodule_destroy(zrmodule* module) {
    if (module == nullptr || module == current_module) return 22;
    bool join = false;
    {
        std::lock_guard guard(module->lock);
        module->stop_requested = true;
        join = module->thread_started;
        module->wake.notify_one();
    }
    if (join) pthread_join(module->thread, nullptr);
    auto& all = registry();
    {
        std::lock_guard guard(all.lock);
        std::erase(all.modules, module);
    }
    delete module;
    return 0;
}

extern "C" void zrmodule_clock_hold(void) {
    HeldClock& clock = held_clock();
    std::lock_guard guard(clock.lock);
    if (!clock.held) clock.now = Clock::now();  // deadlines set so far keep their meaning
    clock.held = true;
}

extern "C" void zrmodule_clock_advance(unsigned long microseconds) {
    HeldClock& clock = held_clock();
    unsigned long generation = 0;
    {
        std::lock_guard guard(clock.lock);
        if (!clock.held) return;
        clock.now += std::chrono::microseconds(microseconds);
        generation = ++clock.generation;
    }
    std::vector<zrmodule*> modules;
    {
        auto& all = registry();
        std::lock_guard guard(all.lock);
        modules = all.modules;
    }
    for (zrmodule* module : modules) {
        if (module == current_module) continue;  // a task cannot wait for itself
        std::unique_lock guard(module->lock);
        module->wake.notify_one();
        module->settled.wait(guard, [&] {
            return module->state != TaskState::running || module->settled_generation >= generation;
        });
    }
}

extern "C" const char* zrmodule_name(const zrmodule* module) { return module->name.c_str(); }

extern "C" void* zrmodule_context(const zrmodule* module) { return module->context; }

extern "C" int zrmodule_running(const zrmodule* module) {
    std::lock_guard guard(module->lock);
    return module->state == TaskState::running;
}

extern "C" int zrmodule_exit_code(const zrmodule* module) {
    std::lock_guard guard(module->lock);
    return module->exit_code;
}

extern "C" int zrmodule_last_quit_code(void) { return last_quit_code.load(); }

extern "C" zrmodule* zrmodule_current(void) { return current_module; }

extern "C" const char* zrmodule_timer_name(const zrmodule_timer* timer) { return timer->name.c_str(); }

extern "C" void* zrmodule_timer_context(const zrmodule_timer* timer) { return timer->context; }

extern "C" unsigned long zrmodule_timer_calls(const zrmodule_timer* timer) {
    return timer->calls.load(std::memory_order_relaxed);
}
