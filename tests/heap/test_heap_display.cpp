// The block log and the block display, line by line; the failure ring;
// the hooks and the debug switches.
#include <string>
#include <vector>

#include "cli_capture.h"
#include "heap_fixture.h"
#include "heap_log.h"

using namespace heap_test;
using corvex_test::CliCapture;
using corvex_test::syslog_clear;

namespace {

void* shifted(const void* p, intptr_t by) { return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(p) + by); }

std::vector<std::string> raw_dump(heap_block_t* block, int words = 20) {
    std::vector<std::string> lines;
    for (int i = 0; i < words; ++i) {
        auto* at = reinterpret_cast<char*>(block) + 4 * i;
        u_int32_t w;
        std::memcpy(&w, at, 4);
        lines.push_back(fmt("HEAP: memory address = %p, data = 0x%08x\n", static_cast<void*>(at), w));
    }
    lines.push_back("\n\n");
    return lines;
}

std::vector<std::string> log_head(heap_block_t* block) {
    return {"HEAP: \n", "HEAP: \n", fmt("HEAP: Heap block: Header Address: %p\n", static_cast<void*>(block)),
            fmt("HEAP: Heap block: Data   Address: %p\n\n", data(block))};
}

}  // namespace

TEST(HeapBlockLog, AllocatedBlockLineByLine) {
    heap_t* heap = make_heap(65536);
    void* p = heap_malloc(heap, 64);
    heap_block_t* b = hdr(p);
    std::vector<std::string> expected = log_head(b);
    append(expected, raw_dump(b));
    append(expected, {
                         "HEAP: Common Header : bit fields:  0xffe48081\n\n",
                         "HEAP:     allocated : Allocated\n",
                         "HEAP:     orphaned  : no\n",
                         "HEAP:     debug     : no\n",
                         "HEAP:     unused    : 0\n",
                         "HEAP:     refcount  : 1\n",
                         "HEAP: \n",
                         "HEAP:     offset    : fffffff9    : Good Heap Block Magic number \n",
                         fmt("HEAP:     PC       : %p\n", heap_get_pc(p)),
                         "\n",
                         "HEAP: Heap Block Specific:\n",
                         fmt("HEAP:     prev          : (nil)      (Data address %p)\n", shifted(nullptr, kHdr)),
                         fmt("HEAP:     alloc pc      : %p\n", heap_get_pc(p)),
                         fmt("HEAP:     alloc heap    : %p\n", static_cast<void*>(heap)),
                         "HEAP:     size          :   64\n",
                         "HEAP:     magic         : ec0ed\n",
                         "HEAP:     freelist_id   :   32\n",
                     });
    u_int32_t failures = heap_bp_failure_count;
    EXPECT_EQ(block_log_of(heap, b), expected);
    EXPECT_EQ(heap_bp_failure_count, failures + 1);
    // Without a heap the allocated block names its own.
    EXPECT_EQ(block_log_of(nullptr, b), expected);
    // Permanently locked.
    b->header.refcount = 255;
    auto locked = block_log_of(heap, b);
    EXPECT_EQ(locked[30], "HEAP:     refcount  : 255: Node permanently locked\n");
    // Nothing for a null block, not even a count.
    failures = heap_bp_failure_count;
    EXPECT_TRUE(block_log_of(heap, nullptr).empty());
    EXPECT_EQ(heap_bp_failure_count, failures);
}

TEST(HeapBlockLog, FreeBlockAndTheEndOfTheRange) {
    heap_t* heap = make_heap(65536);
    void* a = heap_malloc(heap, 64);
    void* b = heap_malloc(heap, 64);
    void* c = heap_malloc(heap, 64);
    heap_free(heap, b);
    heap_block_t* fb = hdr(b);
    auto lines = block_log_of(heap, fb);
    ASSERT_EQ(lines.size(), 4u + 21u + 17u);
    EXPECT_EQ(lines[25], "HEAP: Common Header : bit fields:  0xffe40000\n\n");
    EXPECT_EQ(lines[26], "HEAP:     allocated : Free\n");
    EXPECT_EQ(lines[33], "HEAP:     PC       : (nil)\n");
    EXPECT_EQ(lines[36], fmt("HEAP:     prev          : %p      (Data address %p)\n", static_cast<void*>(hdr(a)), a));
    list_item_t* n = fb->x.free.links.next;
    list_item_t* pr = fb->x.free.links.prev;
    EXPECT_EQ(lines[37], fmt("HEAP:     free next     : %p      (Data address %p)\n", static_cast<void*>(n),
                             shifted(n, kHdr - sizeof(void*))));
    EXPECT_EQ(lines[38], fmt("HEAP:     free prev     : %p      (Data address %p)\n", static_cast<void*>(pr),
                             shifted(pr, kHdr - sizeof(void*))));
    EXPECT_EQ(lines[41], fmt("HEAP:     freelist_id   : %4d\n", static_cast<int>(fb->freelist_id)));
    // A free block cannot name its heap: validation against no heap fails.
    auto unknown = block_log_of(nullptr, fb);
    EXPECT_EQ(unknown.back(), "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");
    // The raw dump stops at the end of the range.
    heap_free(heap, a);
    heap_free(heap, c);
    char* end = reinterpret_cast<char*>(heap->base + heap->size);
    void* last = heap_malloc(heap, heap->size - kHdr - 24 - kHdr);
    ASSERT_NE(last, nullptr);
    heap_block_t* tail = next_of(hdr(last));
    ASSERT_EQ(reinterpret_cast<char*>(tail) + kHdr + 24, end);
    auto tail_lines = block_log_of(heap, tail);
    int dumped = static_cast<int>(kHdr + 24) / 4;
    std::vector<std::string> expected_dump = raw_dump(tail, dumped);
    EXPECT_EQ(std::vector<std::string>(tail_lines.begin() + 4, tail_lines.begin() + 4 + dumped + 1), expected_dump);
    heap_free(heap, last);
}

TEST(HeapBlockLog, DebugTrailerLines) {
    heap_t* heap = make_heap(65536);
    heap_enable_debug(heap);
    void* p = heap_malloc(heap, 10);
    heap_block_t* b = hdr(p);
    auto lines = block_log_of(heap, b);
    char* trailer = static_cast<char*>(p) + b->size - kTrailer;
    std::vector<std::string> tail(lines.end() - 3, lines.end());
    EXPECT_EQ(tail, (std::vector<std::string>{fmt("HEAP: block: TRAILER: Start %p\n", static_cast<void*>(trailer)),
                                              fmt("HEAP: block: TRAILER: End   %p\n", static_cast<void*>(trailer + 15)),
                                              fmt("HEAP: block: PC: = %p\n", heap_get_pc(p))}));
    EXPECT_EQ(lines[28], "HEAP:     debug     : yes\n");
    heap_free(heap, p);
}

TEST(HeapShowBlock, AllocatedFreeLockedAndBadAddresses) {
    heap_t* heap = make_heap(65536);
    void* a = heap_malloc(heap, 64);
    void* b = heap_malloc(heap, 64);
    void* guard = heap_malloc(heap, 16);
    {
        CliCapture cap;
        heap_show_block(heap, b);
        std::string expected = fmt("\n\nHeap block: Header Address: %p\n", static_cast<void*>(hdr(b))) +
                               fmt("Heap block: Data   Address: %p\n\n", b) +
                               "Common Header : bit fields:  0xffe48081\n\n"
                               "    allocated : Allocated\n"
                               "    orphaned  : no\n"
                               "    debug     : no\n"
                               "    unused    : 0\n"
                               "    refcount  : 1\n"
                               "    pc_saved  : 1          \n"
                               "    offset   : fffffff9    : Good Heap Block Magic number \n"
                               "Heap Block Specific:\n" +
                               fmt("    prev          : %p      (Data address %p)\n", static_cast<void*>(hdr(a)), a) +
                               fmt("    alloc pc      : %p\n", heap_get_pc(b)) +
                               fmt("    alloc heap    : %p\n", static_cast<void*>(heap)) +
                               "    size          :   64\n"
                               "    magic         : ec0ed\n"
                               "    freelist_id   :   32\n";
        EXPECT_EQ(cap.text(), expected);
    }
    {
        CliCapture cap;
        hdr(b)->header.refcount = 255;
        heap_show_block(heap, b);
        EXPECT_NE(cap.text().find("    refcount  : 255: Node permanently locked\n    pc_saved  : 1"), std::string::npos);
        hdr(b)->header.refcount = 1;
    }
    heap_free(heap, a);
    {
        CliCapture cap;
        heap_show_block(heap, a);
        const std::string& text = cap.text();
        EXPECT_NE(text.find("    allocated : Free\n"), std::string::npos);
        EXPECT_NE(text.find("    pc_saved  : 0          \n"), std::string::npos);
        list_item_t* n = hdr(a)->x.free.links.next;
        EXPECT_NE(text.find(fmt("    free next     : %p      (Data address %p)\n", static_cast<void*>(n),
                                shifted(n, kHdr - sizeof(void*)))),
                  std::string::npos);
    }
    {
        CliCapture cap;
        hdr(b)->header.refcount = 0;  // fails validation
        heap_show_block(heap, b);
        EXPECT_NE(cap.text().find("    offset   : fffffff9    : Good Heap Block Magic number \n"
                                  "\n******** FAILED VALIDITY CHECKS **********\n\n"),
                  std::string::npos);
        EXPECT_EQ(cap.text().find("Heap Block Specific"), std::string::npos);
        hdr(b)->header.refcount = 1;
    }
    {
        CliCapture cap;
        heap_show_block(nullptr, b);
        heap_show_block(&bcm_sdk_heap, b);
        EXPECT_EQ(cap.text(), "\n\nHeap bad: (nil)\n\n" + fmt("\n\nHeap bad: %p\n\n", static_cast<void*>(&bcm_sdk_heap)));
        cap.clear();
        heap_show_block(heap, nullptr);
        EXPECT_EQ(cap.text(), "");
    }
    // Typed addresses whose header would lie outside the range: nothing read.
    static char elsewhere[64];
    for (void* typed : {static_cast<void*>(elsewhere + 32), reinterpret_cast<void*>(heap->base),
                        reinterpret_cast<void*>(heap->base + heap->size + 8), reinterpret_cast<void*>(8),
                        static_cast<void*>(static_cast<char*>(b) + 3)}) {
        CliCapture cap;
        heap_show_block(heap, typed);
        EXPECT_NE(cap.text().find("******** FAILED VALIDITY CHECKS"), std::string::npos) << typed;
        EXPECT_EQ(cap.text().find("Common Header"), std::string::npos) << typed;
    }
    heap_free(heap, b);
    heap_free(heap, guard);
}

TEST(HeapShowBlock, DebugTrailer) {
    heap_t* heap = make_heap(65536);
    heap_enable_debug(heap);
    void* p = heap_malloc(heap, 10);
    char* trailer = static_cast<char*>(p) + hdr(p)->size - kTrailer;
    CliCapture cap;
    heap_show_block(heap, p);
    std::string tail = fmt("HEAP: heap block: TRAILER: Start %p\n", static_cast<void*>(trailer)) +
                       fmt("HEAP: heap block: TRAILER: End   %p\n", static_cast<void*>(trailer + 15));
    EXPECT_EQ(cap.text().substr(cap.text().size() - tail.size()), tail);
    heap_free(heap, p);
}

TEST(HeapFailures, RingOfReportingSites) {
    u_int32_t count = heap_bp_failure_count;
    u_int32_t start = heap_bp_failure_pc_index;
    std::vector<void*> sites;
    for (int i = 0; i < 11; ++i) heap_bp_failure();
    EXPECT_EQ(heap_bp_failure_count, count + 11);
    EXPECT_EQ(heap_bp_failure_pc_index, (start + 11) % 10);
    void* site = heap_bp_failure_count_last_pc[start];
    ASSERT_NE(site, nullptr);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(heap_bp_failure_count_last_pc[i], site);
    // A different reporting site.
    heap_is_debug_enabled(nullptr);
    EXPECT_NE(heap_bp_failure_count_last_pc[(start + 11) % 10], site);
}

namespace {
int coalesce_calls, free_calls, alloc_calls;
size_t last_size, last_old_size;
void count_free(void*, size_t size) {
    ++free_calls;
    last_size = size;
}
void count_coalesce(void*, size_t size, size_t old_size) {
    ++coalesce_calls;
    last_size = size;
    last_old_size = old_size;
}
void count_alloc(void*, size_t size) {
    ++alloc_calls;
    last_size = size;
}
}  // namespace

TEST(HeapHooks, InstalledHooksSeeEveryEvent) {
    heap_t* heap = make_heap(65536);
    heap_debug_proc_t mine = {count_free, count_coalesce, count_alloc};
    heap_set_debug_proc(heap, &mine);
    heap_debug_proc_t got{};
    heap_get_debug_proc(heap, &got);
    EXPECT_EQ(got.post_free, count_free);
    EXPECT_EQ(got.post_coalesce, count_coalesce);
    EXPECT_EQ(got.pre_alloc, count_alloc);
    void* a = heap_malloc(heap, 64);
    EXPECT_EQ(alloc_calls, 1);
    EXPECT_EQ(last_size, 64u);
    void* b = heap_malloc(heap, 64);
    std::memset(a, 0, 64);
    heap_free(heap, a);
    EXPECT_EQ(free_calls, 1);
    EXPECT_EQ(static_cast<u_int32_t*>(a)[0] == 0xDEADBEEFu, false);  // the default fill is replaced
    heap_free(heap, b);
    EXPECT_EQ(coalesce_calls, 2);
    EXPECT_EQ(last_old_size, 64 + kHdr + 64);
    EXPECT_EQ(last_size, heap->size - kHdr);
    EXPECT_EQ(hdr(b)->magic, 0x0EC0EDu);  // the default marking is replaced too
    // Null hooks fall back to the defaults instead of being called.
    heap_debug_proc_t none = {nullptr, nullptr, nullptr};
    heap_set_debug_proc(heap, &none);
    heap_get_debug_proc(heap, &got);
    EXPECT_EQ(got.post_free, heap_block_post_free);
    EXPECT_EQ(got.post_coalesce, heap_block_post_coalesce);
    EXPECT_EQ(got.pre_alloc, heap_block_pre_alloc);
    heap_get_debug_proc(nullptr, &got);
    heap_get_default_debug_proc(nullptr);
    heap_set_debug_proc(nullptr, &mine);
    heap_set_debug_flag(nullptr, 1, TRUE);
    expect_whole(heap);
}

TEST(HeapHooks, DefaultFreeFillWritesWholeWordsOnly) {
    unsigned char area[12];
    std::memset(area, 0x11, sizeof area);
    heap_block_post_free(area, 10);
    u_int32_t w;
    std::memcpy(&w, area + 4, 4);
    EXPECT_EQ(w, 0xDEADBEEFu);
    EXPECT_EQ(area[8], 0x11);
    EXPECT_EQ(area[9], 0x11);
    heap_block_post_free(area, 0);  // nothing
    std::vector<u_int32_t> big(1048576 / 4 + 2, 7);
    heap_block_post_free(big.data(), 1048576 + 8);  // above 1 MiB: left alone
    EXPECT_EQ(big[0], 7u);
    heap_block_post_free(big.data(), 1048576);
    EXPECT_EQ(big[1048576 / 4 - 1], 0xDEADBEEFu);
    EXPECT_EQ(big[1048576 / 4], 7u);
}

namespace {
// A hook that leaves the released block marked allocated.
void remark_allocated(void* p, size_t) { hdr(p)->header.allocated = 1; }
}  // namespace

TEST(HeapHooks, AnAllocatedBlockIsNeverPutOnAFreeList) {
    heap_t* heap = make_heap(65536);
    void* a = heap_malloc(heap, 64);
    void* guard = heap_malloc(heap, 16);
    heap_debug_proc_t hooks;
    heap_get_default_debug_proc(&hooks);
    hooks.post_free = remark_allocated;
    heap_set_debug_proc(heap, &hooks);
    auto log = block_log_of(heap, hdr(a));
    u_int32_t failures = heap_bp_failure_count;
    syslog_clear();
    heap_free(heap, a);
    auto texts = log_texts();
    ASSERT_GE(texts.size(), 5u);
    EXPECT_EQ(texts.back(), "traceback: HEAP: Tried to enqueue alloc'd block\n");
    EXPECT_EQ(std::vector<std::string>(texts.begin(), texts.begin() + 4), std::vector<std::string>(log.begin(), log.begin() + 4));
    EXPECT_EQ(heap_bp_failure_count, failures + 2);  // the refusal and its block log
    EXPECT_EQ(hdr(a)->freelist_id, 0x20u);            // on no list
    EXPECT_EQ(texts[texts.size() - 2], "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");  // refcount 0
    EXPECT_EQ(heap->free_bytes, heap->size - kHdr - 16);  // counted free, though on no list
    heap_get_default_debug_proc(&hooks);
    heap_set_debug_proc(heap, &hooks);
    heap_free(heap, guard);
}
