// The hot free-list operations, inline for the allocation and release
// paths: stamping headers, the class search, and putting blocks on and
// taking them off their lists. None of them locks: they run inside the
// locked paths (or on a heap no other thread is using).
#pragma once

#include "llist.h"
#include "priv_heap.h"
#include "priv_list_links.h"

namespace corvex::heap {

// The only writer of a header's marks; free-list fields and size are the
// callers'. A null caller address means a free block.
inline void heap_block_create(heap_t* heap, heap_block_t* block, heap_block_t* prev, void* callers_pc) {
    u_int32_t word = kFreeHeaderWord;
    if (callers_pc != nullptr) {
        block->x.alloc.heap = heap;
        block->x.alloc.allocator.pc = callers_pc;
        word = kAllocatedHeaderWord;
    }
    std::memcpy(&block->header, &word, sizeof word);
    block->prev = prev;
    block->magic = HEAP_BLOCK_MAGIC;
}

// Index entry of the first list of at least `size` bytes, or with
// `empty_check` of the first such list holding a block; the default list
// when there is none. Reads only the compact index (and the list bits);
// `index` is the heap's list_index_of.
inline heap_freelist_t* freelist_search(heap_t* heap, ListIndex index, size_t size, boolean empty_check) {
    const size_t sized = index.sized;
    size_t k = sized;
    if (!empty_check) {
        k = first_at_least(heap, sized, size);
    } else if (!freelist_bits_none(heap)) {
        k = freelist_bits_first(heap, first_at_least(heap, sized, size), sized);
    }
    if (k < sized) {
        return heap->freelist_size[k].freelist;
    }
    if (index.deflt != nullptr) {
        return index.deflt;
    }
    return heap->freelist_size[sized < HEAP_FREELIST_MAX ? sized : HEAP_FREELIST_MAX - 1].freelist;
}

// The list a free block of this size belongs on: the largest sized list not
// above it, or the default list for blocks at least as large as the largest
// sized list. A block smaller than every sized list also goes to the
// default list, whose search checks sizes, so no sized list ever holds a
// block below its own size. `index` is the heap's list_index_of.
inline heap_freelist_t* freelist_for_block(heap_t* heap, ListIndex index, size_t block_size) {
    const size_t sized = index.sized;
    if (sized == 0 || block_size < heap->freelist_size[0].size || block_size >= heap->freelist_size[sized - 1].size) {
        return index.deflt;
    }
    // Entries up to k hold sizes <= block_size; the last sized list only bounds.
    const size_t k = first_at_least(heap, sized, block_size + 1);
    return heap->freelist_size[k - 1].freelist;
}

// A list that became empty or non-empty: the default list has no bit.
inline void freelist_emptiness_changed(heap_t* heap, heap_freelist_t* list) {
    if (list->size != 0) {
        freelist_bits_note(heap, list);
    }
}

// Cold paths of enqueue: an allocated (or no) block, and a block no list takes.
void heap_freelist_enqueue_refused(heap_t* heap, heap_block_t* block);
void heap_freelist_unplaced(heap_block_t* block);

// The largest and smallest block a list has held, a block of block_size
// arriving.
inline void freelist_extremes_note(heap_freelist_t* freelist, u_int32_t block_size) {
    if (freelist->largest < block_size) {
        freelist->largest = block_size;
    }
    if (freelist->smallest == 0 || freelist->smallest > block_size) {
        freelist->smallest = block_size;
    }
}

// The counts and records a block's arrival on a list changes.
inline void freelist_count_in(heap_t* heap, heap_freelist_t* freelist, heap_block_t* block) {
    block->freelist_id = freelist->id;
    if (heap->largest_block == nullptr || heap->largest_block->size < block->size) {
        heap->largest_block = block;
    }
    const auto block_size = static_cast<u_int32_t>(block->size);
    freelist->frees++;
    freelist->free_bytes += block->size + kHeaderSize;
    freelist_extremes_note(freelist, block_size);
}

// The counts and records a block's departure from a list changes.
inline void freelist_count_out(heap_t* heap, heap_freelist_t* freelist, heap_block_t* block) {
    block->freelist_id = HEAP_FREELIST_NONE;
    freelist->allocs++;
    freelist->free_bytes -= block->size + kHeaderSize;
    if (heap->largest_block == block) {
        heap->largest_block = nullptr;
    }
}

// The counts and records of a block leaving a list and another joining it,
// changed as freelist_count_out and then freelist_count_in change them.
[[gnu::always_inline]] inline void freelist_count_swap(heap_t* heap, heap_freelist_t* freelist, heap_block_t* out,
                                                       heap_block_t* in) {
    out->freelist_id = HEAP_FREELIST_NONE;
    in->freelist_id = freelist->id;
    freelist->allocs++;
    freelist->free_bytes += in->size - out->size;
    heap_block_t* largest = heap->largest_block;
    if (largest == out || largest == nullptr || largest->size < in->size) {
        heap->largest_block = in;
    }
    // Counted apart from allocs (after the branch): two adjacent counts
    // are otherwise paired into vector work that costs more than two adds.
    freelist->frees++;
    const auto block_size = static_cast<u_int32_t>(in->size);
    freelist_extremes_note(freelist, block_size);
}

// Puts a free block on `freelist`, or on the list its size selects when
// that is null: at the tail when `fifo` (heap_lists_fifo), else at the head.
inline void heap_freelist_enqueue(heap_t* heap, heap_freelist_t* freelist, heap_block_t* block, bool fifo) {
    if (block == nullptr || block->header.allocated) {
        heap_freelist_enqueue_refused(heap, block);
        return;
    }
    if (freelist == nullptr) {
        freelist = freelist_for_block(heap, list_index_of(heap), block->size);
        if (freelist == nullptr) {
            heap_freelist_unplaced(block);
            return;
        }
    }
    // The heap made the head itself; the list layer reports one whose magic
    // has since been overwritten.
    list_t* blocks = &freelist->blocks;
    list_item_t* link = &block->x.free.links;
    if (!list_magic_valid(blocks)) {
        fifo ? list_append(blocks, link) : list_prepend(blocks, link);
    } else if (fifo) {
        list_links_append(blocks, link);
    } else {
        list_links_prepend(blocks, link);
    }
    if (blocks->item_count == 1) {
        freelist_emptiness_changed(heap, freelist);
    }
    freelist_count_in(heap, freelist, block);
}

// One move where a block leaves a list and another, free (its header
// stamped so), joins the same list: when `out` stands where the list takes
// new blocks (its head, or its tail in FIFO mode), taking it off and putting
// `in` on leaves `in` exactly in its place, so `in` takes that place
// directly, with every count and record changed as the two moves change
// them and `out`'s links cleared as taking it off by name clears them.
// False, and nothing changed, otherwise. `fifo` is heap_lists_fifo.
[[gnu::always_inline]] inline bool heap_freelist_replace(heap_t* heap, heap_freelist_t* freelist, heap_block_t* out,
                                                         heap_block_t* in, bool fifo) {
    list_t* blocks = &freelist->blocks;
    list_item_t* out_link = &out->x.free.links;
    if (!list_magic_valid(blocks) || (fifo ? blocks->tail : blocks->head) != out_link) {
        return false;
    }
    list_item_t* in_link = &in->x.free.links;
    list_item_t* before = out_link->prev;
    list_item_t* after = out_link->next;
    in_link->prev = before;
    in_link->next = after;
    (before != nullptr ? before->next : blocks->head) = in_link;
    (after != nullptr ? after->prev : blocks->tail) = in_link;
    out_link->prev = nullptr;
    out_link->next = nullptr;
    freelist_count_swap(heap, freelist, out, in);
    return true;
}

// Takes `block` off `freelist` (its own list when that is null), or the
// head of `freelist` when `block` is null. Null when there is nothing to take.
inline heap_block_t* heap_freelist_dequeue(heap_t* heap, heap_freelist_t* freelist, heap_block_t* block) {
    if (freelist == nullptr && block == nullptr) {
        return nullptr;
    }
    if (freelist == nullptr) {
        freelist = active_freelist(heap, static_cast<heap_freelist_id_t>(block->freelist_id));
        if (freelist == nullptr) {
            return nullptr;
        }
    }
    // As on enqueue, a head whose magic was overwritten goes to the list
    // layer, which reports it (and stops on it when taking the head).
    list_t* blocks = &freelist->blocks;
    const bool head_valid = list_magic_valid(blocks);
    if (block != nullptr) {
        if (head_valid) {
            list_links_yank(blocks, &block->x.free.links);
        } else {
            list_yank(blocks, &block->x.free.links);
        }
    } else {
        block = head_valid ? block_of_link(list_links_yank_head(blocks))
                           : static_cast<heap_block_t*>(list_yank_head(blocks));
        if (block == nullptr) {
            return nullptr;
        }
    }
    if (blocks->head == nullptr) {
        freelist_emptiness_changed(heap, freelist);
    }
    freelist_count_out(heap, freelist, block);
    return block;
}

}  // namespace corvex::heap
