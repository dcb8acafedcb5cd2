// Indexed tables side by side with the simplest and a well-known map:
// a flat array (the lower bound for lookup) and JudyL. Every benchmark
// times the same work on each structure inside one iteration and reports
// nanoseconds per operation and the ratios itable / other.
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "itable.h"
#include "itable32.h"

#if CORVEX_BENCH_JUDY
#include <Judy.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

template <typename Work>
double time_ns(Work work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// Accumulates the time of each contender and reports per-operation times
// and ratios of the first contender to the others.
class Race {
public:
    explicit Race(std::vector<std::string> names) : names_(std::move(names)), ns_(names_.size()) {}
    template <typename Work>
    void lap(size_t contender, Work work) {
        ns_[contender] += time_ns(work);
    }
    void report(benchmark::State& state, double ops_per_iteration) {
        const double ops = ops_per_iteration * static_cast<double>(state.iterations());
        for (size_t i = 0; i < names_.size(); ++i) state.counters[names_[i] + "_ns"] = ns_[i] / ops;
        for (size_t i = 1; i < names_.size(); ++i) state.counters[names_[0] + "/" + names_[i]] = ns_[0] / ns_[i];
    }

private:
    std::vector<std::string> names_;
    std::vector<double> ns_;
};

void* value_of(uint32_t index) { return reinterpret_cast<void*>(static_cast<uintptr_t>(index) * 8 + 8); }

std::vector<uint32_t> random_indices(size_t count, uint32_t modulo, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint32_t> out(count);
    for (auto& v : out) v = static_cast<uint32_t>(rng() % modulo);
    return out;
}

#if CORVEX_BENCH_JUDY
struct Judy {
    Pvoid_t array = nullptr;
    ~Judy() { JudyLFreeArray(&array, PJE0); }
    void put(Word_t index, void* value) { *JudyLIns(&array, index, PJE0) = value; }
    void* get(Word_t index) const {
        PPvoid_t slot = JudyLGet(array, index, PJE0);
        return slot != nullptr ? *slot : nullptr;
    }
    Word_t alloc(void* value) {
        Word_t index = 0;
        JudyLFirstEmpty(array, &index, PJE0);
        put(index, value);
        return index;
    }
};
const std::vector<std::string> kContenders{"itable", "flat", "judy"};
#else
const std::vector<std::string> kContenders{"itable", "flat"};
#endif

constexpr size_t kLookups = 1 << 16;

void BM_Lookup16(benchmark::State& state) {
    itable16_t* table = itable16_create();
    std::vector<void*> flat(0x10000);
    for (uint32_t i = 0; i < 0x10000; i += 3) {
        const index16_t i16 = static_cast<index16_t>(i);
        itable16_insert(table, value_of(i), &i16);
        flat[i] = value_of(i);
    }
#if CORVEX_BENCH_JUDY
    Judy judy;
    for (uint32_t i = 0; i < 0x10000; i += 3) judy.put(i, value_of(i));
#endif
    const std::vector<uint32_t> keys = random_indices(kLookups, 0x10000, 1);
    Race race(kContenders);
    for (auto _ : state) {
        race.lap(0, [&] {
            for (uint32_t k : keys) {
                const index16_t i16 = static_cast<index16_t>(k);
                benchmark::DoNotOptimize(itable16_lookup(table, &i16));
            }
        });
        race.lap(1, [&] {
            for (uint32_t k : keys) benchmark::DoNotOptimize(flat[k]);
        });
#if CORVEX_BENCH_JUDY
        race.lap(2, [&] {
            for (uint32_t k : keys) benchmark::DoNotOptimize(judy.get(k));
        });
#endif
    }
    race.report(state, kLookups);
    itable16_destroy(table);
}
BENCHMARK(BM_Lookup16);

// Indices in 16 clusters of 8192 spread over the 32-bit space; the flat
// array holds the same entries packed, so it is the lower bound.
uint32_t clustered(uint32_t n) { return (n / 8192) * 0x0F000000u + 0x1234 + n % 8192; }

void BM_Lookup32(benchmark::State& state) {
    constexpr uint32_t kStored = 16 * 8192;
    itable32_t* table = itable32_create();
    std::vector<void*> flat(kStored);
    for (uint32_t n = 0; n < kStored; ++n) {
        const index32_t i = clustered(n);
        itable32_insert(table, value_of(i), &i);
        flat[n] = value_of(i);
    }
#if CORVEX_BENCH_JUDY
    Judy judy;
    for (uint32_t n = 0; n < kStored; ++n) judy.put(clustered(n), value_of(clustered(n)));
#endif
    const std::vector<uint32_t> picks = random_indices(kLookups, kStored, 2);
    std::vector<uint32_t> keys;
    for (uint32_t p : picks) keys.push_back(clustered(p));
    Race race(kContenders);
    for (auto _ : state) {
        race.lap(0, [&] {
            for (uint32_t k : keys) benchmark::DoNotOptimize(itable32_lookup(table, &k));
        });
        race.lap(1, [&] {
            for (uint32_t p : picks) benchmark::DoNotOptimize(flat[p]);
        });
#if CORVEX_BENCH_JUDY
        race.lap(2, [&] {
            for (uint32_t k : keys) benchmark::DoNotOptimize(judy.get(k));
        });
#endif
    }
    race.report(state, kLookups);
    itable32_destroy(table);
}
BENCHMARK(BM_Lookup32);

// Insert at random indices into an empty structure (storage made as needed).
void BM_Insert16(benchmark::State& state) {
    const std::vector<uint32_t> keys = random_indices(20000, 0x10000, 3);
    Race race(kContenders);
    for (auto _ : state) {
        itable16_t* table = itable16_create();
        race.lap(0, [&] {
            for (uint32_t k : keys) {
                const index16_t i16 = static_cast<index16_t>(k);
                itable16_insert(table, value_of(k), &i16);
            }
        });
        itable16_destroy(table);
        std::vector<void*> flat(0x10000);
        race.lap(1, [&] {
            for (uint32_t k : keys) flat[k] = value_of(k);
            benchmark::ClobberMemory();
        });
#if CORVEX_BENCH_JUDY
        Judy judy;
        race.lap(2, [&] {
            for (uint32_t k : keys) judy.put(k, value_of(k));
        });
#endif
    }
    race.report(state, static_cast<double>(keys.size()));
}
BENCHMARK(BM_Insert16);

void BM_Insert32(benchmark::State& state) {
    const std::vector<uint32_t> picks = random_indices(20000, 16 * 8192, 4);
    std::vector<uint32_t> keys;
    for (uint32_t p : picks) keys.push_back(clustered(p));
    Race race(kContenders);
    for (auto _ : state) {
        itable32_t* table = itable32_create();
        race.lap(0, [&] {
            for (uint32_t k : keys) itable32_insert(table, value_of(k), &k);
        });
        itable32_destroy(table);
        std::vector<void*> flat(16 * 8192);
        race.lap(1, [&] {
            for (uint32_t p : picks) flat[p] = value_of(p);
            benchmark::ClobberMemory();
        });
#if CORVEX_BENCH_JUDY
        Judy judy;
        race.lap(2, [&] {
            for (uint32_t k : keys) judy.put(k, value_of(k));
        });
#endif
    }
    race.report(state, static_cast<double>(keys.size()));
}
BENCHMARK(BM_Insert32);

// Hand out every index of an empty structure in turn; the flat array's
// free index is a counter, JudyL's its first empty index.
template <typename Table, typename Index, Table* (*create)(), status_t (*alloc)(Table*, void*, Index*),
          int (*destroy)(Table*)>
void alloc_race(benchmark::State& state, uint32_t count) {
    Race race(kContenders);
    for (auto _ : state) {
        Table* table = create();
        race.lap(0, [&] {
            Index got = 0;
            for (uint32_t n = 0; n < count; ++n) alloc(table, value_of(n), &got);
            benchmark::DoNotOptimize(got);
        });
        destroy(table);
        std::vector<void*> flat(count);
        race.lap(1, [&] {
            uint32_t next = 0;
            for (uint32_t n = 0; n < count; ++n) flat[next++] = value_of(n);
            benchmark::ClobberMemory();
        });
#if CORVEX_BENCH_JUDY
        Judy judy;
        race.lap(2, [&] {
            for (uint32_t n = 0; n < count; ++n) benchmark::DoNotOptimize(judy.alloc(value_of(n)));
        });
#endif
    }
    race.report(state, count);
}

void BM_Alloc16(benchmark::State& state) {
    alloc_race<itable16_t, index16_t, itable16_create, itable16_alloc, itable16_destroy>(state, 0x10000);
}
BENCHMARK(BM_Alloc16);

void BM_Alloc32(benchmark::State& state) {
    alloc_race<itable32_t, index32_t, itable32_create, itable32_alloc, itable32_destroy>(state, 4 * 0x10000);
}
BENCHMARK(BM_Alloc32);

}  // namespace

BENCHMARK_MAIN();
