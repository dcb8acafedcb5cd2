// The heap beside glibc's allocator on the same work: malloc/free pairs of
// one size, and a random trace of allocations and releases. Each benchmark
// times both and reports nanoseconds per operation and their ratio
// (heap / glibc; below 1 means the heap is faster), both in thread CPU time.
#include <ctime>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "heap.h"

namespace {

heap_t* bench_heap() {
    static heap_t* heap = [] {
        constexpr size_t kBytes = 64u << 20;
        auto* record = static_cast<heap_t*>(std::calloc(1, sizeof(heap_t)));
        auto* range = static_cast<char*>(std::aligned_alloc(64, kBytes));
        std::memset(range, 0, kBytes);
        auto first = reinterpret_cast<uintptr_t>(range);
        heap_create(record, first, first + kBytes, const_cast<char*>("bench"));
        return record;
    }();
    return heap;
}

double thread_seconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// CPU time of this thread: the comparison holds on a busy machine too.
template <typename Work>
double seconds_of(Work&& work) {
    double start = thread_seconds();
    work();
    return thread_seconds() - start;
}

void report(benchmark::State& state, double heap_s, double glibc_s, double ops) {
    state.counters["heap_ns"] = benchmark::Counter(heap_s * 1e9 / ops);
    state.counters["glibc_ns"] = benchmark::Counter(glibc_s * 1e9 / ops);
    state.counters["ratio"] = benchmark::Counter(glibc_s > 0 ? heap_s / glibc_s : 0);
}

constexpr int kPairsPerRound = 256;

void BM_PairsBySize(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    heap_t* heap = bench_heap();
    double heap_s = 0, glibc_s = 0;
    for (auto _ : state) {
        heap_s += seconds_of([&] {
            for (int i = 0; i < kPairsPerRound; ++i) {
                void* p = heap_malloc(heap, size);
                benchmark::DoNotOptimize(p);
                heap_free(heap, p);
            }
        });
        glibc_s += seconds_of([&] {
            for (int i = 0; i < kPairsPerRound; ++i) {
                void* p = std::malloc(size);
                benchmark::DoNotOptimize(p);
                std::free(p);
            }
        });
    }
    report(state, heap_s, glibc_s, static_cast<double>(state.iterations()) * kPairsPerRound);
}
BENCHMARK(BM_PairsBySize)->RangeMultiplier(4)->Range(16, 4096);

// One step of the trace: allocate `size` into `slot`, or release `slot`.
struct Step {
    bool alloc;
    unsigned slot;
    size_t size;
};

std::vector<Step> make_trace(size_t steps, unsigned slots) {
    std::mt19937 rng(42);
    std::vector<Step> trace;
    std::vector<bool> used(slots, false);
    for (size_t i = 0; i < steps; ++i) {
        unsigned slot = rng() % slots;
        if (used[slot]) {
            trace.push_back({false, slot, 0});
        } else {
            size_t size = rng() % 16 == 0 ? 4096 + rng() % 28672 : 8 + rng() % 1024;
            trace.push_back({true, slot, size});
        }
        used[slot] = !used[slot];
    }
    for (unsigned slot = 0; slot < slots; ++slot) {
        if (used[slot]) trace.push_back({false, slot, 0});
    }
    return trace;
}

template <typename Alloc, typename Free>
void replay(const std::vector<Step>& trace, std::vector<void*>& slots, Alloc&& alloc, Free&& release) {
    for (const Step& step : trace) {
        if (step.alloc) {
            slots[step.slot] = alloc(step.size);
        } else {
            release(slots[step.slot]);
        }
    }
}

void BM_RandomTrace(benchmark::State& state) {
    constexpr unsigned kSlots = 2048;
    static const std::vector<Step> trace = make_trace(200000, kSlots);
    heap_t* heap = bench_heap();
    std::vector<void*> slots(kSlots);
    double heap_s = 0, glibc_s = 0;
    for (auto _ : state) {
        heap_s += seconds_of([&] {
            replay(trace, slots, [&](size_t n) { return heap_malloc(heap, n); },
                   [&](void* p) { heap_free(heap, p); });
        });
        glibc_s += seconds_of(
            [&] { replay(trace, slots, [](size_t n) { return std::malloc(n); }, [](void* p) { std::free(p); }); });
    }
    report(state, heap_s, glibc_s, static_cast<double>(state.iterations()) * static_cast<double>(trace.size()));
}
BENCHMARK(BM_RandomTrace)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
