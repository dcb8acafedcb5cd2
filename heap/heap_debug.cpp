// Block hooks with their defaults, and the debug switches of a heap.
#include <cstring>

#include "priv_heap.h"

namespace corvex::heap {

// Sixteen bytes a store once the pointer is aligned to them.
CORVEX_VECTOR_TARGET void heap_fill_words_vector(u_int32_t* word, size_t words) {
    for (; words > 0 && reinterpret_cast<uintptr_t>(word) % 16 != 0; --words) {
        *word++ = HEAP_FREE_FILL;
    }
    const corvex::u32x4 fill = {HEAP_FREE_FILL, HEAP_FREE_FILL, HEAP_FREE_FILL, HEAP_FREE_FILL};
    auto* vector = reinterpret_cast<corvex::u32x4*>(word);
    size_t i = 0;
    for (; i + 4 <= words / 4; i += 4) {
        vector[i] = fill;
        vector[i + 1] = fill;
        vector[i + 2] = fill;
        vector[i + 3] = fill;
    }
    for (; i < words / 4; ++i) {
        vector[i] = fill;
    }
    heap_fill_words(word + 4 * i, words % 4);
}

}  // namespace corvex::heap

using namespace corvex::heap;

extern "C" {

// Poisons released data so that a stale pointer reads 0xDEADBEEF. Only
// whole 32-bit words are written: trailing bytes of an odd-sized last
// block stay as they are.
void heap_block_post_free(void* p, size_t size) { heap_fill_released(p, size); }

// Marks the header a merge swallowed, so a stale pointer to it fails
// validation instead of freeing into the middle of a block.
void heap_block_post_coalesce(void* p, size_t /*size*/, size_t old_size) { heap_mark_swallowed(p, old_size); }

void heap_block_pre_alloc(void* /*p*/, size_t /*size*/) {}

void heap_own_post_free(void* p, size_t size) __attribute__((alias("heap_block_post_free")));
void heap_own_post_coalesce(void* p, size_t size, size_t old_size) __attribute__((alias("heap_block_post_coalesce")));
void heap_own_pre_alloc(void* p, size_t size) __attribute__((alias("heap_block_pre_alloc")));

void heap_get_default_debug_proc(heap_debug_proc_t* debug_proc) {
    if (debug_proc == nullptr) {
        return;
    }
    debug_proc->post_free = heap_block_post_free;
    debug_proc->post_coalesce = heap_block_post_coalesce;
    debug_proc->pre_alloc = heap_block_pre_alloc;
}

void heap_get_debug_proc(heap_t* heap, heap_debug_proc_t* debug_proc) {
    if (heap == nullptr || debug_proc == nullptr) {
        return;
    }
    *debug_proc = heap->debug_proc;
}

// Hooks run inside allocation and release without a check, so a null
// pointer is replaced by the default hook rather than stored.
void heap_set_debug_proc(heap_t* heap, heap_debug_proc_t* debug_proc) {
    if (heap == nullptr || debug_proc == nullptr) {
        return;
    }
    heap_debug_proc_t defaults;
    heap_get_default_debug_proc(&defaults);
    heap->debug_proc.post_free = debug_proc->post_free ? debug_proc->post_free : defaults.post_free;
    heap->debug_proc.post_coalesce = debug_proc->post_coalesce ? debug_proc->post_coalesce : defaults.post_coalesce;
    heap->debug_proc.pre_alloc = debug_proc->pre_alloc ? debug_proc->pre_alloc : defaults.pre_alloc;
}

void heap_set_debug_flag(heap_t* heap, u_int32_t flag, boolean on_off) {
    if (heap == nullptr) {
        return;
    }
    if (on_off) {
        heap->debug_flags |= flag;
    } else {
        heap->debug_flags &= ~flag;
    }
}

void heap_enable_debug(heap_t* heap) {
    if (!heap_valid(heap)) {
        heap_bad_heap_panic(heap);
    }
    heap->debug_enabled = TRUE;
}

void heap_disable_debug(heap_t* heap) {
    if (!heap_valid(heap)) {
        heap_bad_heap_panic(heap);
    }
    heap->debug_enabled = FALSE;
}

boolean heap_is_debug_enabled(heap_t* heap) {
    if (!heap_valid(heap)) {
        heap_bp_failure();
        return FALSE;
    }
    return heap->debug_enabled ? TRUE : FALSE;
}

void* heap_get_pc(void* raw_block) {
    heap_block_t* block = block_of(raw_block);
    return block->header.allocated ? block->x.alloc.allocator.pc : nullptr;
}

}  // extern "C"
