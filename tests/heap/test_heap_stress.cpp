// Random allocations and releases of mixed sizes toward changing fill
// targets, with reference-counted and permanently locked blocks among them,
// debug mode off, on and switching. Every few hundred operations a
// validating walk checks the blocks against the heap's accounting, and the
// class search against a plain walk over the size index; at the end the heap
// is one free block again. CORVEX_STRESS_SCALE multiplies the operations.
#include <algorithm>
#include <random>

#include "heap_fixture.h"
#include "stress_scale.h"

using namespace heap_test;

namespace {

constexpr long kOperations = 20000;  // per configuration, before scaling
constexpr long kPhase = 2500;        // operations between changes of the fill target
constexpr double kFillTargets[] = {0.3, 0.9, 0.6, 0.98, 0.05};

struct Live {
    unsigned char* data;
    size_t bytes;  // usable bytes, all holding `fill`
    unsigned char fill;
    int holders;  // releases still needed; 0: permanently locked
};

// What a walk finds, to hold against the heap's own accounting.
struct Census {
    size_t free_bytes = 0, off_list = 0;
    bool previous_free = false, free_neighbours = false;
    size_t blocks[HEAP_FREELIST_MAX] = {}, bytes[HEAP_FREELIST_MAX] = {};
};

boolean count_block(heap_t*, heap_block_t* block, heap_walk_arg_t* arg) {
    auto* census = static_cast<Census*>(arg->context);
    const bool is_free = block->header.allocated == 0;
    if (is_free) {
        census->free_neighbours |= census->previous_free;
        census->free_bytes += block->size + kHdr;
        if (block->freelist_id >= HEAP_FREELIST_MAX) {
            census->off_list++;
        } else {
            census->blocks[block->freelist_id]++;
            census->bytes[block->freelist_id] += block->size + kHdr;
        }
    }
    census->previous_free = is_free;
    return TRUE;
}

// The list a walk over the size index picks: the first holding blocks that fit.
heap_freelist_t* first_fitting_list(heap_t* heap, size_t size) {
    for (int k = 0; k < HEAP_FREELIST_MAX && heap->freelist_size[k].size != 0; ++k) {
        heap_freelist_t* list = heap->freelist_size[k].freelist;
        if (list->size >= size && list->blocks.head != nullptr) return list;
    }
    return heap_freelist_find_by_size(heap, 1u << 30, FALSE);  // the default list
}

void expect_consistent(heap_t* heap) {
    Census census;
    heap_walk_arg_t arg{TRUE, FALSE, 0, 0, 0, &census};
    syslog_clear();
    ASSERT_EQ(heap_walk(heap, count_block, &arg), 0) << ::testing::PrintToString(syslog_texts(3));
    ASSERT_EQ(std::tuple(census.free_neighbours, census.off_list, census.free_bytes),
              std::tuple(false, 0u, heap->free_bytes));
    for (u_int32_t id = 0; id < HEAP_FREELIST_MAX; ++id) {
        ASSERT_EQ(std::tuple(census.blocks[id], census.bytes[id]),
                  std::tuple(heap->freelist_table[id].blocks.item_count, heap->freelist_table[id].free_bytes))
            << "list " << id;
    }
    for (size_t size : {16, 40, 256, 700, 1500, 4000, 40000}) {
        ASSERT_EQ(heap_freelist_find_by_size(heap, size, TRUE), first_fitting_list(heap, size)) << size;
    }
}

size_t request_size(std::mt19937& rng) {
    switch (rng() % 8) {
        case 0: return rng() % 17;            // at or below the minimum block
        case 1: return 4096 + rng() % 40000;  // from the upper lists and the default list
        default: return 1 + rng() % 600;
    }
}

bool holds(const Live& held) {
    return std::count(held.data, held.data + held.bytes, held.fill) == static_cast<std::ptrdiff_t>(held.bytes);
}

// debug: 0 off, 1 on, 2 switched with every phase.
void run_stress(int debug, unsigned seed, long operations) {
    heap_t* heap = make_heap(1 << 20, "stress");
    if (debug == 1) heap_enable_debug(heap);
    std::mt19937 rng(seed);
    std::vector<Live> live;
    double target = 0;
    auto release = [&](size_t i) {  // by one holder; the block goes back with its last
        Live& held = live[i];
        EXPECT_TRUE(holds(held)) << "block " << static_cast<void*>(held.data) << " was overwritten";
        heap_free(rng() % 2 ? heap : nullptr, held.data);
        if (held.holders == 1) {
            live[i] = live.back();
            live.pop_back();
            return;
        }
        if (held.holders > 1) --held.holders;
        small_node_header_t& header = hdr(held.data)->header;
        EXPECT_EQ(std::tuple(+header.allocated, +header.refcount),
                  std::tuple(1u, held.holders == 0 ? HEAP_REFCOUNT_LOCKED : static_cast<unsigned>(held.holders)));
        if (held.holders == 0 && rng() % 4 == 0) header.refcount = held.holders = 1;  // its owner unlocks it
    };
    for (long op = 0; op < operations; ++op) {
        if (op % kPhase == 0) {
            const long phase = op / kPhase;
            target = kFillTargets[phase % std::size(kFillTargets)];
            heap_set_debug_flag(heap, HEAP_DEBUG_FLAG_FIFO, phase % 2 ? TRUE : FALSE);
            if (debug == 2) (phase % 2 ? heap_enable_debug : heap_disable_debug)(heap);
            if (phase == 3) heap_freelist_create(heap, 700);  // a list added midway
        }
        const double used = 1.0 - static_cast<double>(heap->free_bytes) / static_cast<double>(heap->size);
        if (!live.empty() && used >= target) {
            release(rng() % live.size());
        } else {
            const size_t request = request_size(rng);
            const bool zeroed = rng() % 4 == 0;
            auto* p = static_cast<unsigned char*>(zeroed ? heap_zalloc(heap, request) : heap_malloc(heap, request));
            if (p == nullptr) continue;  // full for this size: the fill target is out of reach
            EXPECT_TRUE(!zeroed || std::count(p, p + request, 0) == static_cast<std::ptrdiff_t>(request));
            const unsigned pick = rng() % 16;
            Live held{p, heap_block_size(p), static_cast<unsigned char>(rng()), pick < 3 ? int(pick) + 1 : 1};
            if (pick == 0) held.holders = 0;
            EXPECT_GE(held.bytes, request);
            std::memset(p, held.fill, held.bytes);
            hdr(p)->header.refcount = held.holders == 0 ? HEAP_REFCOUNT_LOCKED : held.holders;
            live.push_back(held);
        }
        if (op % 500 == 0) {
            expect_consistent(heap);
            if (::testing::Test::HasFatalFailure()) return;
        }
    }
    for (Live& held : live) {
        if (held.holders == 0) hdr(held.data)->header.refcount = held.holders = 1;
    }
    while (!live.empty()) release(live.size() - 1);
    expect_whole(heap);
}

}  // namespace

TEST(HeapStress, RandomTrafficKeepsTheHeapConsistentAndEndsWhole) {
    for (int debug : {0, 1, 2}) {
        SCOPED_TRACE(::testing::Message() << "debug mode " << debug);
        run_stress(debug, 0x5eed0 + debug, corvex_test::stress_scaled(kOperations));
    }
}
