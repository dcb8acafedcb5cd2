// Walks over a heap's blocks and over one free list, and the plain queries.
#include <syslog.h>

#include "kdebug.h"
#include "priv_heap.h"

namespace corvex::heap {

namespace {

void report_bad_prev(heap_t* heap, heap_block_t* block, heap_block_t* previous) {
    syslog(LOG_ERR, "HEAP:\n");
    syslog(LOG_ERR, "HEAP:\n");
    syslog(LOG_ERR, "HEAP: Either Current block has bad prev pointer\n");
    syslog(LOG_ERR, "HEAP: Or Previous block has bad size\n");
    syslog(LOG_ERR, "HEAP: Current Heap Block: %p\n", static_cast<void*>(block));
    heap_block_log(LOG_ERR, heap, block);
    syslog(LOG_ERR, "HEAP:\n");
    syslog(LOG_ERR, "HEAP:\n");
    syslog(LOG_ERR, "HEAP: Previous Heap Block: %p\n", static_cast<void*>(previous));
    heap_block_log(LOG_ERR, heap, previous);
}

}  // namespace

}  // namespace corvex::heap

using namespace corvex::heap;

extern "C" {

status_t heap_walk(heap_t* heap, heap_walk_function_t walker, heap_walk_arg_t* arg) {
    if (arg == nullptr || heap == nullptr) {
        return 22;
    }
    if (heap->magic != HEAP_MAGIC) {
        if (arg->active) {
            panic("heap_check: Bad heap at %p", static_cast<void*>(heap));
        }
        return 22;
    }
    if (heap->base == 0) {
        return 1000;
    }
    heap_block_t* previous = nullptr;
    auto* block = reinterpret_cast<heap_block_t*>(heap->base);
    for (;;) {
        if (!header_in_heap(heap, block)) {
            return 1000;
        }
        if (status_t status = heap_block_validate(heap, block, arg->noisy, arg->active)) {
            return status;
        }
        if (previous != nullptr && block->prev != previous) {
            if (arg->noisy || arg->active) {
                report_bad_prev(heap, block, previous);
            }
            if (arg->active) {
                panic("HEAP: Bad prev pointer for block %p (%p != %p)\n", static_cast<void*>(block),
                      static_cast<void*>(block->prev), static_cast<void*>(previous));
            }
            return 1000;
        }
        if (walker != nullptr && !walker(heap, block, arg)) {
            return 1001;
        }
        if (status_t status = heap_block_validate(heap, block, FALSE, FALSE)) {
            return status;
        }
        heap_block_t* next = next_block_addr(heap, block);
        if (next == nullptr) {
            return 0;
        }
        previous = block;
        block = next;
    }
}

status_t heap_freelist_walk(heap_t* heap, heap_freelist_t* freelist, heap_walk_function_t walker,
                            heap_walk_arg_t* arg) {
    if (heap == nullptr || freelist == nullptr || arg == nullptr) {
        return 22;
    }
    for (list_item_t* link = freelist->blocks.head; link != nullptr; link = link->next) {
        heap_block_t* block = block_of_link(link);
        if (!header_in_heap(heap, block)) {
            return 1000;
        }
        if (status_t status = heap_block_validate(heap, block, arg->noisy, arg->active)) {
            return status;
        }
        if (walker != nullptr && !walker(heap, block, arg)) {
            return 1001;
        }
        if (heap_block_validate(heap, block, FALSE, FALSE) != 0 || block->header.allocated) {
            return 0;
        }
    }
    return 0;
}

size_t heap_size(heap_t* heap) { return heap->size; }

size_t heap_get_free_bytes(heap_t* heap) { return heap->free_bytes; }

u_int32_t heap_utilization(heap_t* heap) {
    if (heap->size < 100) {
        return 0;
    }
    return static_cast<u_int32_t>((heap->size - heap->free_bytes) / (heap->size / 100));
}

size_t heap_low_watermark_get(heap_t* heap) { return heap->low_watermark_bytes; }

status_t heap_low_watermark_set(heap_t* heap, size_t low_watermark_bytes) {
    if (heap == nullptr) {
        return 22;
    }
    heap->low_watermark_bytes = low_watermark_bytes;
    return 0;
}

boolean heap_low_watermark_check(heap_t* heap) { return heap->free_bytes > heap->low_watermark_bytes ? TRUE : FALSE; }

void heap_mem_params(heap_t* heap, uintptr_t* startp, uintptr_t* endp, uintptr_t* sizep) {
    if (startp != nullptr) {
        *startp = heap->base;
    }
    if (endp != nullptr) {
        *endp = heap->base + heap->size;
    }
    if (sizep != nullptr) {
        *sizep = heap->size;
    }
}

}  // extern "C"
