// Size-class free lists: making them, the exported searches, and the cold
// paths of putting blocks on them (the hot operations are in
// priv_freelist.h).
#include <syslog.h>

#include "kdebug.h"
#include "llist.h"
#include "priv_freelist.h"

namespace corvex::heap {

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
    freelist_bits_rebuild(heap);
}

}  // namespace

void heap_freelist_enqueue_refused(heap_t* heap, heap_block_t* block) {
    heap_bp_failure();
    heap_block_log(LOG_ERR, heap, block);
    traceback("HEAP: Tried to enqueue alloc'd block");
}

void heap_freelist_unplaced(heap_block_t* block) {
    syslog(LOG_ERR, "HEAP: Failed to find freelist for block %p (%u bytes)\n", static_cast<void*>(block),
           static_cast<unsigned>(block->size));
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
    heap_invariants_check(heap);
    return 0;
}

heap_freelist_t* heap_freelist_find_by_size(heap_t* heap, size_t size, boolean empty_check) {
    return freelist_search(heap, list_index_of(heap), size, empty_check);
}

u_int32_t heap_best_fit_freelist_size(heap_t* heap, size_t size) {
    heap_freelist_t* list = heap_freelist_find_by_size(heap, size, FALSE);
    return static_cast<u_int32_t>(list->size != 0 ? list->size : size);
}

heap_freelist_t* heap_freelist_find_by_id(heap_t* heap, heap_freelist_id_t id, boolean active_check) {
    if (heap == nullptr || id >= HEAP_FREELIST_MAX) {
        return nullptr;
    }
    return active_check ? active_freelist(heap, id) : &heap->freelist_table[id];
}

}  // extern "C"
