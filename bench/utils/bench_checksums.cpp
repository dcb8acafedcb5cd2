// Throughput of the CRC-32 and the Internet checksum on frame-sized and
// large buffers. Each benchmark times the library and its rivals on the same
// buffer in the same iteration and reports, besides the library's bytes per
// second, how many times faster the library is:
//   vs_zlib   zlib's crc32_z (the same function up to inversions)
//   vs_plain  the byte-at-a-time (CRC) or word-at-a-time (checksum) definition
#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "hexdump.h"
#include "reference_checksums.h"

// zlib.h cannot be included beside hexdump.h: both declare a crc32, with
// different signatures. Only zlib's crc32_z is called, declared as zlib has it.
extern "C" unsigned long crc32_z(unsigned long crc, const unsigned char* buf, size_t len);

namespace {

using Clock = std::chrono::steady_clock;

std::vector<unsigned char> random_bytes(size_t size) {
    std::mt19937 generator(12345);
    std::vector<unsigned char> bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<unsigned char>(generator());
    }
    return bytes;
}

// Seconds spent running fn reps times.
template <typename Fn>
double timed(int reps, Fn fn) {
    const auto start = Clock::now();
    for (int i = 0; i < reps; ++i) {
        fn();
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Enough repetitions per iteration that each measurement lasts well above
// the clock's resolution, whatever the buffer size.
int reps_for(size_t size) { return static_cast<int>(1 + (1u << 20) / size); }

void BM_crc32(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    const auto data = random_bytes(size);
    const int reps = reps_for(size);
    if (inc_crc32(data.data(), static_cast<unsigned int>(size), 0x12345678u) !=
        (~crc32_z(~0x12345678ul & 0xFFFFFFFFu, data.data(), size) & 0xFFFFFFFFu)) {
        state.SkipWithError("the CRC differs from zlib's");
        return;
    }
    double ours = 0, zlib = 0, plain = 0;
    for (auto _ : state) {
        const double t = timed(reps, [&] {
            benchmark::DoNotOptimize(inc_crc32(data.data(), static_cast<unsigned int>(size), 0xFFFFFFFFu));
        });
        zlib += timed(reps, [&] { benchmark::DoNotOptimize(crc32_z(0, data.data(), size)); });
        plain += timed(reps, [&] { benchmark::DoNotOptimize(corvex_reference::crc32(data.data(), size, 0xFFFFFFFFu)); });
        ours += t;
        state.SetIterationTime(t);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * reps * static_cast<int64_t>(size));
    state.counters["vs_zlib"] = zlib / ours;
    state.counters["vs_plain"] = plain / ours;
}

void BM_in_checksum(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    auto data = random_bytes(size);
    const int reps = reps_for(size);
    double ours = 0, plain = 0;
    for (auto _ : state) {
        const double t = timed(reps, [&] {
            benchmark::DoNotOptimize(in_checksum(data.data(), static_cast<u_int32_t>(size), 0));
        });
        plain += timed(reps, [&] {
            benchmark::DoNotOptimize(corvex_reference::in_checksum(data.data(), static_cast<uint32_t>(size), 0));
        });
        ours += t;
        state.SetIterationTime(t);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * reps * static_cast<int64_t>(size));
    state.counters["vs_plain"] = plain / ours;
}

}  // namespace

BENCHMARK(BM_crc32)->Arg(64)->Arg(1500)->Arg(64 * 1024)->UseManualTime();
BENCHMARK(BM_in_checksum)->Arg(64)->Arg(1500)->Arg(64 * 1024)->UseManualTime();

BENCHMARK_MAIN();
