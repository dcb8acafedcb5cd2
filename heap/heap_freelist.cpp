// Size-class free lists: making them, the class search over the compact
// index, and putting blocks on and taking them off.
#include <syslog.h>

#include "kdebug.h"
#include "llist.h"
#include "priv_heap.h"

namespace corvex::heap {

void heap_block_create(heap_t* heap, heap_block_t* block, heap_block_t* prev, void* callers_pc) {
    small_node_header_t word{};
    if (callers_pc != nullptr) {
        block->x.alloc.heap = heap;
        block->x.alloc.allocator.pc = callers_pc;
        word.allocated = 1;
        word.refcount = 1;
        word.pc_saved = 1;
    }
    word.offset = kOffsetField;
    block->header = word;
    block->prev = prev;
    block->magic = HEAP_BLOCK_MAGIC;
}

namespace {

void freelist_index_rebuild(heap_t* heap) {
    size_t k = 0;
    for (auto* list = static_cast<heap_freelist_t*>(list_get_head(&heap->freelist)); list != nullptr;
         list = static_cast<heap_freelist_t*>(list_get_next(&heap->freelist, list))) {
        heap->freelist_size[k++] = {list->size, list};
    }
    for (; k < HEAP_FREELIST_MAX; ++k) {
        heap->freelist_size[k] = {0, nullptr};
    }
}

// Number of sized lists: the index is ordered by ascending size and ends
// with the default list (size 0).
size_t sized_count(const heap_t* heap) {
    size_t lists = heap->freelist.item_count;
    return lists > 0 && heap->freelist_size[lists - 1].size == 0 ? lists - 1 : lists;
}

// First index entry whose size is at least `size` (sized_count when none is).
size_t first_at_least(const heap_t* heap, size_t sized, size_t size) {
    size_t low = 0, high = sized;
    while (low < high) {
        size_t mid = (low + high) / 2;
        if (heap->freelist_size[mid].size < size) {
            low = mid + 1;
        } else {
            high = mid;
        }
    }
    return low;
}

// The list a free block of this size belongs on: the largest sized list not
// above it, or the default list for blocks at least as large as the largest
// sized list. A block smaller than every sized list also goes to the
// default list, whose search checks sizes, so no sized list ever holds a
// block below its own size.
heap_freelist_t* freelist_for_block(heap_t* heap, size_t block_size) {
    size_t sized = sized_count(heap);
    heap_freelist_t* deflt = sized < heap->freelist.item_count ? heap->freelist_size[sized].freelist : nullptr;
    if (sized == 0 || block_size < heap->freelist_size[0].size) {
        return deflt;
    }
    // Entries up to k hold sizes <= block_size; the last sized list only bounds.
    size_t k = first_at_least(heap, sized, block_size + 1);
    return k < sized ? heap->freelist_size[k - 1].freelist : deflt;
}

}  // namespace

void heap_freelist_enqueue(heap_t* heap, heap_freelist_t* freelist, heap_block_t* block) {
    if (block == nullptr || block->header.allocated) {
        heap_bp_failure();
        heap_block_log(LOG_ERR, heap, block);
        traceback("HEAP: Tried to enqueue alloc'd block");
        return;
    }
    if (freelist == nullptr) {
        freelist = freelist_for_block(heap, block->size);
        if (freelist == nullptr) {
            syslog(LOG_ERR, "HEAP: Failed to find freelist for block %p (%u bytes)\n", static_cast<void*>(block),
                   static_cast<unsigned>(block->size));
            return;
        }
    }
    if (heap->debug_flags & HEAP_DEBUG_FLAG_FIFO) {
        list_append(&freelist->blocks, &block->x.free.links);
    } else {
        list_prepend(&freelist->blocks, &block->x.free.links);
    }
    block->freelist_id = freelist->id;
    if (heap->largest_block == nullptr || heap->largest_block->size < block->size) {
        heap->largest_block = block;
    }
    auto block_size = static_cast<u_int32_t>(block->size);
    freelist->frees++;
    freelist->free_bytes += block->size + kHeaderSize;
    if (freelist->largest < block_size) {
        freelist->largest = block_size;
    }
    if (freelist->smallest == 0 || freelist->smallest > block_size) {
        freelist->smallest = block_size;
    }
}

heap_block_t* heap_freelist_dequeue(heap_t* heap, heap_freelist_t* freelist, heap_block_t* block) {
    if (freelist == nullptr && block == nullptr) {
        return nullptr;
    }
    if (block != nullptr) {
        if (freelist == nullptr) {
            freelist = heap_freelist_find_by_id(heap, static_cast<heap_freelist_id_t>(block->freelist_id), TRUE);
            if (freelist == nullptr) {
                return nullptr;
            }
        }
        list_yank(&freelist->blocks, &block->x.free.links);
    } else {
        block = static_cast<heap_block_t*>(list_yank_head(&freelist->blocks));
        if (block == nullptr) {
            return nullptr;
        }
    }
    block->freelist_id = HEAP_FREELIST_NONE;
    freelist->allocs++;
    freelist->free_bytes -= block->size + kHeaderSize;
    if (heap->largest_block == block) {
        heap->largest_block = nullptr;
    }
    return block;
}

}  // namespace corvex::heap

using namespace corvex::heap;

extern "C" {

status_t heap_freelist_create(heap_t* heap, size_t size) {
    if (heap == nullptr) {
        return 22;
    }
    size = round_up8(size);
    // One list per size. There is only ever one default list: it must stay
    // the terminating entry of the index.
    for (auto* list = static_cast<heap_freelist_t*>(list_get_head(&heap->freelist)); list != nullptr;
         list = static_cast<heap_freelist_t*>(list_get_next(&heap->freelist, list))) {
        if (list->size == size) {
            return 0;
        }
    }
    heap_freelist_t* slot = nullptr;
    for (u_int8_t id = 0; id < HEAP_FREELIST_MAX; ++id) {
        if (!heap->freelist_table[id].active) {
            slot = &heap->freelist_table[id];
            slot->active = 1;
            slot->id = id;
            break;
        }
    }
    if (slot == nullptr) {
        return 12;
    }
    slot->size = size;
    list_init("Freelist", kFreelistLinkOffset, &slot->blocks);

    auto* stop = static_cast<heap_freelist_t*>(list_get_head(&heap->freelist));
    while (stop != nullptr && stop->size != 0 && (size == 0 || stop->size <= size)) {
        stop = static_cast<heap_freelist_t*>(list_get_next(&heap->freelist, stop));
    }
    if (stop == nullptr) {
        list_append(&heap->freelist, &slot->links);
    } else {
        list_insert_before(&heap->freelist, &stop->links, &slot->links);
    }
    freelist_index_rebuild(heap);
    return 0;
}

// Reads only the compact index: a binary search to the first list large
// enough, then the first of those that holds a block.
heap_freelist_t* heap_freelist_find_by_size(heap_t* heap, size_t size, boolean empty_check) {
    const auto& index = heap->freelist_size;
    size_t sized = sized_count(heap);
    for (size_t k = first_at_least(heap, sized, size); k < sized; ++k) {
        if (!empty_check || index[k].freelist->blocks.head != nullptr) {
            return index[k].freelist;
        }
    }
    return index[sized < HEAP_FREELIST_MAX ? sized : HEAP_FREELIST_MAX - 1].freelist;
}

u_int32_t heap_best_fit_freelist_size(heap_t* heap, size_t size) {
    heap_freelist_t* list = heap_freelist_find_by_size(heap, size, FALSE);
    return static_cast<u_int32_t>(list->size != 0 ? list->size : size);
}

heap_freelist_t* heap_freelist_find_by_id(heap_t* heap, heap_freelist_id_t id, boolean active_check) {
    if (heap == nullptr || id >= HEAP_FREELIST_MAX) {
        return nullptr;
    }
    heap_freelist_t* list = &heap->freelist_table[id];
    if (active_check && !list->active) {
        return nullptr;
    }
    return list;
}

}  // extern "C"
