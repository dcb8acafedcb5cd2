// Builds made with CORVEX_INVARIANTS assert the heap's invariants after its
// operations: books that no longer match the blocks stop the next one (a
// list creation, which touches no block), by the invariant's words.
#include "heap_fixture.h"

using namespace heap_test;

namespace {

struct Breach {
    const char* invariant;
    void (*make)(heap_t* heap, heap_block_t* freed, heap_block_t* held);
};

const Breach kBreaches[] = {
    {"free bytes equal what a walk finds", [](heap_t* h, heap_block_t*, heap_block_t*) { h->free_bytes += 8; }},
    {"list free bytes equal what a walk finds",
     [](heap_t* h, heap_block_t* f, heap_block_t*) { h->freelist_table[f->freelist_id].free_bytes -= 8; }},
    {"list counts equal what a walk finds",
     [](heap_t* h, heap_block_t* f, heap_block_t*) { h->freelist_table[f->freelist_id].blocks.item_count++; }},
    {"every free block is on the list its size selects",
     [](heap_t* h, heap_block_t* f, heap_block_t*) { f->freelist_id = heap_freelist_find_by_size(h, 128, FALSE)->id; }},
    {"no two free blocks are adjacent",
     [](heap_t*, heap_block_t*, heap_block_t* b) { b->header.allocated = b->header.refcount = 0; }},
    {"largest_block is null or a free block on a list",
     [](heap_t* h, heap_block_t*, heap_block_t* b) { h->largest_block = b; }},
};

TEST(HeapInvariants, BrokenBooksStopTheNextOperation) {
#if !defined(CORVEX_INVARIANTS)
    GTEST_SKIP() << "built without CORVEX_INVARIANTS";
#endif
    for (const Breach& breach : kBreaches) {
        heap_t* heap = make_heap(65536);
        void* freed = heap_malloc(heap, 100);
        void* held = heap_malloc(heap, 100);
        heap_free(heap, freed);  // a 104-byte block on the 96 list, between allocated ones
        breach.make(heap, hdr(freed), hdr(held));
        EXPECT_DEATH(heap_freelist_create(heap, 1540), breach.invariant);
    }
}

}  // namespace
