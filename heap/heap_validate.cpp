// Block validation, the corruption report and the failure ring.
#include <atomic>
#include <syslog.h>

#include "kdebug.h"
#include "priv_heap.h"

extern "C" {
u_int32_t heap_bp_failure_count;
u_int32_t heap_bp_failure_pc_index;
void* heap_bp_failure_count_last_pc[HEAP_FAILURE_RING];
}

namespace corvex::heap {

namespace {

// Which neighbours a failed test names in the report.
enum Neighbours : unsigned { kNone = 0, kPrevious = 1, kNext = 2 };

struct Failure {
    const char* error = nullptr;
    unsigned neighbours = kNone;
};

bool all_guard_bytes(const u_int8_t* guard) {
    for (int i = 0; i < HEAP_TRAILER_GUARD_BYTES; ++i) {
        if (guard[i] != HEAP_TRAILER_FILL) {
            return false;
        }
    }
    return true;
}

// Tests 2 to 12, in their fixed order. The heap is valid here. A header is
// read only where one fits inside the range.
Failure first_failure(heap_t* heap, heap_block_t* block, heap_block_t* next, bool next_readable) {
    if (!block_is_live(block)) {
        return {"Invalid header magic number", kNone};
    }
    if (!header_word_marked(block)) {
        return {"Invalid header block magic number", kNone};
    }
    heap_block_t* prev = block->prev;
    if (prev != nullptr && !header_in_heap(heap, prev)) {
        return {"Possible block overrun - bad prev block pointer", kNone};
    }
    if (prev != nullptr && !block_is_live(prev)) {
        return {"Possible block overrun - bad prev header magic number", kPrevious};
    }
    if (next != nullptr && (!next_readable || !block_is_live(next))) {
        return {"Possible block overrun - bad next header magic number",
                static_cast<unsigned>(kPrevious | (next_readable ? kNext : kNone))};
    }
    constexpr unsigned kBoth = kPrevious | kNext;
    if (block->header.allocated) {
        if (block->header.refcount == 0) {
            return {"Zero refcount in header for allocated block", kBoth};
        }
        if (block->x.alloc.heap != heap) {
            return {"Invalid heap pointer in header", kBoth};
        }
        if (block->header.debug && !trailer_intact_in(heap, block)) {
            return {"Block overrun - TRAILER overwritten", kBoth};
        }
        return {};
    }
    if (block->header.refcount != 0) {
        return {"Non-zero refcount in header for free block", kBoth};
    }
    if (block->x.free.links.prev != nullptr && !addr_in_heap(heap, block->x.free.links.prev)) {
        return {"Invalid fprev pointer", kBoth};
    }
    if (block->x.free.links.next != nullptr && !addr_in_heap(heap, block->x.free.links.next)) {
        return {"Invalid fnext pointer", kBoth};
    }
    return {};
}

void report(heap_t* heap, heap_block_t* block, const char* error, heap_block_t* prev, heap_block_t* next) {
    heap_bp_failure();
    syslog(LOG_ERR, "HEAP: Heap Block Corrupted\n");
    syslog(LOG_ERR, "HEAP: %s\n", error);
    syslog(LOG_ERR, "HEAP:\n");
    syslog(LOG_ERR, "HEAP:\n");
    syslog(LOG_ERR, "HEAP: Current Heap Block: %p\n", static_cast<void*>(block));
    heap_block_log(LOG_ERR, heap, block);
    if (prev != nullptr) {
        syslog(LOG_ERR, "HEAP:\n");
        syslog(LOG_ERR, "HEAP:\n");
        syslog(LOG_ERR, "HEAP: Previous Heap Block: %p\n", static_cast<void*>(prev));
        heap_block_log(LOG_ERR, heap, prev);
    }
    if (next != nullptr) {
        syslog(LOG_ERR, "HEAP:\n");
        syslog(LOG_ERR, "HEAP:\n");
        syslog(LOG_ERR, "HEAP: Next Heap Block: %p\n", static_cast<void*>(next));
        heap_block_log(LOG_ERR, heap, next);
    }
}

}  // namespace

bool trailer_intact_in(heap_t* heap, heap_block_t* block) {
    return trailer_in_heap(heap, block) && all_guard_bytes(trailer_of(block));
}

void heap_bad_heap_panic(heap_t* heap) {
    heap_bp_failure();
    panic("Heap corruption at 0x%p\n", static_cast<void*>(heap));
}

status_t heap_block_validate(heap_t* heap, heap_block_t* block, boolean noisy, boolean active) {
    if (!heap_valid(heap)) {
        if (active) {
            heap_bad_heap_panic(heap);
        }
        if (noisy) {
            report(heap, block, "Heap corrupted", nullptr, nullptr);
        }
        return 1000;
    }
    heap_block_t* next = next_block_addr(heap, block);
    bool next_readable = next != nullptr && header_in_heap(heap, next);
    Failure failure = first_failure(heap, block, next, next_readable);
    if (failure.error == nullptr) {
        return 0;
    }
    if (noisy || active) {
        heap_block_t* prev = (failure.neighbours & kPrevious) ? block->prev : nullptr;
        report(heap, block, failure.error, prev, (failure.neighbours & kNext) ? next : nullptr);
    }
    if (active) {
        panic("Memory corruption in block %p\n", static_cast<void*>(block));
    }
    return 1000;
}

void heap_block_extent_panic(heap_t* heap, heap_block_t* block) {
    report(heap, block, "Block size runs past the end of the heap", nullptr, nullptr);
    panic("Memory corruption in block %p\n", static_cast<void*>(block));
}

}  // namespace corvex::heap

extern "C" {

// Not inlined: the reporting site is this call's return address.
__attribute__((noinline)) void heap_bp_failure(void) {
    void* site = __builtin_return_address(0);
    std::atomic_ref<u_int32_t>(heap_bp_failure_count).fetch_add(1, std::memory_order_relaxed);
    std::atomic_ref<u_int32_t> index(heap_bp_failure_pc_index);
    u_int32_t slot = index.load(std::memory_order_relaxed);
    while (!index.compare_exchange_weak(slot, (slot + 1) % HEAP_FAILURE_RING, std::memory_order_relaxed)) {
    }
    std::atomic_ref<void*>(heap_bp_failure_count_last_pc[slot % HEAP_FAILURE_RING])
        .store(site, std::memory_order_relaxed);
}

}  // extern "C"
