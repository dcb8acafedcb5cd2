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
// block (null: none) is `after`. A plain release runs the default
// coalesce hook in place.
template <bool kPlain>
[[gnu::always_inline]] inline void merge_into(heap_t* heap, heap_block_t* survivor, heap_block_t* swallowed,
                                              heap_block_t* after) {
    size_t old_size = survivor->size;
    survivor->size += swallowed->size + kHeaderSize;
    if (after != nullptr) {
        after->prev = survivor;
    }
    if constexpr (kPlain) {
        heap_mark_swallowed(data_of(survivor), old_size);
    } else {
        heap->debug_proc.post_coalesce(data_of(survivor), survivor->size, old_size);
    }
    heap->stats.coalesces++;
}

// The release proper of a checked block whose last holder lets it go:
// accounting, the free hook, merging with free neighbours and the block's
// place on a list. `after` is the block's next block (null: the last of
// the range). A plain release (heap_release_is_plain) runs the default
// hooks in place; as they write only the released data area and the marks
// of a swallowed header, the neighbours' marks that the released block's
// checks found live are still live, and are not tested again.
template <bool kPlain>
[[gnu::always_inline]] inline void heap_block_release(heap_t* heap, heap_block_t* block, heap_block_t* after) {
    heap->stats.frees++;
    if constexpr (!kPlain) {
        heap_rates_note(heap, block, false);
    }
    heap->free_bytes += block->size + kHeaderSize;
    if (!kPlain && heap->debug) {
        syslog(LOG_DEBUG, "%s: HEAP(%s): Trying to free block %p\n", "heap_block_return", heap->name,
               static_cast<void*>(block));
    }
    small_node_header_t word = block->header;  // one store for the four fields
    word.refcount = 0;
    word.allocated = 0;
    word.debug = 0;
    word.pc_saved = 0;
    block->header = word;
    if constexpr (kPlain) {
        heap_fill_released(data_of(block), usable_size(block));
    } else {
        heap->debug_proc.post_free(data_of(block), usable_size(block));
    }

    // A free neighbour's list links are about to be followed and written:
    // it is checked like the released block first. The released block's
    // own tests have just found each neighbour's header inside the range
    // (and, for a plain release, live).
    const ListIndex index = list_index_of(heap);
    const bool fifo = !kPlain && heap_lists_fifo(heap);
    heap_block_t* merged = block;
    heap_block_t* prev = block->prev;
    if (prev != nullptr && !prev->header.allocated) {
        heap_block_checked(heap, prev, {block, kPlain, kPlain});
        heap_freelist_dequeue(heap, nullptr, prev);
        merge_into<kPlain>(heap, prev, block, after);
        merged = prev;
    }
    heap_block_t* next = after;
    const bool next_free = next != nullptr && !next->header.allocated;
    u_int32_t next_list_id = HEAP_FREELIST_NONE;
    if (next_free) {
        heap_block_t* after_next = heap_block_checked(heap, next, {merged, kPlain, kPlain});
        next_list_id = next->freelist_id;
        merge_into<kPlain>(heap, merged, next, after_next);
    }
    // The next block leaves its list at the end: where the merged block
    // belongs on that same list, it may simply take the next block's place
    // (whose size stays as it was until then).
    heap_freelist_t* home = freelist_for_block(heap, index, merged->size);
    if (!(next_free && home != nullptr && next_list_id == home->id &&
          heap_freelist_replace(heap, home, next, merged, fifo))) {
        if (next_free) {
            heap_freelist_t* next_list = active_freelist(heap, static_cast<heap_freelist_id_t>(next_list_id));
            if (next_list != nullptr) {
                heap_freelist_dequeue(heap, next_list, next);
            }
        }
        heap_freelist_enqueue(heap, home, merged, fifo);
    }
}

[[gnu::always_inline]] inline void heap_block_return(heap_t* expect_heap, void* raw_block) {
    if (raw_block == nullptr) {
        return;
    }
    heap_block_t* block = block_of(raw_block);
    // The common case, a block of the sound heap its caller names, needs
    // none of the tests below: they would find that heap.
    heap_t* heap = expect_heap;
    if (!(heap_valid(expect_heap) && header_in_heap(expect_heap, block) && block->x.alloc.heap == expect_heap))
        [[unlikely]] {
        heap_t* owner = owner_of(expect_heap, block);
        if (owner == nullptr) {
            heap_bp_failure();
            syslog(LOG_ERR, "HEAP: Freeing %p, which lies in no heap\n", raw_block);
            traceback("HEAP: Freeing a block of no heap");
            return;
        }
        heap = block->x.alloc.heap;
        CORVEX_ASSERT(expect_heap == nullptr || heap == expect_heap, "heap == expect_heap", kSource);
        // Only a registered heap is dereferenced; anything else in the heap
        // word (a free-list link after a double release) is a bad heap. A
        // block that names another registered heap is checked against the
        // heap it lies in, where its heap word fails.
        if (heap != owner) {
            if (!heap_is_registered(heap)) {
                heap_bad_heap_panic(heap);
            }
            heap = owner;
        }
        if (!heap_valid(heap)) {
            heap_block_validate_failed(heap, block, TRUE, TRUE);
        }
    }
    heap_block_t* after = heap_block_checked(heap, block);
    if (!block->header.allocated) {
        traceback("Freeing an already freed block!");
        heap_bp_failure();
        heap_block_log(LOG_ERR, heap, block);
        return;
    }
    // A block with a next block ends before the end of the range.
    if (after == nullptr && !block_fits_heap(heap, block)) {
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
    if (heap_release_is_plain(heap)) {
        heap_block_release<true>(heap, block, after);
    } else {
        heap_block_release<false>(heap, block, after);
    }
    heap_invariants_check(heap);
}

}  // namespace

}  // namespace corvex::heap

extern "C" void heap_free(heap_t* heap, void* addr) {
    corvex::GlbLockGuard lock(corvex::heap::heap_lock(), corvex::heap::kSource, __LINE__);
    corvex::heap::heap_block_return(heap, addr);
}
