// Heap creation, the record and header formats, the starting free lists,
// adding lists and the class search.
#include <cstddef>

#include "heap_fixture.h"

using namespace heap_test;

namespace {

std::vector<size_t> index_sizes(heap_t* heap) {
    std::vector<size_t> sizes;
    for (int k = 0; k < HEAP_FREELIST_MAX && heap->freelist_size[k].freelist != nullptr; ++k) {
        sizes.push_back(heap->freelist_size[k].size);
    }
    return sizes;
}

// The ordered registry of lists and the index agree entry by entry.
void expect_index_mirrors_list(heap_t* heap) {
    int k = 0;
    for (list_item_t* link = heap->freelist.head; link != nullptr; link = link->next, ++k) {
        auto* list = reinterpret_cast<heap_freelist_t*>(link);
        EXPECT_EQ(heap->freelist_size[k].freelist, list);
        EXPECT_EQ(heap->freelist_size[k].size, list->size);
    }
    for (; k < HEAP_FREELIST_MAX; ++k) EXPECT_EQ(heap->freelist_size[k].freelist, nullptr);
}

const std::vector<size_t> kStartSizes = {16, 24, 40, 48, 64, 80, 96, 128, 256, 512, 1024, 2048, 4096, 32768, 0};

}  // namespace

TEST(HeapFormat, RecordAndHeaderLayout) {
    EXPECT_EQ(offsetof(heap_block_t, prev), 0u);
    EXPECT_EQ(offsetof(heap_block_t, x), sizeof(void*));
    EXPECT_EQ(offsetof(heap_block_t, x.alloc.heap), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(heap_block_t, size), 3 * sizeof(void*));
    EXPECT_EQ(offsetof(heap_block_t, header), offsetof(heap_block_t, size) + sizeof(size_t) + 4);
    EXPECT_EQ(offsetof(heap_block_t, data), kHdr);
    EXPECT_EQ(sizeof(small_node_header_t), 4u);
#if UINTPTR_MAX == 0xffffffffu
    EXPECT_EQ(kHdr, 24u);
    EXPECT_EQ(offsetof(heap_t, links), 4u);
    EXPECT_EQ(offsetof(heap_freelist_t, blocks), 12u);
#endif
}

TEST(HeapCreate, FreshHeapIsOneFreeBlockOnTheDefaultList) {
    heap_t* heap = make_heap(1 << 20, "fresh");
    EXPECT_EQ(heap->magic, 0xCACAD000u);
    EXPECT_STREQ(heap->name, "fresh");
    EXPECT_EQ(heap->size, 1u << 20);
    expect_whole(heap);
    heap_block_t* block = first_block(heap);
    EXPECT_EQ(block->prev, nullptr);
    EXPECT_EQ(block->magic, 0x0EC0EDu);
    EXPECT_EQ(word(block), 0xFFE40000u);  // free: only the offset mark
    EXPECT_EQ(block->freelist_id, 0u);
    heap_freelist_t* deflt = &heap->freelist_table[0];
    EXPECT_EQ(deflt->blocks.item_count, 1u);
    EXPECT_EQ(reinterpret_cast<char*>(deflt->blocks.head), reinterpret_cast<char*>(block) + sizeof(void*));
    EXPECT_EQ(heap->largest_block, block);
    // The self-test has run: its traffic is counted and everything is back.
    EXPECT_GT(heap->stats.splits, 0u);
    EXPECT_EQ(heap->stats.allocs, heap->stats.frees);
    EXPECT_LT(heap->available_bytes_watermark, heap->size);
}

TEST(HeapCreate, RangeEdges) {
    // A misaligned start loses the bytes below the next multiple of 8.
    heap_t* odd = new_record();
    char* range = make_range(65536, 3);
    ASSERT_EQ(create(odd, range, 65536, "odd"), 0);
    EXPECT_EQ(odd->base, reinterpret_cast<uintptr_t>(range) + 5);
    EXPECT_EQ(odd->size, 65536u - 5);
    expect_whole(odd);
    // Too small or inverted: refused without touching the range.
    heap_t* heap = new_record();
    range = make_range(64);
    std::memset(range, 0x5A, 64);
    auto first = reinterpret_cast<uintptr_t>(range);
    EXPECT_EQ(create(heap, range, kHdr + 15, "tiny"), 1000);
    EXPECT_EQ(heap_create(heap, first + 32, first, const_cast<char*>("inverted")), 1000);
    for (int i = 0; i < 64; ++i) ASSERT_EQ(static_cast<unsigned char>(range[i]), 0x5A);
    EXPECT_EQ(heap_malloc(heap, 1), nullptr);
    EXPECT_EQ(walk(heap), 1000);
    // The smallest usable range: one header and a 16-byte block.
    ASSERT_EQ(create(heap, range, kHdr + 16, "smallest"), 0);
    void* p = heap_malloc(heap, 16);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(heap_malloc(heap, 1), nullptr);
    heap_free(heap, p);
    expect_whole(heap);
}

TEST(HeapCreate, RegistryNumbersAndLookup) {
    heap_t* a = make_heap(65536, "a");
    heap_t* b = make_heap(65536, "b");
    EXPECT_EQ(b->id, a->id + 1);
    EXPECT_EQ(heap_find_by_id(a->id), a);
    EXPECT_EQ(heap_find_by_id(b->id + 1), nullptr);
    EXPECT_EQ(heap_find_by_id(0), reinterpret_cast<heap_t*>(reinterpret_cast<char*>(heap_list.head) -
                                                           offsetof(heap_t, links)));
    EXPECT_EQ(heap_list.offset, offsetof(heap_t, links));
    EXPECT_STREQ(heap_list.name, "Heaps");
    EXPECT_STREQ(heap_alloc_glb_lock_filname, "heap/heap");
}

TEST(HeapCreate, BadRecordsAreRefusedOrFatal) {
    EXPECT_DEATH(heap_create(nullptr, 0x1000, 0x2000, nullptr), "heap/heap.*heap != \\(\\(void \\*\\)0\\)");
    // The global records are bad heaps until created.
    EXPECT_EQ(walk(&bcm_sdk_heap), 22);
    u_int32_t failures = heap_bp_failure_count;
    EXPECT_EQ(heap_is_debug_enabled(&dma_desc_heap), FALSE);
    EXPECT_EQ(heap_bp_failure_count, failures + 1);
    EXPECT_LOGGED_DEATH(heap_malloc(&bcm_sdk_heap, 10), "Heap corruption at 0x");
    EXPECT_LOGGED_DEATH(heap_enable_debug(&io_mem_heap), "Heap corruption at 0x");
    EXPECT_LOGGED_DEATH(heap_disable_debug(nullptr), "Heap corruption at 0x");
}

TEST(HeapFreelist, StartingListsAndLookupById) {
    heap_t* heap = make_heap(65536);
    EXPECT_EQ(index_sizes(heap), kStartSizes);
    expect_index_mirrors_list(heap);
    EXPECT_EQ(heap->freelist_table[14].size, 32768u);
    for (int id = 0; id < 15; ++id) {
        EXPECT_EQ(heap->freelist_table[id].id, id);
        EXPECT_EQ(heap->freelist_table[id].active, 1);
        EXPECT_STREQ(heap->freelist_table[id].blocks.name, "Freelist");
    }
    EXPECT_EQ(heap->freelist_table[15].active, 0);
    EXPECT_EQ(heap_freelist_find_by_id(heap, 32, FALSE), nullptr);
    EXPECT_EQ(heap_freelist_find_by_id(heap, 20, TRUE), nullptr);  // inactive
    EXPECT_EQ(heap_freelist_find_by_id(heap, 20, FALSE), &heap->freelist_table[20]);
    EXPECT_EQ(heap_freelist_find_by_id(nullptr, 3, FALSE), nullptr);
}

TEST(HeapFreelist, AddingListsKeepsOrderAndRefusesTheThirtyThird) {
    heap_t* heap = make_heap(65536);
    EXPECT_EQ(heap_freelist_create(nullptr, 100), 22);
    EXPECT_EQ(heap_freelist_create(heap, 36), 0);  // 40 exists
    EXPECT_EQ(heap_freelist_create(heap, 0), 0);   // one default list only
    EXPECT_EQ(index_sizes(heap), kStartSizes);
    EXPECT_EQ(heap_freelist_create(heap, 1540), 0);
    EXPECT_EQ(heap->freelist_table[15].size, 1544u);
    EXPECT_EQ(index_sizes(heap)[11], 1544u);
    EXPECT_EQ(heap_freelist_create(heap, 65536), 0);  // above every sized list
    EXPECT_EQ(heap_freelist_create(heap, 8), 0);      // below every sized list
    for (size_t size = 100; heap->freelist_table[31].active == 0; size += 1000) {
        ASSERT_EQ(heap_freelist_create(heap, size), 0);
    }
    EXPECT_EQ(heap_freelist_create(heap, 777), 12);
    auto sizes = index_sizes(heap);
    ASSERT_EQ(sizes.size(), 32u);
    EXPECT_EQ(sizes.front(), 8u);
    EXPECT_EQ(sizes[30], 65536u);
    EXPECT_EQ(sizes.back(), 0u);
    for (size_t k = 1; k + 1 < sizes.size(); ++k) EXPECT_LT(sizes[k - 1], sizes[k]);
    expect_index_mirrors_list(heap);
    heap_free(heap, heap_malloc(heap, 3000));  // still works with a full table
    expect_whole(heap);
}

TEST(HeapFreelist, ClassSearch) {
    heap_t* heap = make_heap(65536);
    const std::vector<std::pair<size_t, size_t>> cases = {{1, 16},       {16, 16},      {17, 24},      {24, 24},
                                                          {36, 40},      {4096, 4096},  {4097, 32768}, {32768, 32768},
                                                          {32769, 0}};
    for (auto [size, list] : cases) EXPECT_EQ(heap_freelist_find_by_size(heap, size, FALSE)->size, list) << size;
    // Only the default list holds a block.
    for (size_t s : {1, 100, 40000}) EXPECT_EQ(heap_freelist_find_by_size(heap, s, TRUE)->size, 0u);
    EXPECT_EQ(heap_best_fit_freelist_size(heap, 20), 24u);
    EXPECT_EQ(heap_best_fit_freelist_size(heap, 4097), 32768u);
    EXPECT_EQ(heap_best_fit_freelist_size(heap, 40000), 40000u);
}

// The class search skips empty lists by a record of which lists hold
// blocks; through random traffic, and a list added midway, it must choose
// what a walk over the index chooses.
TEST(HeapFreelist, ClassSearchFollowsTheListsThroughTraffic) {
    heap_t* heap = make_heap(1 << 20);
    auto walk = [heap](size_t size) {
        for (int k = 0; k < HEAP_FREELIST_MAX && heap->freelist_size[k].size != 0; ++k) {
            heap_freelist_t* list = heap->freelist_size[k].freelist;
            if (list->size >= size && list->blocks.head != nullptr) return list;
        }
        return heap_freelist_find_by_size(heap, 1u << 30, FALSE);  // the default list
    };
    std::vector<void*> live(64, nullptr);
    unsigned seed = 7;
    for (int step = 0; step < 4000; ++step) {
        seed = seed * 1103515245u + 12345u;
        void*& slot = live[(seed >> 8) % live.size()];
        if (slot != nullptr) {
            heap_free(heap, slot);
            slot = nullptr;
        } else {
            slot = heap_malloc(heap, 16 + (seed >> 16) % 3000);
        }
        if (step == 2000) heap_freelist_create(heap, 700);
        if (step % 97 == 0) {
            for (size_t size : {16, 40, 100, 256, 700, 1500, 4000}) {
                EXPECT_EQ(heap_freelist_find_by_size(heap, size, TRUE), walk(size)) << step << " " << size;
            }
        }
    }
    for (void* p : live) heap_free(heap, p);
    expect_whole(heap);
}
