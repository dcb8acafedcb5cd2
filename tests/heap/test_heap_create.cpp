// Heap creation, the starting free lists and adding lists.
#include "heap_fixture.h"

using namespace heap_test;

TEST(HeapCreate, SmokeAllocFree) {
    heap_t* heap = make_heap(1 << 20);
    expect_whole(heap);
    void* p = heap_malloc(heap, 100);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(hdr(p)->size, 104u);
    heap_free(heap, p);
    expect_whole(heap);
}
