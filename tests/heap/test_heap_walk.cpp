// Heap and free-list walks, and the plain queries.
#include <functional>

#include "heap_fixture.h"

using namespace heap_test;
using corvex_test::syslog_clear;

namespace {

boolean collect(heap_t*, heap_block_t* block, heap_walk_arg_t* arg) {
    static_cast<std::vector<heap_block_t*>*>(arg->context)->push_back(block);
    arg->value++;
    return TRUE;
}

boolean stop_at_third(heap_t*, heap_block_t*, heap_walk_arg_t* arg) { return ++arg->value < 3 ? TRUE : FALSE; }

// Breaks the block it is shown, as a walker that changes the heap would.
boolean corrupt_visited(heap_t*, heap_block_t* block, heap_walk_arg_t*) {
    block->header.refcount = block->header.allocated ? 0 : 1;
    return TRUE;
}

// Runs `walk_once` with a walker that records what it is shown.
std::vector<heap_block_t*> visited(const std::function<status_t(heap_walk_arg_t*)>& walk_once) {
    std::vector<heap_block_t*> seen;
    heap_walk_arg_t arg{};
    arg.context = &seen;
    EXPECT_EQ(walk_once(&arg), 0);
    EXPECT_EQ(arg.value, seen.size());
    return seen;
}

}  // namespace

TEST(HeapWalk, VisitsEveryBlockInAddressOrderAndStops) {
    heap_t* heap = make_heap(65536);
    auto whole_walk = [&](heap_walk_arg_t* arg) { return heap_walk(heap, collect, arg); };
    EXPECT_EQ(visited(whole_walk), std::vector<heap_block_t*>{first_block(heap)});
    std::vector<void*> p;
    for (size_t n : {16, 32, 48, 64, 80}) p.push_back(heap_malloc(heap, n));
    heap_free(heap, p[1]);
    auto seen = visited(whole_walk);
    EXPECT_EQ(seen, blocks(heap));
    EXPECT_EQ(seen.size(), 6u);
    heap_walk_arg_t arg{};
    EXPECT_EQ(heap_walk(heap, stop_at_third, &arg), 1001);
    EXPECT_EQ(arg.value, 3u);
    EXPECT_EQ(heap_walk(nullptr, nullptr, &arg), 22);
    EXPECT_EQ(heap_walk(heap, nullptr, nullptr), 22);
    // A walker that breaks the block it is shown: the quiet re-check reports it.
    syslog_clear();
    EXPECT_EQ(walk(heap, corrupt_visited), 1000);
    EXPECT_TRUE(log_texts().empty());
}

TEST(HeapWalk, BadHeapsAndBadPrevChains) {
    heap_t never{};
    heap_walk_arg_t active{};
    active.active = TRUE;
    EXPECT_EQ(walk(&never), 22);
    EXPECT_LOGGED_DEATH(heap_walk(&never, nullptr, &active), "heap_check: Bad heap at 0x");
    heap_t* heap = make_heap(65536);
    void* a = heap_malloc(heap, 64);
    void* b = heap_malloc(heap, 64);
    void* c = heap_malloc(heap, 64);
    hdr(c)->prev = hdr(a);  // a live block, but not the one before
    std::vector<std::string> expected = {"HEAP:\n", "HEAP:\n", "HEAP: Either Current block has bad prev pointer\n",
                                         "HEAP: Or Previous block has bad size\n",
                                         fmt("HEAP: Current Heap Block: %p\n", static_cast<void*>(hdr(c)))};
    append(expected, block_log_of(heap, hdr(c)));
    append(expected, framed_log(heap, "Previous Heap Block", hdr(b)));
    heap_walk_arg_t noisy{};
    noisy.noisy = TRUE;
    syslog_clear();
    EXPECT_EQ(heap_walk(heap, nullptr, &noisy), 1000);
    EXPECT_EQ(log_texts(), expected);
    syslog_clear();
    EXPECT_EQ(walk(heap), 1000);
    EXPECT_TRUE(log_texts().empty());
    // The child runs the test afresh, so its addresses are its own.
    EXPECT_LOGGED_DEATH(heap_walk(heap, nullptr, &active),
        "HEAP: Either Current block has bad prev pointer(.|\n)*"
        "HEAP: Bad prev pointer for block 0x[0-9a-f]+ \\(0x[0-9a-f]+ != 0x[0-9a-f]+\\)");
    hdr(c)->prev = hdr(b);
    EXPECT_EQ(walk(heap), 0);
    // A size that leaves a next header no room before the end of the range.
    size_t saved = hdr(c)->size;
    hdr(c)->size = heap->size - (reinterpret_cast<uintptr_t>(c) - heap->base) - 8;
    EXPECT_EQ(walk(heap), 1000);
    hdr(c)->size = saved;
    // A record whose base is 0.
    heap_t empty{};
    empty.magic = 0xCACAD000;
    EXPECT_EQ(walk(&empty), 1000);
}

TEST(HeapFreelistWalk, ListOrderStopsAndFailures) {
    heap_t* heap = make_heap(65536);
    std::vector<void*> p;
    for (int i = 0; i < 4; ++i) {
        p.push_back(heap_malloc(heap, 64));
        heap_malloc(heap, 16);
    }
    heap_freelist_t* list64 = heap_freelist_find_by_size(heap, 64, FALSE);
    auto list_walk = [&](heap_walk_arg_t* arg) { return heap_freelist_walk(heap, list64, collect, arg); };
    EXPECT_TRUE(visited(list_walk).empty());
    for (void* q : p) heap_free(heap, q);
    EXPECT_EQ(visited(list_walk), (std::vector<heap_block_t*>{hdr(p[3]), hdr(p[2]), hdr(p[1]), hdr(p[0])}));
    heap_walk_arg_t arg{};
    EXPECT_EQ(heap_freelist_walk(heap, list64, stop_at_third, &arg), 1001);
    EXPECT_EQ(arg.value, 3u);
    EXPECT_EQ(heap_freelist_walk(nullptr, list64, nullptr, &arg), 22);
    EXPECT_EQ(heap_freelist_walk(heap, nullptr, nullptr, &arg), 22);
    EXPECT_EQ(heap_freelist_walk(heap, list64, nullptr, nullptr), 22);
    // A walker that breaks the block ends the walk with 0 after one call.
    EXPECT_EQ(heap_freelist_walk(heap, list64, corrupt_visited, &arg), 0);
    EXPECT_EQ(hdr(p[3])->header.refcount, 1u);
    EXPECT_EQ(heap_freelist_walk(heap, list64, nullptr, &arg), 1000);
    hdr(p[3])->header.refcount = 0;
    // A link that leads out of the range.
    static heap_block_t outside;
    list_item_t* saved = list64->blocks.head;
    list64->blocks.head = &outside.x.free.links;
    EXPECT_EQ(heap_freelist_walk(heap, list64, nullptr, &arg), 1000);
    list64->blocks.head = saved;
    EXPECT_EQ(heap_freelist_walk(heap, list64, nullptr, &arg), 0);
}

TEST(HeapQueries, SizesWatermarksAndUtilisation) {
    heap_t* heap = make_heap(65536);
    EXPECT_EQ(heap_size(heap), 65536u);
    EXPECT_EQ(heap_utilization(heap), 0u);
    void* p = heap_malloc(heap, 32768 - kHdr);
    EXPECT_EQ(heap_get_free_bytes(heap), 32768u);
    EXPECT_EQ(heap_utilization(heap), 32768u / 655u);
    heap_free(heap, p);
    heap_t shape{};
    shape.size = 150;
    EXPECT_EQ(heap_utilization(&shape), 150u);
    shape.size = 50;
    EXPECT_EQ(heap_utilization(&shape), 0u);
    EXPECT_EQ(heap_low_watermark_get(heap), 0u);
    EXPECT_EQ(heap_low_watermark_check(heap), TRUE);
    EXPECT_EQ(heap_low_watermark_set(nullptr, 5), 22);
    EXPECT_EQ(heap_low_watermark_set(heap, 65536), 0);
    EXPECT_EQ(heap_low_watermark_get(heap), 65536u);
    EXPECT_EQ(heap_low_watermark_check(heap), FALSE);
    EXPECT_EQ(heap_low_watermark_set(heap, 65535), 0);
    EXPECT_EQ(heap_low_watermark_check(heap), TRUE);
    uintptr_t start = 1, end = 1, size = 1;
    heap_mem_params(heap, nullptr, &end, nullptr);
    EXPECT_EQ(end, heap->base + 65536);
    heap_mem_params(heap, &start, nullptr, &size);
    EXPECT_EQ(start + size, end);
}
