// The block log and the block display, line by line; the failure ring;
// the hooks.
#include "cli_capture.h"
#include "heap_fixture.h"

using namespace heap_test;
using corvex_test::CliCapture;
using corvex_test::syslog_clear;

namespace {

void* shifted(const void* p, intptr_t by) { return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(p) + by); }

std::vector<std::string> raw_dump(heap_block_t* block, int words) {
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

std::string free_link_line(const char* name, list_item_t* link) {
    return fmt("    free %s     : %p      (Data address %p)\n", name, static_cast<void*>(link),
               shifted(link, kHdr - sizeof(void*)));
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(HeapBlockLog, AllocatedBlockLineByLine) {
    heap_t* heap = make_heap(65536);
    void* p = heap_malloc(heap, 64);
    heap_block_t* b = hdr(p);
    std::vector<std::string> expected = {"HEAP: \n", "HEAP: \n",
                                         fmt("HEAP: Heap block: Header Address: %p\n", static_cast<void*>(b)),
                                         fmt("HEAP: Heap block: Data   Address: %p\n\n", p)};
    append(expected, raw_dump(b, 20));
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
    EXPECT_EQ(block_log_of(nullptr, b), expected);  // an allocated block names its own heap
    b->header.refcount = 255;
    EXPECT_EQ(block_log_of(heap, b)[30], "HEAP:     refcount  : 255: Node permanently locked\n");
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
    EXPECT_EQ(lines[37], "HEAP: " + free_link_line("next", fb->x.free.links.next));
    EXPECT_EQ(lines[38], "HEAP: " + free_link_line("prev", fb->x.free.links.prev));
    EXPECT_EQ(lines[41], fmt("HEAP:     freelist_id   : %4d\n", static_cast<int>(fb->freelist_id)));
    // A free block cannot name its heap: validation against no heap fails.
    EXPECT_EQ(block_log_of(nullptr, fb).back(), "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");
    // The raw dump stops at the end of the range.
    heap_free(heap, a);
    heap_free(heap, c);
    void* last = heap_malloc(heap, heap->size - 2 * kHdr - 24);
    heap_block_t* tail = next_of(hdr(last));
    ASSERT_EQ(reinterpret_cast<uintptr_t>(tail) + kHdr + 24, heap->base + heap->size);
    auto tail_lines = block_log_of(heap, tail);
    const int words = static_cast<int>(kHdr + 24) / 4;
    EXPECT_EQ(std::vector<std::string>(tail_lines.begin() + 4, tail_lines.begin() + 5 + words), raw_dump(tail, words));
    // Also when the heap is not given, or its record's magic is broken: the range holding the block bounds it.
    heap->magic = 0;
    for (heap_t* given : {heap, static_cast<heap_t*>(nullptr)}) {
        tail_lines = block_log_of(given, tail);
        EXPECT_EQ(std::vector<std::string>(tail_lines.begin() + 4, tail_lines.begin() + 5 + words),
                  raw_dump(tail, words));
    }
    heap->magic = HEAP_MAGIC;
}

TEST(HeapShowBlock, ExactDisplayOfEachKindOfBlock) {
    heap_t* heap = make_heap(65536);
    void* a = heap_malloc(heap, 64);
    void* b = heap_malloc(heap, 64);
    heap_malloc(heap, 16);
    CliCapture cap;
    heap_show_block(heap, b);
    EXPECT_EQ(cap.text(), fmt("\n\nHeap block: Header Address: %p\n", static_cast<void*>(hdr(b))) +
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
                              "    freelist_id   :   32\n");
    cap.clear();
    hdr(b)->header.refcount = 255;
    heap_show_block(heap, b);
    EXPECT_TRUE(has(cap.text(), "    refcount  : 255: Node permanently locked\n    pc_saved  : 1"));
    cap.clear();
    hdr(b)->header.refcount = 0;  // fails validation: the specific part is left out
    heap_show_block(heap, b);
    EXPECT_TRUE(has(cap.text(), "    offset   : fffffff9    : Good Heap Block Magic number \n"
                                "\n******** FAILED VALIDITY CHECKS **********\n\n"));
    EXPECT_FALSE(has(cap.text(), "Heap Block Specific"));
    cap.clear();
    hdr(b)->header.refcount = 1;
    heap_free(heap, a);
    heap_show_block(heap, a);
    EXPECT_TRUE(has(cap.text(), "    allocated : Free\n"));
    EXPECT_TRUE(has(cap.text(), "    pc_saved  : 0          \n"));
    EXPECT_TRUE(has(cap.text(), free_link_line("next", hdr(a)->x.free.links.next)));
    cap.clear();
    heap_show_block(nullptr, b);
    heap_show_block(&bcm_sdk_heap, b);
    heap_show_block(heap, nullptr);
    EXPECT_EQ(cap.text(), "\n\nHeap bad: (nil)\n\n" + fmt("\n\nHeap bad: %p\n\n", static_cast<void*>(&bcm_sdk_heap)));
    // Typed addresses whose header would lie outside the range: nothing read.
    static char elsewhere[64];
    for (uintptr_t typed : {reinterpret_cast<uintptr_t>(elsewhere + 32), heap->base, heap->base + heap->size + 8,
                            uintptr_t{8}, reinterpret_cast<uintptr_t>(b) + 3}) {
        cap.clear();
        heap_show_block(heap, reinterpret_cast<void*>(typed));
        EXPECT_TRUE(has(cap.text(), "******** FAILED VALIDITY CHECKS")) << typed;
        EXPECT_FALSE(has(cap.text(), "Common Header")) << typed;
    }
}

TEST(HeapBlockLog, DebugTrailerInLogAndDisplay) {
    heap_t* heap = make_heap(65536);
    heap_enable_debug(heap);
    void* p = heap_malloc(heap, 10);
    auto lines = block_log_of(heap, hdr(p));
    auto* trailer = static_cast<void*>(static_cast<char*>(p) + hdr(p)->size - kTrailer);
    auto* trailer_end = shifted(trailer, 15);
    EXPECT_EQ(lines[28], "HEAP:     debug     : yes\n");
    EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()),
              (std::vector<std::string>{fmt("HEAP: block: TRAILER: Start %p\n", trailer),
                                        fmt("HEAP: block: TRAILER: End   %p\n", trailer_end),
                                        fmt("HEAP: block: PC: = %p\n", heap_get_pc(p))}));
    CliCapture cap;
    heap_show_block(heap, p);
    std::string tail = fmt("HEAP: heap block: TRAILER: Start %p\n", trailer) +
                       fmt("HEAP: heap block: TRAILER: End   %p\n", trailer_end);
    EXPECT_EQ(cap.text().substr(cap.text().size() - tail.size()), tail);
}

TEST(HeapFailures, RingOfReportingSites) {
    u_int32_t count = heap_bp_failure_count;
    u_int32_t start = heap_bp_failure_pc_index;
    for (int i = 0; i < 11; ++i) heap_bp_failure();
    EXPECT_EQ(heap_bp_failure_count, count + 11);
    EXPECT_EQ(heap_bp_failure_pc_index, (start + 11) % 10);
    void* site = heap_bp_failure_count_last_pc[start];
    ASSERT_NE(site, nullptr);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(heap_bp_failure_count_last_pc[i], site);
    heap_is_debug_enabled(nullptr);  // a different reporting site
    EXPECT_NE(heap_bp_failure_count_last_pc[(start + 11) % 10], site);
}

namespace {
int coalesce_calls, free_calls, alloc_calls;
size_t last_size, last_old_size;
void count_free(void*, size_t size) { ++free_calls, last_size = size; }
void count_coalesce(void*, size_t size, size_t old) { ++coalesce_calls, last_size = size, last_old_size = old; }
void count_alloc(void*, size_t size) { ++alloc_calls, last_size = size; }
// Leaves the released block marked allocated.
void remark_allocated(void* p, size_t) { hdr(p)->header.allocated = 1; }
}  // namespace

TEST(HeapHooks, InstalledHooksReplaceTheDefaults) {
    heap_t* heap = make_heap(65536);
    heap_debug_proc_t mine = {count_free, count_coalesce, count_alloc};
    heap_set_debug_proc(heap, &mine);
    void* a = heap_malloc(heap, 64);
    EXPECT_EQ(alloc_calls, 1);
    EXPECT_EQ(last_size, 64u);
    void* b = heap_malloc(heap, 64);
    std::memset(a, 0, 64);
    heap_free(heap, a);
    EXPECT_EQ(free_calls, 1);
    EXPECT_NE(static_cast<u_int32_t*>(a)[0], 0xDEADBEEFu);  // no default fill
    heap_free(heap, b);
    EXPECT_EQ(coalesce_calls, 2);
    EXPECT_EQ(last_old_size, 64 + kHdr + 64);
    EXPECT_EQ(last_size, heap->size - kHdr);
    EXPECT_EQ(hdr(b)->magic, 0x0EC0EDu);  // no default marking
    // Null hooks fall back to the defaults instead of being called.
    heap_debug_proc_t none = {nullptr, nullptr, nullptr};
    heap_set_debug_proc(heap, &none);
    heap_debug_proc_t got{};
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
    std::vector<u_int32_t> words(1048576 / 4 + 2, 7);
    heap_block_post_free(words.data(), 10);
    EXPECT_EQ(words[1], 0xDEADBEEFu);
    EXPECT_EQ(words[2], 7u);
    heap_block_post_free(words.data(), 1048576 + 8);  // above 1 MiB: left alone
    EXPECT_EQ(words[2], 7u);
    heap_block_post_free(words.data(), 1048576);
    EXPECT_EQ(words[1048576 / 4 - 1], 0xDEADBEEFu);
    EXPECT_EQ(words[1048576 / 4], 7u);
}

TEST(HeapHooks, AnAllocatedBlockIsNeverPutOnAFreeList) {
    heap_t* heap = make_heap(65536);
    void* a = heap_malloc(heap, 64);
    heap_malloc(heap, 16);
    heap_debug_proc_t hooks;
    heap_get_default_debug_proc(&hooks);
    hooks.post_free = remark_allocated;
    heap_set_debug_proc(heap, &hooks);
    u_int32_t failures = heap_bp_failure_count;
    syslog_clear();
    heap_free(heap, a);
    auto texts = log_texts();
    ASSERT_GE(texts.size(), 5u);
    EXPECT_EQ(texts[2], fmt("HEAP: Heap block: Header Address: %p\n", static_cast<void*>(hdr(a))));
    EXPECT_EQ(texts[texts.size() - 2], "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");  // refcount 0
    EXPECT_EQ(texts.back(), "traceback: HEAP: Tried to enqueue alloc'd block\n");
    EXPECT_EQ(heap_bp_failure_count, failures + 2);  // the refusal and its block log
    EXPECT_EQ(hdr(a)->freelist_id, 0x20u);            // on no list
    EXPECT_EQ(heap->free_bytes, heap->size - kHdr - 16);  // counted free, though on no list
}
