// Packet hand-out and return against the same work done with malloc/free:
// one get + return from a warm pool, and get + clone + two returns, on one
// and on two threads. Each benchmark also runs its malloc twin for the same
// number of iterations and reports "vs_malloc" = packet time / malloc time.
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <benchmark/benchmark.h>

#include "heap.h"
#include "packet_var.h"

namespace {

constexpr packet_length_t kFrame = 300;  // served by the 512 sheaf

void build_pools() {
    static bool done = [] {
        static heap_t heap;
        const size_t bytes = 8 << 20;
        auto* range = static_cast<char*>(std::aligned_alloc(64, bytes));
        heap_create(&heap, reinterpret_cast<uintptr_t>(range), reinterpret_cast<uintptr_t>(range) + bytes,
                    const_cast<char*>("bench packets"));
        static const packet_sheaf_block_t table[] = {
            {const_cast<char*>("1518"), 1518, 0, 64, 16, nullptr},
            {const_cast<char*>("512"), 512, 0, 64, 32, nullptr},
            {const_cast<char*>("clone"), 0, 0, 64, 32, nullptr},
            {const_cast<char*>("128"), 128, 0, 64, 16, nullptr},
            {nullptr, 0, 0, 0, 0, nullptr},
        };
        packet_pool_init(nullptr, table, &heap);
        return true;
    }();
    (void)done;
}

// The malloc twin of a pooled packet: a cleared header and a buffer.
packet_t* malloc_packet() {
    auto* header = static_cast<packet_t*>(std::malloc(sizeof(packet_t)));
    std::memset(header, 0, sizeof *header);
    header->buffer = static_cast<packet_buffer_t*>(std::malloc(sizeof(packet_buffer_t) + 512 + 96 + 4));
    header->buffer_start = header->buffer->data;
    header->frame_start = header->buffer_start + 64;
    return header;
}

void malloc_get_return() {
    packet_t* p = malloc_packet();
    benchmark::DoNotOptimize(p);
    std::free(p->buffer);
    std::free(p);
}

void malloc_get_clone_return() {
    packet_t* p = malloc_packet();
    auto* clone = static_cast<packet_t*>(std::malloc(sizeof(packet_t)));
    std::memcpy(clone, p, sizeof *clone);
    benchmark::DoNotOptimize(clone);
    std::free(clone);
    std::free(p->buffer);
    std::free(p);
}

void pool_get_return() {
    packet_t* p = packet_get(kFrame);
    benchmark::DoNotOptimize(p);
    packet_return(p);
}

void pool_get_clone_return() {
    packet_t* p = packet_get(kFrame);
    packet_t* clone = packet_clone(p);
    benchmark::DoNotOptimize(clone);
    packet_return(p);
    packet_return(clone);
}

template <typename Op>
double seconds_for(Op op, benchmark::IterationCount n) {
    const auto start = std::chrono::steady_clock::now();
    for (benchmark::IterationCount i = 0; i < n; ++i) op();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <typename Pooled, typename Twin>
void compare(benchmark::State& state, Pooled pooled, Twin twin) {
    build_pools();
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) pooled();
    const double pooled_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double twin_s = seconds_for(twin, state.iterations());
    state.counters["vs_malloc"] = benchmark::Counter(pooled_s / twin_s, benchmark::Counter::kAvgThreads);
    state.counters["malloc_ns"] =
        benchmark::Counter(twin_s * 1e9 / static_cast<double>(state.iterations()), benchmark::Counter::kAvgThreads);
}

void BM_GetReturn(benchmark::State& state) { compare(state, pool_get_return, malloc_get_return); }
void BM_GetCloneReturn(benchmark::State& state) { compare(state, pool_get_clone_return, malloc_get_clone_return); }

BENCHMARK(BM_GetReturn)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_GetCloneReturn)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
