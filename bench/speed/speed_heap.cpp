// Heap rows: malloc+free pairs of one size and a random trace, beside
// glibc's malloc and free carrying the heap's fixed costs: an
// error-checking mutex around every call and the 0xDEADBEEF fill of every
// freed block.
#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "heap.h"
#include "speed_table.h"

namespace speed {
namespace {

// A heap of its own for each row, so that no row sees another's blocks.
heap_t* new_heap(const char* name) {
    constexpr size_t kBytes = 16u << 20;
    auto* record = new heap_t{};
    auto* range = static_cast<char*>(std::aligned_alloc(64, kBytes));
    const auto first = reinterpret_cast<uintptr_t>(range);
    heap_create(record, first, first + kBytes, const_cast<char*>(name));
    return record;
}

class LockedGlibc {
public:
    void* alloc(size_t size) {
        lock();
        void* p = std::malloc(size);
        pthread_mutex_unlock(&mutex_);
        return p;
    }
    void release(void* p, size_t size) {
        lock();
        auto* word = static_cast<uint32_t*>(p);
        std::fill_n(word, size / 4, HEAP_FREE_FILL);
        std::free(p);
        pthread_mutex_unlock(&mutex_);
    }

private:
    void lock() {
        if (pthread_mutex_lock(&mutex_) != 0) std::abort();
    }
    pthread_mutex_t mutex_ = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
};

LockedGlibc& glibc() {
    static LockedGlibc* allocator = [] {
        // Like a heap, glibc keeps the memory it has: no giving pages back
        // to the kernel (and faulting them in again) as its top shrinks.
        mallopt(M_TRIM_THRESHOLD, 256 << 20);
        return new LockedGlibc;
    }();
    return *allocator;
}

// What a pair costs by design alone: the lock taken by each call and the
// fill of the block the release writes (the request rounded to 8 bytes).
Work pair_floor(size_t size) {
    const size_t fill = (std::max<size_t>(size, 16) + 7) & ~size_t{7};
    auto block = std::make_shared<std::vector<uint32_t>>(fill / 4 + 1);
    return [block, fill](size_t ops) {
        for (size_t i = 0; i < ops; ++i) {
            lock_round_trips(2);
            heap_block_post_free(opaque(block->data()), fill);
        }
    };
}

// Small pairs may take a fifth longer than the peer: the heap validates
// and merges where glibc's thread cache does not.
Row pair_row(size_t size) {
    return {"heap_malloc+heap_free pair, " + std::to_string(size) + " B",
            "glibc malloc/free, mutex and fill",
            size <= 256 ? 1.2 : 1.0,
            [size, heap = new_heap("speed pairs")](size_t ops) {
                for (size_t i = 0; i < ops; ++i) {
                    void* p = heap_malloc(heap, size);
                    keep(p);
                    heap_free(heap, p);
                }
            },
            [size](size_t ops) {
                for (size_t i = 0; i < ops; ++i) {
                    void* p = glibc().alloc(size);
                    keep(p);
                    glibc().release(p, size);
                }
            },
            "two lock round trips and the fill",
            pair_floor(size)};
}

// A random trace over 1024 slots that are always in use: each step frees
// one slot and allocates a new size (16 B to 4 KiB) into it.
struct Trace {
    static constexpr unsigned kSlots = 1024;
    static constexpr size_t kSteps = 1 << 16;
    struct Step {
        unsigned slot;
        size_t size;
    };
    std::vector<Step> steps;
    std::vector<size_t> first_sizes;

    Trace() {
        std::mt19937 rng(42);
        std::uniform_int_distribution<size_t> size(16, 4096);
        for (unsigned slot = 0; slot < kSlots; ++slot) first_sizes.push_back(size(rng));
        for (size_t i = 0; i < kSteps; ++i) steps.push_back({static_cast<unsigned>(rng() % kSlots), size(rng)});
    }
};

// Replays the trace from where the last run stopped.
template <typename Alloc, typename Release>
Work trace_work(std::shared_ptr<const Trace> trace, Alloc alloc, Release release) {
    struct Live {
        std::vector<void*> data;
        std::vector<size_t> size;
        size_t next = 0;
    };
    auto live = std::make_shared<Live>();
    for (size_t size : trace->first_sizes) {
        live->data.push_back(alloc(size));
        live->size.push_back(size);
    }
    return [trace, live, alloc, release](size_t ops) {
        for (size_t i = 0; i < ops; ++i) {
            const Trace::Step& step = trace->steps[live->next];
            live->next = (live->next + 1) % trace->steps.size();
            release(live->data[step.slot], live->size[step.slot]);
            live->data[step.slot] = alloc(step.size);
            live->size[step.slot] = step.size;
        }
    };
}

Row trace_row() {
    auto trace = std::make_shared<const Trace>();
    heap_t* heap = new_heap("speed trace");
    return {"random trace, 1024 live slots, 16 B to 4 KiB (one free + one malloc)",
            "the same",
            0.8,
            trace_work(
                trace, [heap](size_t size) { return heap_malloc(heap, size); },
                [heap](void* p, size_t) { heap_free(heap, p); }),
            trace_work(
                trace, [](size_t size) { return glibc().alloc(size); },
                [](void* p, size_t size) { glibc().release(p, size); }),
            "",
            {}};
}

}  // namespace

void add_heap_rows(std::vector<Row>& rows) {
    for (size_t size : {16, 256, 4096}) rows.push_back(pair_row(size));
    rows.push_back(trace_row());
}

}  // namespace speed
