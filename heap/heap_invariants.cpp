// The heap's invariants, as written at heap_t in heap.h, asserted after the
// operations that change a heap in builds made with CORVEX_INVARIANTS. Each
// assertion carries the invariant's words; a heap that a caller corrupted
// on purpose is caught by the operations' own checks before these run.
#include "priv_freelist.h"

#if CORVEX_INVARIANTS

namespace corvex::heap {

namespace {

InvariantPaces<heap_t> paces;
// An operation that reported a heap failure (heap_bp_failure) leaves the
// heap as the failure found it: that operation is not checked.
u_int32_t failures_seen;

// What a walk of the blocks finds, list by list.
struct Census {
    u_int32_t blocks[HEAP_FREELIST_MAX] = {};
    size_t bytes[HEAP_FREELIST_MAX] = {};
    size_t free_bytes = 0;
    u_int32_t visited = 0;
};

#define REQUIRE(condition, invariant) CORVEX_ASSERT(condition, invariant, kSource)

// A heap with lists added after creation may keep blocks on the coarser
// list that selected them before: they are at least that list's size.
bool placed_by_size(heap_t* heap, heap_freelist_t* list, size_t size) {
    if (list == freelist_for_block(heap, list_index_of(heap), size)) {
        return true;
    }
    return heap->freelist.item_count > kStartingLists && (list->size == 0 || list->size <= size);
}

void blocks_walk(heap_t* heap, Census& census) {
    heap_block_t* previous = nullptr;
    bool previous_free = false;
    auto* block = reinterpret_cast<heap_block_t*>(heap->base);
    for (;;) {
        REQUIRE(header_in_heap(heap, block) && block_fits_heap(heap, block), "blocks tile the range");
        REQUIRE(block->prev == previous, "prev names the physically preceding block");
        ++census.visited;
        const bool is_free = block->header.allocated == 0;
        if (is_free) {
            REQUIRE(!previous_free, "no two free blocks are adjacent");
            heap_freelist_t* list = active_freelist(heap, static_cast<heap_freelist_id_t>(block->freelist_id));
            REQUIRE(list != nullptr && placed_by_size(heap, list, block->size),
                    "every free block is on the list its size selects");
            census.blocks[list->id]++;
            census.bytes[list->id] += block->size + kHeaderSize;
            census.free_bytes += block->size + kHeaderSize;
        } else {
            REQUIRE(block->freelist_id == HEAP_FREELIST_NONE, "an allocated block is on no list");
        }
        heap_block_t* next = next_block_addr(heap, block);
        if (next == nullptr) {
            REQUIRE(reinterpret_cast<uintptr_t>(data_of(block)) + block->size == heap_end(heap),
                    "blocks tile the range");
            return;
        }
        previous = block;
        previous_free = is_free;
        block = next;
    }
}

void lists_walk(heap_t* heap, const Census& census, u_int32_t& visited) {
    size_t k = 0;
    size_t previous_size = 0;
    for (auto* list = reinterpret_cast<heap_freelist_t*>(heap->freelist.head); list != nullptr;
         list = reinterpret_cast<heap_freelist_t*>(list->links.next), ++k) {
        REQUIRE(k < HEAP_FREELIST_MAX && heap->freelist_size[k].freelist == list &&
                    heap->freelist_size[k].size == list->size && (list->size == 0 || list->size > previous_size) &&
                    (list->size != 0 || list->links.next == nullptr),
                "the index mirrors the lists");
        previous_size = list->size;
        u_int32_t members = 0;
        const list_item_t* before = nullptr;
        for (list_item_t* link = list->blocks.head; link != nullptr && members <= census.blocks[list->id];
             link = link->next, ++members) {
            heap_block_t* block = block_of_link(link);
            REQUIRE(link->prev == before && header_in_heap(heap, block) && block->header.allocated == 0 &&
                        block->freelist_id == list->id,
                    "a list's blocks are free and carry its id");
            before = link;
        }
        REQUIRE(members == census.blocks[list->id] && list->blocks.item_count == members &&
                    list->blocks.tail == before,
                "list counts equal what a walk finds");
        REQUIRE(list->free_bytes == census.bytes[list->id], "list free bytes equal what a walk finds");
        visited += members;
    }
}

}  // namespace

void heap_invariants_check(heap_t* heap) {
    // Held already by the changing operations; taken for list creation,
    // which may run beside allocations on a heap in use.
    GlbLockGuard lock(heap_lock(), kSource, __LINE__);
    InvariantPace& pace = paces.of(heap, heap->id);
    // Records that were never registered (a failed creation) are not heaps.
    const bool failure_reported = heap_bp_failure_count != failures_seen;
    failures_seen = heap_bp_failure_count;
    if (!pace.due() || failure_reported || !heap_is_registered(heap)) {
        return;
    }
    Census census;
    blocks_walk(heap, census);
    u_int32_t visited = census.visited;
    lists_walk(heap, census, visited);
    REQUIRE(heap->free_bytes == census.free_bytes, "free bytes equal what a walk finds");
    heap_block_t* largest = heap->largest_block;
    REQUIRE(largest == nullptr || (header_in_heap(heap, largest) && largest->header.allocated == 0 &&
                                   largest->freelist_id != HEAP_FREELIST_NONE),
            "largest_block is null or a free block on a list");
    pace.checked(visited);
}

}  // namespace corvex::heap

#endif  // CORVEX_INVARIANTS
