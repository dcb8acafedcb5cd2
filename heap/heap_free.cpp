// Taking blocks back: reference counts, merging with free neighbours and
// the checks that keep a bad pointer from writing outside its heap.
#include <syslog.h>

#include "kdebug.h"
#include "priv_freelist.h"

namespace corvex::heap {

namespace {

// The heap whose range holds this header: the expected heap when it does,
// else whichever registered heap does (null: the pointer is in no heap).
heap_t* owner_of(heap_t* expect_heap, heap_block_t* block) {
    if (heap_valid(expect_heap) && header_in_heap(expect_heap, block)) {
        return expect_heap;
    }
    return heap_registered_owner(block);
}

// Grows `survivor` over the physically following `swallowed`, whose next
// block (null: none) is `after`.
void merge_into(heap_t* heap, heap_block_t* survivor, heap_block_t* swallowed, heap_block_t* after) {
    size_t old_size = survivor->size;
    survivor->size += swallowed->size + kHeaderSize;
    if (after != nullptr) {
        after->prev = survivor;
    }
    heap->debug_proc.post_coalesce(data_of(survivor), survivor->size, old_size);
    heap->stats.coalesces++;
}

}  // namespace

void heap_block_return(heap_t* expect_heap, void* raw_block) {
    if (raw_block == nullptr) {
        return;
    }
    heap_block_t* block = block_of(raw_block);
    heap_t* owner = owner_of(expect_heap, block);
    if (owner == nullptr) {
        heap_bp_failure();
        syslog(LOG_ERR, "HEAP: Freeing %p, which lies in no heap\n", raw_block);
        traceback("HEAP: Freeing a block of no heap");
        return;
    }
    heap_t* heap = block->x.alloc.heap;
    CORVEX_ASSERT(expect_heap == nullptr || heap == expect_heap, "heap == expect_heap", kSource);
    // Only a registered heap is dereferenced; anything else in the heap word
    // (a free-list link after a double release) is a bad heap. A block that
    // names another registered heap is checked against the heap it lies in,
    // where its heap word fails.
    if (heap != owner) {
        if (!heap_is_registered(heap)) {
            heap_bad_heap_panic(heap);
        }
        heap = owner;
    }
    heap_block_t* after = heap_block_checked(heap, block, nullptr);
    if (!block->header.allocated) {
        traceback("Freeing an already freed block!");
        heap_bp_failure();
        heap_block_log(LOG_ERR, heap, block);
        return;
    }
    if (!block_fits_heap(heap, block)) {
        heap_block_extent_panic(heap, block);
    }
    switch (block->header.refcount) {
        case HEAP_REFCOUNT_LOCKED:
            return;
        case 1:
            break;
        default:
            block->header.refcount = block->header.refcount - 1;
            return;
    }
    heap->stats.frees++;
    heap_rates_note(heap, block, false);
    heap->free_bytes += block->size + kHeaderSize;
    if (heap->debug) {
        syslog(LOG_DEBUG, "%s: HEAP(%s): Trying to free block %p\n", "heap_block_return", heap->name,
               static_cast<void*>(block));
    }
    small_node_header_t word = block->header;  // one store for the four fields
    word.refcount = 0;
    word.allocated = 0;
    word.debug = 0;
    word.pc_saved = 0;
    block->header = word;
    heap->debug_proc.post_free(raw_block, usable_size(block));

    // A free neighbour's list links are about to be followed and written:
    // it is checked like the released block first. The released block's
    // own tests have just found each neighbour's header inside the range.
    heap_block_t* merged = block;
    heap_block_t* prev = block->prev;
    if (prev != nullptr && !prev->header.allocated) {
        heap_block_checked(heap, prev, block);
        heap_freelist_dequeue(heap, nullptr, prev);
        merge_into(heap, prev, block, after);
        merged = prev;
    }
    heap_block_t* next = after;
    heap_freelist_t* next_list = nullptr;
    if (next != nullptr && !next->header.allocated) {
        heap_block_t* after_next = heap_block_checked(heap, next, merged);
        // The next block leaves its list at the end, where the merged block
        // may simply take its place (its size stays as it is until then).
        next_list = active_freelist(heap, static_cast<heap_freelist_id_t>(next->freelist_id));
        merge_into(heap, merged, next, after_next);
    }
    if (next_list == nullptr || next_list != freelist_for_block(heap, merged->size) ||
        !heap_freelist_replace(heap, next_list, next, merged)) {
        if (next_list != nullptr) {
            heap_freelist_dequeue(heap, next_list, next);
        }
        heap_freelist_enqueue(heap, nullptr, merged);
    }
    heap_invariants_check(heap);
}

}  // namespace corvex::heap

extern "C" void heap_free(heap_t* heap, void* addr) {
    corvex::GlbLockGuard lock(corvex::heap::heap_lock(), corvex::heap::kSource, __LINE__);
    corvex::heap::heap_block_return(heap, addr);
}
