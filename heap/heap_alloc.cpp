// Handing out blocks: the class search, the bounded best-fit search of the
// default list, splitting, accounting and the debug trailer.
#include <cstring>
#include <syslog.h>

#include "kdebug.h"
#include "priv_freelist.h"

namespace corvex::heap {

namespace {

// Blocks examined on the default list after the first candidate.
constexpr int kDefaultListDepth = 32;

heap_block_t* default_list_best_fit(heap_freelist_t* list, size_t size) {
    heap_block_t* candidate = nullptr;
    int depth = kDefaultListDepth;
    for (list_item_t* link = list->blocks.head; link != nullptr; link = link->next) {
        heap_block_t* block = block_of_link(link);
        if (block->size >= size && (candidate == nullptr || block->size < candidate->size)) {
            candidate = block;
            if (block->size <= size + kAlign) {
                break;
            }
        }
        if (candidate != nullptr && --depth < 0) {
            break;
        }
    }
    return candidate;
}

// A free block chosen for an allocation, and how to take it off its list.
// The taking waits until the split shows whether the fragment simply takes
// the block's place on the same list (heap_freelist_replace).
struct Found {
    heap_block_t* block;
    heap_freelist_t* list;
    bool on_list;  // still to be taken off `list`
    bool by_head;  // taken as the list's head (else by name)
};

[[gnu::always_inline]] inline void take_off(heap_t* heap, Found& found) {
    if (found.on_list) {
        heap_freelist_dequeue(heap, found.list, found.by_head ? nullptr : found.block);
        found.on_list = false;
    }
}

// The heap's trace (its debug flag) is on: never in a plain allocation.
template <bool kPlain>
bool tracing(const heap_t* heap) {
    return !kPlain && heap->debug;
}

// `index`: the heap's list_index_of.
template <bool kPlain>
[[gnu::always_inline]] inline Found heap_block_find(heap_t* heap, ListIndex index, size_t size) {
    if (tracing<kPlain>(heap)) {
        syslog(LOG_DEBUG, "%s: HEAP(%s): Looking for at least %d free bytes \n", "heap_block_find", heap->name,
               static_cast<int>(size));
    }
    heap_freelist_t* list = freelist_search(heap, index, size, TRUE);
    if (list->size != 0) {
        Found found{nullptr, list, false, true};
        // A head whose magic was overwritten goes to the list layer now
        // (which stops on it), as the taking always did.
        if (list_magic_valid(&list->blocks)) {
            found.block = block_of_link(list->blocks.head);
            found.on_list = found.block != nullptr;
        } else {
            found.block = heap_freelist_dequeue(heap, list, nullptr);
        }
        if (tracing<kPlain>(heap)) {
            syslog(LOG_DEBUG, "%s: HEAP(%s): Found free block - %p, %d bytes\n", "heap_block_find", heap->name,
                   static_cast<void*>(found.block), found.block ? static_cast<int>(found.block->size) : -1);
        }
        return found;
    }
    heap_block_t* block = default_list_best_fit(list, size);
    if (block == nullptr) {
        if (tracing<kPlain>(heap)) {
            syslog(LOG_DEBUG, "%s: HEAP(%s): Failed to find a %u byte block (available:%u)\n", "heap_block_find",
                   heap->name, static_cast<unsigned>(size), static_cast<unsigned>(heap->free_bytes));
        }
        return {nullptr, list, false, false};
    }
    // As above, a head whose magic was overwritten is reported now.
    const bool on_list = list_magic_valid(&list->blocks);
    if (!on_list) {
        heap_freelist_dequeue(heap, list, block);
    }
    if (tracing<kPlain>(heap)) {
        syslog(LOG_DEBUG, "%s: HEAP(%s): Found free block on default list - %p, %d bytes\n", "heap_block_find",
               heap->name, static_cast<void*>(block), static_cast<int>(block->size));
    }
    return {block, list, on_list, false};
}

// A free block's header and data must lie in the range before anything is
// cut from it or written into it; one that does not has a corrupted size.
// Gives the block's room: the bytes from its data to the end of the range.
[[gnu::always_inline]] inline size_t check_found_block(heap_t* heap, Found& found) {
    heap_block_t* block = found.block;
    if (!header_in_heap(heap, block) || !block_fits_heap(heap, block)) {
        take_off(heap, found);
        heap_block_extent_panic(heap, block);
    }
    return heap_end(heap) - reinterpret_cast<uintptr_t>(data_of(block));
}

// `index`: the heap's list_index_of; `room`: as check_found_block gave it.
template <bool kPlain>
[[gnu::always_inline]] inline void split_block(heap_t* heap, ListIndex index, Found& found, size_t rounded,
                                               size_t room) {
    heap_block_t* block = found.block;
    auto* fragment = reinterpret_cast<heap_block_t*>(data_of(block) + rounded);
    // The block after it, when a whole header of it lies in the range
    // (header_in_heap's rule worked out from what the check found: the
    // block's header is aligned, so the next one is when the size is).
    heap_block_t* old_next = nullptr;
    if (room - block->size >= kHeaderSize && block->size % alignof(heap_block_t) == 0) {
        old_next = reinterpret_cast<heap_block_t*>(data_of(block) + block->size);
    }
    fragment->size = block->size - kHeaderSize - rounded;
    heap_block_create(heap, fragment, block, nullptr);
    fragment->freelist_id = HEAP_FREELIST_NONE;
    heap_freelist_t* home = freelist_for_block(heap, index, fragment->size);
    const bool fifo = !kPlain && heap_lists_fifo(heap);
    // The block leaves its list with its size before the split.
    if (!(found.on_list && home == found.list && heap_freelist_replace(heap, home, block, fragment, fifo))) {
        take_off(heap, found);
        heap_freelist_enqueue(heap, home, fragment, fifo);
    }
    found.on_list = false;
    block->size = rounded;
    if (old_next != nullptr) {
        old_next->prev = fragment;
    }
    if (tracing<kPlain>(heap)) {
        syslog(LOG_DEBUG, "%s: HEAP(%s): Created %d byte fragment (%p) from %p\n", "heap_block_get", heap->name,
               static_cast<int>(fragment->size), static_cast<void*>(fragment), static_cast<void*>(block));
    }
    heap->stats.splits++;
}

void trailer_write(heap_block_t* block, void* callers_pc) {
    u_int8_t* trailer = trailer_of(block);
    std::memset(trailer, HEAP_TRAILER_FILL, HEAP_TRAILER_GUARD_BYTES);
    std::memcpy(trailer + HEAP_TRAILER_GUARD_BYTES, &callers_pc, sizeof callers_pc);
    block->header.debug = 1;
}

// The block-get steps on a valid heap, the lock held. A plain allocation
// (heap_alloc_is_plain) has no trace, no trailer, no per-caller count and
// no pre-allocation hook to call (the default does nothing).
template <bool kPlain>
[[gnu::always_inline]] inline void* heap_block_get_locked(heap_t* heap, size_t size, void* callers_pc) {
    size_t adjusted = size;
    bool fits = true;
    if (!kPlain && heap->debug_enabled) {
        fits = __builtin_add_overflow(size, kTrailerSize, &adjusted) == 0;
    }
    size_t rounded = kMinBlock;
    if (adjusted < kMinBlock) {
        adjusted = kMinBlock;
    } else if (fits) {
        fits = adjusted <= SIZE_MAX - (kAlign - 1);
        rounded = round_up8(adjusted);
    }
    const ListIndex index = list_index_of(heap);
    Found found{};
    if (fits) {
        if (tracing<kPlain>(heap)) {
            syslog(LOG_DEBUG, "%s: HEAP(%s): Looking for block size = %d, rounded size = %ld\n", "heap_block_get",
                   heap->name, static_cast<int>(adjusted), static_cast<long>(rounded));
        }
        found = heap_block_find<kPlain>(heap, index, rounded);
    }
    heap_block_t* block = found.block;
    if (block == nullptr) {
        heap->stats.failed_allocs++;
        return nullptr;
    }
    const size_t room = check_found_block(heap, found);
    if (tracing<kPlain>(heap)) {
        syslog(LOG_DEBUG, "%s: HEAP(%s): Found block size = %d, requested = %d\n", "heap_block_get", heap->name,
               static_cast<int>(block->size), static_cast<int>(adjusted));
    }
    if (block->size - rounded > kSplitExcess) {
        split_block<kPlain>(heap, index, found, rounded, room);
    } else {
        take_off(heap, found);
    }
    heap_block_create(heap, block, block->prev, callers_pc);
    // Taking it off its list left this mark; written again beside the
    // header's marks, the two take one store.
    block->freelist_id = HEAP_FREELIST_NONE;
    void* data = data_of(block);
    if constexpr (!kPlain) {
        heap->debug_proc.pre_alloc(data, usable_size(block));
    }
    heap->stats.allocs++;
    heap->free_bytes -= block->size + kHeaderSize;
    if (heap->free_bytes < heap->available_bytes_watermark) {
        heap->available_bytes_watermark = heap->free_bytes;
    }
    if (!kPlain && heap->debug_enabled) {
        trailer_write(block, callers_pc);
    }
    if constexpr (!kPlain) {
        heap_rates_note(heap, block, true);
    }
    heap_invariants_check(heap);
    return data;
}

[[gnu::always_inline]] inline void* heap_block_get(heap_t* heap, size_t size, void* callers_pc) {
    // A return address, never null: the block is stamped allocated.
    if (callers_pc == nullptr) {
        __builtin_unreachable();
    }
    GlbLockGuard lock(heap_lock(), kSource, __LINE__);
    if (!heap_valid(heap)) {
        heap_bad_heap_panic(heap);
    }
    if (heap_alloc_is_plain(heap)) {
        return heap_block_get_locked<true>(heap, size, callers_pc);
    }
    return heap_block_get_locked<false>(heap, size, callers_pc);
}

}  // namespace

}  // namespace corvex::heap

using namespace corvex::heap;

extern "C" {

// Not inlined: the caller's address is this call's return address.
__attribute__((noinline)) void* heap_malloc(heap_t* heap, size_t size) {
    if (heap == nullptr) {
        return kmalloc(size);
    }
    return heap_block_get(heap, size, __builtin_return_address(0));
}

__attribute__((noinline)) void* heap_zalloc(heap_t* heap, size_t size) {
    if (heap == nullptr) {
        return zalloc(size);
    }
    void* data = heap_block_get(heap, size, __builtin_return_address(0));
    if (data != nullptr) {
        std::memset(data, 0, size);
    }
    return data;
}

u_int32_t heap_block_size(void* raw_block) { return static_cast<u_int32_t>(usable_size(block_of(raw_block))); }

}  // extern "C"

