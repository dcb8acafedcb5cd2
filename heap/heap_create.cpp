// Heap creation, the registry of heaps and the self-test every new heap
// undergoes.
#include <cstdlib>
#include <cstring>
#include <syslog.h>

#include "llist.h"
#include "priv_freelist.h"

extern "C" {
list_t heap_list;
heap_id_t heap_id;
u_int32_t heap_version_prev_fix;
pthread_mutex_t heap_alloc_glb_lock = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
const char* heap_alloc_glb_lock_filname;
int heap_alloc_glb_lock_line;
}

namespace corvex::heap {

namespace {

int heap_list_init_done;

constexpr u_int32_t heap_freelist_size_table[kStartingLists] = {
    0, 16, 24, 36, 48, 64, 80, 96, 128, 256, 512, 1024, 2048, 4096, 32768};

constexpr int kSelfTestBlocks = 2048;
constexpr int kSelfTestMaxRequest = 32785;

// Creation under the global lock. Ranges too small for one header and a
// minimum block (or inverted) are refused before anything is written: the
// record then manages no bytes, so no later operation touches the range.
status_t heap_create_internal(heap_t* heap, uintptr_t first, uintptr_t last, char* name, boolean interrupt_safe) {
    CORVEX_ASSERT(heap != nullptr, "heap != ((void *)0)", kSource);
    std::memset(static_cast<void*>(heap), 0, sizeof *heap);
    heap->magic = HEAP_MAGIC;
    heap->name = name;
    heap->interrupt_safe = interrupt_safe;
    heap->debug_enabled = FALSE;
    heap->base = (first + (kAlign - 1)) & ~static_cast<uintptr_t>(kAlign - 1);
    heap->size = last - heap->base;
    heap->largest_block = nullptr;
    list_init("Freelist", 0, &heap->freelist);
    for (u_int32_t size : heap_freelist_size_table) {
        heap_freelist_create(heap, size);
    }

    if (heap->base < first || last < heap->base || last - heap->base < kSplitExcess) {
        syslog(LOG_ERR, "HEAP: range %p - %p of heap %s is too small\n", reinterpret_cast<void*>(first),
               reinterpret_cast<void*>(last), name ? name : "");
        heap->size = 0;
        return 1000;
    }

    auto* block = reinterpret_cast<heap_block_t*>(heap->base);
    // Read back through a volatile access: the point is to touch the memory.
    auto* probe = reinterpret_cast<volatile size_t*>(&block->size);
    *probe = heap->size - kHeaderSize;
    size_t read_back = *probe;
    if (read_back != heap->size - kHeaderSize) {
        syslog(LOG_ERR, "heap: memory is not accesable, expected 0x%x, but got 0x%x\n",
               static_cast<unsigned>(heap->size - kHeaderSize), static_cast<unsigned>(read_back));
        return 1000;
    }
    heap_block_create(heap, block, nullptr, nullptr);
    block->freelist_id = HEAP_FREELIST_NONE;
    heap_freelist_enqueue(heap, nullptr, block, heap_lists_fifo(heap));
    heap->free_bytes = heap->available_bytes_watermark = block->size + kHeaderSize;

    if (!heap_list_init_done) {
        list_init("Heaps", kHeapLinkOffset, &heap_list);
        heap_list_init_done = 1;
    }
    heap->id = heap_list.item_count;
    list_append(&heap_list, &heap->links);
    freelist_bits_attach(heap);
    heap_get_default_debug_proc(&heap->debug_proc);
    heap_invariants_check(heap);
    return 0;
}

// Exercises allocation, release and merging through the public entry
// points; every block goes back, so the heap ends as one free block.
void heap_unit_test(heap_t* heap) {
    auto** table = static_cast<void**>(heap_zalloc(heap, kSelfTestBlocks * sizeof(void*)));
    if (table == nullptr) {
        return;
    }
    for (int i = 0; i < kSelfTestBlocks; ++i) {
        size_t n = static_cast<size_t>(rand() % kSelfTestMaxRequest);
        if (n == 0) {
            n = 1;
        }
        table[i] = heap_malloc(heap, n);
        if (table[i] != nullptr) {
            std::memset(table[i], HEAP_SELF_TEST_FILL, n);
        }
    }
    for (int i = 0; i < kSelfTestBlocks; ++i) {
        if (table[i] != nullptr) {
            heap_free(heap, table[i]);
        }
    }
    heap_free(heap, table);
}

}  // namespace

bool heap_is_registered(const heap_t* heap) {
    if (!heap_list_init_done || heap == nullptr) {
        return false;
    }
    for (auto* h = static_cast<heap_t*>(list_get_head(&heap_list)); h != nullptr;
         h = static_cast<heap_t*>(list_get_next(&heap_list, h))) {
        if (h == heap) {
            return true;
        }
    }
    return false;
}

bool heap_registry_exists() { return heap_list_init_done != 0; }

// A registered record whose magic was overwritten still owns its range:
// the block is then in a corrupted heap, not in no heap. A sound heap
// covering the address wins over such a record.
heap_t* heap_registered_owner(const void* addr) {
    if (!heap_list_init_done) {
        return nullptr;
    }
    heap_t* corrupted = nullptr;
    for (auto* h = static_cast<heap_t*>(list_get_head(&heap_list)); h != nullptr;
         h = static_cast<heap_t*>(list_get_next(&heap_list, h))) {
        if (header_in_heap(h, addr)) {
            if (heap_valid(h)) {
                return h;
            }
            corrupted = corrupted != nullptr ? corrupted : h;
        }
    }
    return corrupted;
}

}  // namespace corvex::heap

using namespace corvex::heap;

extern "C" {

status_t heap_create(heap_t* heap, uintptr_t first, uintptr_t last, char* name) {
    status_t status;
    {
        corvex::GlbLockGuard lock(heap_lock(), kSource, __LINE__);
        status = heap_create_internal(heap, first, last, name, FALSE);
    }
    if (status == 0) {
        heap_unit_test(heap);
    }
    return status;
}

heap_t* heap_find_by_id(u_int32_t id) {
    for (auto* h = static_cast<heap_t*>(list_get_head(&heap_list)); h != nullptr;
         h = static_cast<heap_t*>(list_get_next(&heap_list, h))) {
        if (h->id == id) {
            return h;
        }
    }
    return nullptr;
}

}  // extern "C"
