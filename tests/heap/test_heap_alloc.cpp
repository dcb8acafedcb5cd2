// Heap creation, the size-class free lists, allocation and release:
// splitting, reference counts, merging, fills, counters, traces.
#include <algorithm>
#include <random>

#include "heap_fixture.h"

using namespace heap_test;

namespace {

// One block per size, each followed by an allocated 16-byte guard so that
// no two of them can merge when freed.
std::vector<void*> alloc_guarded(heap_t* heap, const std::vector<size_t>& sizes) {
    std::vector<void*> out;
    for (size_t size : sizes) out.push_back(heap_malloc(heap, size)), heap_malloc(heap, 16);
    return out;
}

TEST(HeapCreate, FreshHeapRangeEdgesAndBadRecords) {
    heap_t* heap = make_heap(1 << 20, "fresh");
    expect_whole(heap);  // the self-test gave everything back
    auto* block = reinterpret_cast<heap_block_t*>(heap->base);
    EXPECT_EQ(
        std::tuple(heap->magic, +block->magic, word(block), block->prev, heap->freelist_table[block->freelist_id].size),
        std::tuple(0xCACAD000u, 0x0EC0EDu, 0xFFE40000u, nullptr, 0u));  // on the default list
    EXPECT_EQ(std::tuple(heap_find_by_id(heap->id), make_heap(65536)->id), std::tuple(heap, heap->id + 1));
    // A misaligned start loses the bytes below the next multiple of 8; too small a range is refused.
    auto* record = static_cast<heap_t*>(calloc(1, sizeof(heap_t)));
    const auto first = reinterpret_cast<uintptr_t>(make_range(64, 3));
    EXPECT_EQ(heap_create(record, first, first + kHdr + 20, const_cast<char*>("tiny")), 1000);
    ASSERT_EQ(heap_create(record, first, first + kHdr + 21, const_cast<char*>("smallest")), 0);
    EXPECT_EQ(std::tuple(record->base, record->size), std::tuple(first + 5, kHdr + 16));
    EXPECT_DEATH(heap_create(nullptr, 0x1000, 0x2000, nullptr), "heap/heap.*heap != \\(\\(void \\*\\)0\\)");
    EXPECT_LOGGED_DEATH(heap_malloc(&bcm_sdk_heap, 10), "<0>Heap corruption at 0x");  // not created yet
}

TEST(HeapFreelist, ClassSearchAndAddedListsUpToThirtyTwo) {
    heap_t* heap = make_heap(65536);
    const std::pair<size_t, size_t> cases[] = {{1, 16}, {17, 24}, {36, 40}, {4097, 32768}, {32768, 32768}, {32769, 0}};
    for (auto [size, list] : cases) EXPECT_EQ(heap_freelist_find_by_size(heap, size, FALSE)->size, list) << size;
    EXPECT_EQ(heap_freelist_find_by_size(heap, 1, TRUE)->size, 0u) << "only the default list holds a block";
    EXPECT_EQ(std::tuple(heap_freelist_create(nullptr, 100), heap_freelist_create(heap, 1540)), std::tuple(22, 0));
    EXPECT_EQ(heap_freelist_find_by_size(heap, 1100, FALSE)->size, 1544u);
    for (size_t size = 8; heap->freelist_table[31].active == 0; size += 1000)
        ASSERT_EQ(heap_freelist_create(heap, size), 0);
    EXPECT_EQ(heap_freelist_create(heap, 777), 12);
    heap_free(heap, heap_malloc(heap, 3000));
    expect_whole(heap);
}

TEST(HeapAlloc, SplitsOnlyPastAHeaderAndAMinimumBlockAndAccountsEveryByte) {
    heap_t* heap = make_heap(65536);
    const heap_stats_t before = heap->stats;
    void* p = heap_malloc(heap, 100);
    u_int32_t magic_word;  // magic and list id share the word before the header
    std::memcpy(&magic_word, reinterpret_cast<char*>(&hdr(p)->header) - 4, 4);
    EXPECT_EQ(std::tuple(hdr(p)->size, hdr(p)->x.alloc.heap, magic_word, word(hdr(p)), next_of(hdr(p))->prev),
              std::tuple(104u, heap, 0x200EC0EDu, 0xFFE48081u, hdr(p)));  // pc_saved, refcount 1, allocated
    EXPECT_EQ(std::tuple(heap->stats.splits, heap->stats.allocs, heap->free_bytes),
              std::tuple(before.splits + 1, before.allocs + 1, heap->size - 104 - kHdr));
    EXPECT_EQ(heap_block_size(heap_malloc(heap, 0)), 16u);
}

std::vector<heap_block_t*> blocks_on(const heap_freelist_t* list) {
    std::vector<heap_block_t*> blocks;
    for (const list_item_t* link = list->blocks.head; link != nullptr; link = link->next)
        blocks.push_back(reinterpret_cast<heap_block_t*>(reinterpret_cast<uintptr_t>(link) - offsetof(heap_block_t, x)));
    return blocks;
}

// Which free block an allocation takes, where it is cut and where the rest
// goes. A request up to 4096 bytes takes the head of the first sized list
// certain to hold it; a larger one searches the default list (blocks of
// 32768 bytes or more) for the smallest that fits, stopping at a block at
// most 8 bytes over or 33 blocks from the first that fits. A block more
// than a header and 16 bytes over is split: the fragment goes to the head
// of its list.
TEST(HeapAlloc, TakesTheBlockTheSearchChooses) {
    constexpr size_t R = 40000, kNone = SIZE_MAX, kDefault = 0;
    const auto runs = [](std::initializer_list<std::pair<size_t, size_t>> counted) {
        std::vector<size_t> sizes;
        for (auto [count, size] : counted) sizes.insert(sizes.end(), count, size);
        return sizes;
    };
    const struct {
        const char* what;
        std::vector<size_t> free;  // free blocks, each list read from its head
        size_t request;
        size_t taken;          // index in `free`
        size_t size;           // the taken block's size
        size_t fragment_list;  // where the fragment went, if any
    } rows[] = {
        {"a block at most 8 over ends the search", {R + 16, R + 8, R}, R, 1, R + 8, kNone},
        {"an exact fit ends it", {R + 16, R, R + 8}, R, 1, R, kNone},
        {"else the smallest that fits", {R + 200, R - 8, R + kHdr + 24, R + 300}, R, 2, R, 24},
        {"equal sizes: the nearer the head", {R + 200, R + 24, R + 24}, R, 1, R + 24, kNone},
        {"a header and 16 over: taken whole", {R + kHdr + 16}, R, 0, R + kHdr + 16, kNone},
        {"a large fragment: the default list's head", {R + 40000, R + 33000}, R, 1, R, kDefault},
        {"the 33rd block from the first that fits", runs({{1, R + 400}, {31, R + 800}, {1, R + 200}}), R, 32, R, 128},
        {"the 34th is not looked at", runs({{1, R + 400}, {32, R + 800}, {1, R + 200}}), R, 0, R, 256},
        {"blocks too small do not count", runs({{40, R - 8}, {1, R + 400}, {31, R + 800}, {1, R + 200}}), R, 72, R,
         128},
        {"the head of the first list certain to fit", {120, 104 + kHdr + 72, 136}, 100, 1, 104, 64},
        {"a sized list's block, a header and 16 over: whole", {64 + kHdr + 16}, 64, 0, 64 + kHdr + 16, kNone},
        {"a header and 24 over: a 24-byte fragment", {64 + kHdr + 24}, 64, 0, 64, 24},
        {"no sized list holds it: the default list", {R + 8}, 5000, 0, 5000, kDefault},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        size_t bytes = 1 << 17;
        for (size_t size : row.free) bytes += size + 2 * kHdr + 16;
        heap_t* heap = make_heap(bytes / 64 * 64);
        std::vector<void*> free = alloc_guarded(heap, row.free);
        for (size_t i = free.size(); i-- > 0;) heap_free(heap, free[i]);  // each list reads in row order
        heap_freelist_t* deflt = &heap->freelist_table[0];
        heap_block_t* rest = blocks_on(deflt).back();
        void* p = heap_malloc(heap, row.request);
        ASSERT_EQ(p, free[row.taken]);
        EXPECT_EQ(hdr(p)->size, row.size);
        heap_block_t* next = next_of(hdr(p));
        std::vector<heap_block_t*> expected_default;
        if (row.fragment_list == kNone) {
            EXPECT_EQ(+next->header.allocated, 1u) << "the guard follows: no fragment";
        } else {
            EXPECT_EQ(next->size, row.free[row.taken] - kHdr - row.size);
            heap_freelist_t* home =
                row.fragment_list == kDefault ? deflt : heap_freelist_find_by_size(heap, row.fragment_list, FALSE);
            EXPECT_EQ(std::tuple(home->size, blocks_on(home).front()), std::tuple(row.fragment_list, next));
            if (row.fragment_list == kDefault) expected_default.push_back(next);
        }
        for (size_t i = 0; i < free.size(); ++i)
            if (i != row.taken && row.free[i] >= 32768) expected_default.push_back(hdr(free[i]));
        expected_default.push_back(rest);
        EXPECT_EQ(blocks_on(deflt), expected_default);
        EXPECT_EQ(walk(heap), 0);
    }
}

TEST(HeapAlloc, FreedBlocksGoToTheListTheirSizeSelects) {
    heap_t* heap = make_heap(1 << 20);
    const std::vector<size_t> sizes = {16, 24, 32, 4104, 32760, 32768, 40000}, lists = {16, 24, 24, 4096, 4096, 0, 0};
    auto freed = alloc_guarded(heap, sizes);
    for (size_t i = 0; i < sizes.size(); ++i) {
        heap_free(heap, freed[i]);
        EXPECT_EQ(heap->freelist_table[hdr(freed[i])->freelist_id].size, lists[i]) << sizes[i];
    }
}

TEST(HeapFree, ReferenceCountsPoisonAndMergesWithBothNeighbours) {
    heap_t* heap = make_heap(65536);
    void* a = heap_malloc(heap, 64);
    void* b = heap_malloc(heap, 128);
    void* c = heap_malloc(heap, 256);
    void* d = heap_malloc(heap, 16);
    hdr(b)->header.refcount = 2;
    heap_free(heap, b);
    EXPECT_EQ(std::tuple(+hdr(b)->header.refcount, +hdr(b)->header.allocated), std::tuple(1u, 1u));
    hdr(b)->header.refcount = 255;  // locked: nothing changes
    heap_free(heap, b);
    EXPECT_EQ(std::tuple(+hdr(b)->header.refcount, +hdr(b)->header.allocated), std::tuple(255u, 1u));
    hdr(b)->header.refcount = 1;
    heap_free(heap, a);
    heap_free(heap, c);
    EXPECT_EQ(std::count(static_cast<u_int32_t*>(c), static_cast<u_int32_t*>(c) + 64, 0xDEADBEEFu), 64);
    const u_int32_t coalesces = heap->stats.coalesces;
    heap_free(heap, b);
    EXPECT_EQ(std::tuple(heap->stats.coalesces, hdr(a)->size, next_of(hdr(a)), hdr(d)->prev),
              std::tuple(coalesces + 2, 64 + 128 + 256 + 2 * kHdr, hdr(d), hdr(a)));
    EXPECT_EQ(std::tuple(+hdr(c)->magic, +hdr(c)->freelist_id), std::tuple(0xF13F12u, 0x20u)) << "a dead header";
    heap_free(heap, d);
    expect_whole(heap);
}

// The default hooks reached through other addresses: the heap then runs
// the general path, which calls each hook, where a heap with the defaults
// installed runs them in place.
int forwarded;
void forward_post_free(void* p, size_t size) { ++forwarded, heap_block_post_free(p, size); }
void forward_post_coalesce(void* p, size_t size, size_t old) { ++forwarded, heap_block_post_coalesce(p, size, old); }
void forward_pre_alloc(void* p, size_t size) { ++forwarded, heap_block_pre_alloc(p, size); }

// What the operations change, addresses as offsets from the heap's base.
std::vector<uintptr_t> state_of(heap_t* heap) {
    auto off = [heap](const void* p) { return p ? reinterpret_cast<uintptr_t>(p) - heap->base : ~uintptr_t{0}; };
    std::vector<uintptr_t> s = {heap->stats.allocs,   heap->stats.failed_allocs,     heap->stats.frees,
                                heap->stats.coalesces, heap->stats.splits,           heap->free_bytes,
                                heap->available_bytes_watermark, off(heap->largest_block)};
    for (const heap_freelist_t& l : heap->freelist_table)
        s.insert(s.end(), {l.allocs, l.frees, l.free_bytes, l.largest, l.smallest, l.blocks.item_count,
                           off(l.blocks.head), off(l.blocks.tail)});
    for (auto* b = reinterpret_cast<heap_block_t*>(heap->base);; b = next_of(b)) {
        u_int32_t marks;  // the magic and the list id
        std::memcpy(&marks, reinterpret_cast<char*>(&b->header) - 4, 4);
        const bool free = !b->header.allocated;
        s.insert(s.end(), {off(b), b->size, word(b), marks, off(b->prev), free ? off(b->x.free.links.next) : 0,
                           free ? off(b->x.free.links.prev) : b->x.alloc.heap == heap});
        if (reinterpret_cast<uintptr_t>(data(b)) + b->size >= heap->base + heap->size) return s;
    }
}

TEST(HeapFree, DefaultHooksRunInPlaceLeaveTheHeapAsCalledHooksDo) {
    srand(5);  // the same self-test in both
    heap_t* in_place = make_heap(1 << 18);
    srand(5);
    heap_t* called = make_heap(1 << 18);
    heap_debug_proc_t hooks{forward_post_free, forward_post_coalesce, forward_pre_alloc};
    heap_set_debug_proc(called, &hooks);
    std::mt19937 rng(11);
    std::vector<size_t> live;  // offsets of the blocks held, the same in both heaps
    for (int op = 0; op < 3000; ++op) {
        if (!live.empty() && rng() % 5 < 2) {
            const size_t i = rng() % live.size();
            for (heap_t* heap : {in_place, called}) heap_free(heap, reinterpret_cast<char*>(heap->base) + live[i]);
            live[i] = live.back(), live.pop_back();
        } else {
            const size_t size = rng() % 4 ? 1 + rng() % 300 : 1 + rng() % 9000;
            void* p = heap_malloc(in_place, size);
            void* q = heap_malloc(called, size);
            ASSERT_EQ(p == nullptr, q == nullptr);
            if (p != nullptr) live.push_back(reinterpret_cast<uintptr_t>(p) - in_place->base);
        }
        ASSERT_EQ(state_of(in_place), state_of(called)) << "operation " << op;
    }
    EXPECT_GT(forwarded, 3000);
}

TEST(HeapAlloc, FailuresZeroingAndTheDebugTrailer) {
    heap_t* heap = make_heap(65536);
    const u_int32_t failed = heap->stats.failed_allocs;
    EXPECT_EQ(std::tuple(heap_malloc(heap, 65536), heap_zalloc(heap, SIZE_MAX - 6)), std::tuple(nullptr, nullptr));
    EXPECT_EQ(heap->stats.failed_allocs, failed + 2);
    auto* z = static_cast<unsigned char*>(heap_zalloc(heap, 13));  // what the self-test freed is poisoned
    EXPECT_EQ(std::vector<unsigned char>(z + 12, z + 16), (std::vector<unsigned char>{0, 0xBE, 0xAD, 0xDE}));
    heap_enable_debug(heap);
    auto* p = static_cast<unsigned char*>(heap_malloc(heap, 8));
    auto* trailer = p + hdr(p)->size - kTrailer;
    void* stored;
    std::memcpy(&stored, trailer + 16, sizeof stored);
    EXPECT_EQ(
        std::tuple(heap_block_size(p), word(hdr(p)), std::count(trailer, trailer + 16, 0x55), stored),
        std::tuple(hdr(p)->size - kTrailer, 0xFFE48089u, 16, heap_get_pc(p)));  // the debug bit, the guard, the caller
    heap_disable_debug(heap);
    heap_free(heap, p);
    heap_free(heap, z);
    expect_whole(heap);
}

TEST(HeapAlloc, TracesWhileTheDebugFlagIsSet) {
    heap_t* heap = make_heap(65536, "traced");
    heap->debug = TRUE;
    const int whole = static_cast<int>(heap->size - kHdr);
    syslog_clear();
    void* p = heap_malloc(heap, 100);
    const void* block = hdr(p);
    const void* fragment = next_of(hdr(p));
    heap_free(heap, p);
    EXPECT_EQ(heap_malloc(heap, 70000), nullptr);
    EXPECT_EQ(syslog_texts(7),
              (std::vector<std::string>{
                  "heap_block_get: HEAP(traced): Looking for block size = 100, rounded size = 104\n",
                  "heap_block_find: HEAP(traced): Looking for at least 104 free bytes \n",
                  fmt("heap_block_find: HEAP(traced): Found free block on default list - %p, %d bytes\n", block, whole),
                  fmt("heap_block_get: HEAP(traced): Found block size = %d, requested = 100\n", whole),
                  fmt("heap_block_get: HEAP(traced): Created %d byte fragment (%p) from %p\n", whole - 104 - int{kHdr},
                      fragment, block),
                  fmt("heap_block_return: HEAP(traced): Trying to free block %p\n", block),
                  "heap_block_get: HEAP(traced): Looking for block size = 70000, rounded size = 70000\n",
                  "heap_block_find: HEAP(traced): Looking for at least 70000 free bytes \n",
                  fmt("heap_block_find: HEAP(traced): Failed to find a 70000 byte block (available:%d)\n",
                      whole + int{kHdr})}));
}

}  // namespace
