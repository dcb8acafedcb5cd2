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

heap_block_t* heap_block_find(heap_t* heap, size_t size) {
    const char* name = heap->name;
    if (heap->debug) {
        syslog(LOG_DEBUG, "%s: HEAP(%s): Looking for at least %d free bytes \n", "heap_block_find", name,
               static_cast<int>(size));
    }
    heap_freelist_t* list = freelist_search(heap, size, TRUE);
    if (list->size != 0) {
        heap_block_t* block = heap_freelist_dequeue(heap, list, nullptr);
        if (heap->debug) {
            syslog(LOG_DEBUG, "%s: HEAP(%s): Found free block - %p, %d bytes\n", "heap_block_find", name,
                   static_cast<void*>(block), block ? static_cast<int>(block->size) : -1);
        }
        return block;
    }
    heap_block_t* block = default_list_best_fit(list, size);
    if (block == nullptr) {
        if (heap->debug) {
            syslog(LOG_DEBUG, "%s: HEAP(%s): Failed to find a %u byte block (available:%u)\n", "heap_block_find",
                   name, static_cast<unsigned>(size), static_cast<unsigned>(heap->free_bytes));
        }
        return nullptr;
    }
    heap_freelist_dequeue(heap, list, block);
    if (heap->debug) {
        syslog(LOG_DEBUG, "%s: HEAP(%s): Found free block on default list - %p, %d bytes\n", "heap_block_find",
               name, static_cast<void*>(block), static_cast<int>(block->size));
    }
    return block;
}

// A free block's header and data must lie in the range before anything is
// cut from it or written into it; one that does not has a corrupted size.
void check_found_block(heap_t* heap, heap_block_t* block) {
    if (!header_in_heap(heap, block) || !block_fits_heap(heap, block)) {
        heap_block_extent_panic(heap, block);
    }
}

void split_block(heap_t* heap, heap_block_t* block, size_t rounded) {
    auto* fragment = reinterpret_cast<heap_block_t*>(data_of(block) + rounded);
    heap_block_t* old_next = next_header_in_heap(heap, block);
    fragment->size = block->size - kHeaderSize - rounded;
    block->size = rounded;
    heap_block_create(heap, fragment, block, nullptr);
    fragment->freelist_id = HEAP_FREELIST_NONE;
    heap_freelist_enqueue(heap, nullptr, fragment);
    if (old_next != nullptr) {
        old_next->prev = fragment;
    }
    if (heap->debug) {
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

}  // namespace

void* heap_block_get(heap_t* heap, size_t size, void* callers_pc) {
    GlbLockGuard lock(heap_lock(), kSource, __LINE__);
    if (!heap_valid(heap)) {
        heap_bad_heap_panic(heap);
    }
    size_t adjusted = size;
    bool fits = true;
    if (heap->debug_enabled) {
        fits = __builtin_add_overflow(size, kTrailerSize, &adjusted) == 0;
    }
    size_t rounded = kMinBlock;
    if (adjusted < kMinBlock) {
        adjusted = kMinBlock;
    } else if (fits) {
        fits = adjusted <= SIZE_MAX - (kAlign - 1);
        rounded = round_up8(adjusted);
    }
    heap_block_t* block = nullptr;
    if (fits) {
        if (heap->debug) {
            syslog(LOG_DEBUG, "%s: HEAP(%s): Looking for block size = %d, rounded size = %ld\n", "heap_block_get",
                   heap->name, static_cast<int>(adjusted), static_cast<long>(rounded));
        }
        block = heap_block_find(heap, rounded);
    }
    if (block == nullptr) {
        heap->stats.failed_allocs++;
        return nullptr;
    }
    check_found_block(heap, block);
    if (heap->debug) {
        syslog(LOG_DEBUG, "%s: HEAP(%s): Found block size = %d, requested = %d\n", "heap_block_get", heap->name,
               static_cast<int>(block->size), static_cast<int>(adjusted));
    }
    if (block->size - rounded > kSplitExcess) {
        split_block(heap, block, rounded);
    }
    heap_block_create(heap, block, block->prev, callers_pc);
    void* data = data_of(block);
    heap->debug_proc.pre_alloc(data, usable_size(block));
    heap->stats.allocs++;
    heap->free_bytes -= block->size + kHeaderSize;
    if (heap->free_bytes < heap->available_bytes_watermark) {
        heap->available_bytes_watermark = heap->free_bytes;
    }
    if (heap->debug_enabled) {
        trailer_write(block, callers_pc);
    }
    heap_rates_note(heap, block, true);
    heap_invariants_check(heap);
    return data;
}

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

