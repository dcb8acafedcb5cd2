// Random allocations and releases of mixed sizes toward changing fill
// targets, with reference-counted and permanently locked blocks among them.
// Every few hundred operations a validating walk checks the blocks against
// the heap's accounting; at the end the heap is one free block again.
// CORVEX_STRESS_SCALE multiplies the operations for long runs.
#include <algorithm>
#include <random>

#include "heap_fixture.h"
#include "stress_scale.h"

using namespace heap_test;

namespace {

constexpr size_t kHeapBytes = 1 << 20;
constexpr long kOperations = 20000;  // per configuration, before scaling
constexpr long kWalkEvery = 500;
constexpr long kPhase = 2500;  // operations between changes of the fill target
constexpr double kFillTargets[] = {0.3, 0.9, 0.6, 0.98, 0.05};

enum class Debug { kOff, kOn, kSwitching };

struct Live {
    unsigned char* data;
    size_t bytes;  // usable bytes, all holding `fill`
    unsigned char fill;
    int holders;  // releases still needed; 0: permanently locked
};

// What a walk finds, to hold against the heap's own accounting.
struct Census {
    size_t free_bytes = 0;
    bool previous_free = false;
    bool free_neighbours = false;
    size_t off_list = 0;  // free blocks on no list
    size_t blocks[HEAP_FREELIST_MAX] = {};
    size_t bytes[HEAP_FREELIST_MAX] = {};
};

boolean count_block(heap_t*, heap_block_t* block, heap_walk_arg_t* arg) {
    auto* census = static_cast<Census*>(arg->context);
    const bool is_free = block->header.allocated == 0;
    if (is_free) {
        census->free_neighbours |= census->previous_free;
        census->free_bytes += block->size + kHdr;
        if (block->freelist_id < HEAP_FREELIST_MAX) {
            census->blocks[block->freelist_id]++;
            census->bytes[block->freelist_id] += block->size + kHdr;
        } else {
            census->off_list++;
        }
    }
    census->previous_free = is_free;
    return TRUE;
}

std::string logged() {
    std::string all;
    for (const auto& text : log_texts()) all += text;
    return all;
}

void expect_consistent(heap_t* heap) {
    Census census;
    heap_walk_arg_t arg = walk_arg(true);
    arg.context = &census;
    corvex_test::syslog_clear();
    ASSERT_EQ(heap_walk(heap, count_block, &arg), 0) << logged();
    ASSERT_FALSE(census.free_neighbours);
    ASSERT_EQ(census.off_list, 0u);
    ASSERT_EQ(census.free_bytes, heap->free_bytes);
    for (u_int32_t id = 0; id < HEAP_FREELIST_MAX; ++id) {
        ASSERT_EQ(census.blocks[id], heap->freelist_table[id].blocks.item_count) << "list " << id;
        ASSERT_EQ(census.bytes[id], heap->freelist_table[id].free_bytes) << "list " << id;
    }
}

size_t request_size(std::mt19937& rng) {
    switch (rng() % 8) {
        case 0: return rng() % 17;            // at or below the minimum block
        case 1: return 4096 + rng() % 40000;  // from the upper lists and the default list
        default: return 1 + rng() % 600;
    }
}

class Stress {
public:
    Stress(Debug debug, unsigned seed) : heap_(make_heap(kHeapBytes, "stress")), debug_(debug), rng_(seed) {
        if (debug == Debug::kOn) heap_enable_debug(heap_);
    }

    void run(long operations) {
        for (long op = 0; op < operations; ++op) {
            if (op % kPhase == 0) next_phase(op / kPhase);
            const double used = 1.0 - static_cast<double>(heap_->free_bytes) / static_cast<double>(heap_->size);
            if (live_.empty() || used < target_) {
                allocate();
            } else {
                release(rng_() % live_.size());
            }
            if (op % kWalkEvery == 0) {
                expect_consistent(heap_);
                if (::testing::Test::HasFatalFailure()) return;
            }
        }
        for (Live& held : live_) {
            if (held.holders == 0) hdr(held.data)->header.refcount = held.holders = 1;
        }
        while (!live_.empty()) release(live_.size() - 1);
        expect_whole(heap_);
    }

private:
    void next_phase(long phase) {
        target_ = kFillTargets[phase % std::size(kFillTargets)];
        heap_set_debug_flag(heap_, HEAP_DEBUG_FLAG_FIFO, phase % 2 ? TRUE : FALSE);
        if (debug_ == Debug::kSwitching) (phase % 2 ? heap_enable_debug : heap_disable_debug)(heap_);
    }

    void allocate() {
        const size_t request = request_size(rng_);
        const bool zeroed = rng_() % 4 == 0;
        auto* p = static_cast<unsigned char*>(zeroed ? heap_zalloc(heap_, request) : heap_malloc(heap_, request));
        if (p == nullptr) return;  // full for this size: the fill target is out of reach
        if (zeroed && std::count(p, p + request, 0) != static_cast<std::ptrdiff_t>(request)) {
            ADD_FAILURE() << "heap_zalloc(" << request << ") left bytes set";
        }
        Live held{p, heap_block_size(p), static_cast<unsigned char>(rng_()), 1};
        EXPECT_GE(held.bytes, request);
        std::memset(p, held.fill, held.bytes);
        switch (rng_() % 16) {
            case 0: held.holders = 0; break;
            case 1: held.holders = 2; break;
            case 2: held.holders = 3; break;
            default: break;
        }
        hdr(p)->header.refcount = held.holders == 0 ? HEAP_REFCOUNT_LOCKED : held.holders;
        live_.push_back(held);
    }

    // One release by one holder; the block goes back with its last holder.
    void release(size_t i) {
        Live& held = live_[i];
        if (std::count(held.data, held.data + held.bytes, held.fill) != static_cast<std::ptrdiff_t>(held.bytes)) {
            ADD_FAILURE() << "block " << static_cast<void*>(held.data) << " was overwritten";
        }
        heap_free(rng_() % 2 ? heap_ : nullptr, held.data);
        if (held.holders == 1) {
            live_[i] = live_.back();
            live_.pop_back();
            return;
        }
        if (held.holders > 1) --held.holders;
        small_node_header_t& header = hdr(held.data)->header;
        EXPECT_EQ(header.allocated, 1u);
        EXPECT_EQ(header.refcount, held.holders == 0 ? HEAP_REFCOUNT_LOCKED : static_cast<unsigned>(held.holders));
        if (held.holders == 0 && rng_() % 4 == 0) header.refcount = held.holders = 1;  // its owner unlocks it
    }

    heap_t* heap_;
    Debug debug_;
    std::mt19937 rng_;
    std::vector<Live> live_;
    double target_ = 0;
};

}  // namespace

TEST(HeapStress, RandomTrafficKeepsTheHeapConsistentAndEndsWhole) {
    const long operations = corvex_test::stress_scaled(kOperations);
    for (Debug debug : {Debug::kOff, Debug::kOn, Debug::kSwitching}) {
        const unsigned seed = 0x5eed0 + static_cast<unsigned>(debug);
        SCOPED_TRACE(::testing::Message() << "debug mode " << static_cast<int>(debug) << ", seed " << seed);
        Stress(debug, seed).run(operations);
    }
}
