// The block log, and the block display's answers for a bad heap or no block.
#include <algorithm>
#include <tuple>

#include "cli_capture.h"
#include "heap_fixture.h"

using namespace heap_test;
using corvex_test::CliCapture;

namespace {

void* shifted(const void* p, intptr_t by) { return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(p) + by); }

TEST(HeapBlockLog, AllocatedAndFreeBlocksLineByLine) {
    heap_t* heap = make_heap(65536);
    void* a = heap_malloc(heap, 64);
    void* p = heap_malloc(heap, 64);
    heap_block_t* b = hdr(p);
    std::vector<std::string> expected = {"HEAP: \n", "HEAP: \n",
                                         fmt("HEAP: Heap block: Header Address: %p\n", static_cast<void*>(b)),
                                         fmt("HEAP: Heap block: Data   Address: %p\n\n", p)};
    for (int i = 0; i < 20; ++i) {  // the first twenty words, raw
        u_int32_t w;
        std::memcpy(&w, shifted(b, 4 * i), 4);
        expected.push_back(fmt("HEAP: memory address = %p, data = 0x%08x\n", shifted(b, 4 * i), w));
    }
    expected.push_back("\n\n");
    expected.insert(
        expected.end(),
        {"HEAP: Common Header : bit fields:  0xffe48081\n\n", "HEAP:     allocated : Allocated\n",
         "HEAP:     orphaned  : no\n", "HEAP:     debug     : no\n", "HEAP:     unused    : 0\n",
         "HEAP:     refcount  : 1\n", "HEAP: \n", "HEAP:     offset    : fffffff9    : Good Heap Block Magic number \n",
         fmt("HEAP:     PC       : %p\n", heap_get_pc(p)), "\n", "HEAP: Heap Block Specific:\n",
         fmt("HEAP:     prev          : %p      (Data address %p)\n", static_cast<void*>(hdr(a)), a),
         fmt("HEAP:     alloc pc      : %p\n", heap_get_pc(p)),
         fmt("HEAP:     alloc heap    : %p\n", static_cast<void*>(heap)), "HEAP:     size          :   64\n",
         "HEAP:     magic         : ec0ed\n", "HEAP:     freelist_id   :   32\n"});
    EXPECT_EQ(block_log_of(heap, b), expected);
    EXPECT_EQ(block_log_of(nullptr, b), expected) << "an allocated block names its own heap";

    void* guard = heap_malloc(heap, 16);
    heap_free(heap, p);
    auto lines = block_log_of(heap, b);
    const list_item_t* link = b->x.free.links.next;
    EXPECT_EQ(std::tuple(lines.size(), lines[26], lines[37]),
              std::tuple(4u + 21u + 17u, "HEAP:     allocated : Free\n",
                         fmt("HEAP:     free next     : %p      (Data address %p)\n", static_cast<const void*>(link),
                             shifted(link, kHdr - sizeof(void*)))));
    // A free block cannot name its heap: validation against no heap fails.
    EXPECT_EQ(block_log_of(nullptr, b).back(), "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");
    heap_free(heap, guard);

    // The raw dump stops at the end of the range holding the block, also when
    // the heap is not given or its record is broken.
    heap_free(heap, a);
    void* last = heap_malloc(heap, heap->size - 2 * kHdr - 24);
    heap_block_t* tail = next_of(hdr(last));
    ASSERT_EQ(reinterpret_cast<uintptr_t>(tail) + kHdr + 24, heap->base + heap->size);
    const size_t words = (kHdr + 24) / 4;
    for (heap_t* given : {heap, static_cast<heap_t*>(nullptr), heap}) {
        auto tail_lines = block_log_of(given, tail);
        EXPECT_EQ(std::count_if(tail_lines.begin(), tail_lines.end(),
                                [](const std::string& l) { return l.find("memory address = ") != std::string::npos; }),
                  static_cast<long>(words));
        heap->magic = 0;  // then a heap whose record is broken
    }
    heap->magic = HEAP_MAGIC;
}

// The golden outputs hold the rest of the display; no command line reaches these.
TEST(HeapShowBlock, ABrokenHeapRecordOrNoBlock) {
    heap_t* heap = make_heap(4096);
    void* p = heap_malloc(heap, 16);
    CliCapture cap;
    heap_show_block(heap, nullptr);
    EXPECT_EQ(cap.text(), "");
    heap_show_block(&bcm_sdk_heap, p);  // never created: no heap magic
    EXPECT_EQ(cap.text(), fmt("\n\nHeap bad: %p\n\n", static_cast<void*>(&bcm_sdk_heap)));
}

// The trailer lines, each destination in its own spelling: a free block
// whose debug bit is set passes validation with a trailer that is not intact
// (the free hook filled it with 0xdeadbeef).
TEST(HeapBlockReports, TrailerLinesOfTheLogAndOfTheDisplay) {
    heap_t* heap = make_heap(65536);
    void* p = heap_malloc(heap, 64);
    heap_malloc(heap, 16);
    heap_free(heap, p);
    heap_block_t* b = hdr(p);
    b->header.debug = 1;
    auto* guard = static_cast<u_int8_t*>(p) + b->size - 16 - sizeof(void*);
    std::vector<std::string> log = {fmt("HEAP: block: TRAILER: Start %p\n", guard),
                                    fmt("HEAP: block: TRAILER: End   %p\n", guard + 15), "HEAP: block: TRAILER: OVERRUN!!!!\n"};
    std::string display = "HEAP: heap" + log[0].substr(5) + "HEAP: heap" + log[1].substr(5) + "HEAP: heap" + log[2].substr(5);
    for (int i = 0; i < 16; i += 4) {
        log.push_back(fmt("HEAP: block TRAILER dump:       address = %p, data = 0xdeadbeef\n", guard + i));
        display += log.back();
    }
    log.push_back(fmt("HEAP: block PC      dump:       address = %p, data = 0xdeadbeef\n", guard + 16));
    display += fmt("HEAP: block PC       dump:       address = %p, data = 0xdeadbeef\n", guard + 16);
    log.push_back(fmt("HEAP: block: PC: = %p\n", *reinterpret_cast<void**>(guard + 16)));
    const auto lines = block_log_of(heap, b);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 9, lines.end()), log);
    CliCapture cap;
    heap_show_block(heap, p);
    EXPECT_TRUE(cap.text().ends_with(display)) << cap.text();
    b->size = 0x80000010u;  // the trailer lies outside the range; the log reads the size signed
    const auto outside = block_log_of(heap, b);
    EXPECT_EQ(std::tuple(outside.rbegin()[5], outside.back()),
              std::tuple("HEAP:     size          : -2147483632\n", "HEAP: block: TRAILER: outside the heap\n"));
    cap.clear();
    heap_show_block(heap, p);
    EXPECT_TRUE(cap.text().find("    size          : 2147483664\n") != std::string::npos &&
                cap.text().ends_with("\nHEAP: heap block: TRAILER: outside the heap\n"))
        << cap.text();
}

}  // namespace
