// Several threads allocating and releasing on shared heaps: no block is
// handed out twice, and every heap ends whole.
#include <algorithm>
#include <random>
#include <thread>

#include "heap_fixture.h"

using namespace heap_test;

namespace {

struct Held {
    heap_t* heap;
    unsigned char *data, fill;
    size_t size;
};

void churn(std::vector<heap_t*> heaps, unsigned seed, int rounds) {
    std::mt19937 rng(seed);
    std::vector<Held> held;
    auto release = [&](size_t i) {
        Held h = held[i];
        EXPECT_EQ(std::count(h.data, h.data + h.size, h.fill), static_cast<std::ptrdiff_t>(h.size)) << "overwritten";
        heap_free(rng() % 2 ? h.heap : nullptr, h.data);
        held[i] = held.back();
        held.pop_back();
    };
    for (int r = 0; r < rounds; ++r) {
        if (held.size() < 48 && (held.empty() || rng() % 3 != 0)) {
            heap_t* heap = heaps[rng() % heaps.size()];
            size_t size = rng() % 8 == 0 ? 4096 + rng() % 40000 : 1 + rng() % 600;
            auto* p = static_cast<unsigned char*>(rng() % 2 ? heap_malloc(heap, size) : heap_zalloc(heap, size));
            if (p == nullptr) continue;
            auto fill = static_cast<unsigned char>(rng());
            std::memset(p, fill, size);
            held.push_back({heap, p, fill, size});
        } else {
            release(rng() % held.size());
        }
    }
    while (!held.empty()) release(held.size() - 1);
}

}  // namespace

TEST(HeapThreads, SharedHeapsEndWhole) {
    std::vector<heap_t*> heaps = {make_heap(1 << 20, "shared-a"), make_heap(1 << 20, "shared-b")};
    heap_enable_debug(heaps[1]);
    heap_set_debug_flag(heaps[0], HEAP_DEBUG_FLAG_FIFO, TRUE);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) threads.emplace_back(churn, heaps, 1234 + t, 4000);
    for (auto& t : threads) t.join();
    for (heap_t* heap : heaps) {
        expect_whole(heap);
        EXPECT_TRUE(heap->stats.allocs == heap->stats.frees && heap->stats.coalesces > 0);
    }
}
