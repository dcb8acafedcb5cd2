// Block validation reports (the tests themselves are in priv_heap.h), and
// the failure ring.
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

bool all_guard_bytes(const u_int8_t* guard) {
    for (int i = 0; i < HEAP_TRAILER_GUARD_BYTES; ++i) {
        if (guard[i] != HEAP_TRAILER_FILL) {
            return false;
        }
    }
    return true;
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

status_t heap_block_validate_failed(heap_t* heap, heap_block_t* block, boolean noisy, boolean active) {
    if (!heap_valid(heap)) {
        if (active) {
            heap_bad_heap_panic(heap);
        }
        if (noisy) {
            report(heap, block, "Heap corrupted", nullptr, nullptr);
        }
        return 1000;
    }
    const BlockFailure failure = block_first_failure(heap, block);
    if (failure.error == nullptr) {
        return 0;
    }
    if (noisy || active) {
        heap_block_t* prev = (failure.neighbours & kNamesPrevious) ? block->prev : nullptr;
        heap_block_t* next = (failure.neighbours & kNamesNext) ? next_block_addr(heap, block) : nullptr;
        report(heap, block, failure.error, prev, next);
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
