// The heap commands run as command lines: summaries, one heap, block
// listings and their filters, sanity walks, block reports, set and debug,
// missing heaps, and the accounting reports against known call sites.
#include <cinttypes>

#include "cli_fixture.h"
#include "llist.h"

using namespace cli_test;

namespace {

constexpr int kPcWidth = 2 * sizeof(void*);
const std::string kListing =
    "\n Heap blocks\n"
    "   Block       Size(b)  Ref  PC        Prev      Next      Flist\n"
    "   --------  ---------  ---  --------  --------  --------  -----\n";

uintptr_t u(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// Two call sites: every block each one allocates carries its PC.
__attribute__((noinline)) void* at_a(heap_t* heap, size_t n) {
    void* p = heap_malloc(heap, n);
    asm volatile("" ::: "memory");  // keeps the call a call, not a jump
    return p;
}
__attribute__((noinline)) void* at_b(heap_t* heap, size_t n) {
    void* p = heap_zalloc(heap, n);
    asm volatile("" ::: "memory");
    return p;
}

std::string a_row(void* p) {
    return fmt(" A %08" PRIxPTR "  %9u  %3u  %08" PRIxPTR "\n", u(hdr(p)), heap_block_size(p), 1u, u(heap_get_pc(p)));
}
std::string f_row(heap_t* heap, heap_block_t* b) {
    return fmt(" F %08" PRIxPTR "  %9zu    0            %08" PRIxPTR "  %08" PRIxPTR "  %zu\n", u(b), b->size,
               u(b->x.free.links.prev), u(b->x.free.links.next),
               heap_freelist_find_by_id(heap, b->freelist_id, TRUE)->size);
}

// A summary row; with a peak, the extensive summary's row.
std::string summary_row(heap_t* heap, unsigned percent, int peak = -1) {
    const std::string row = fmt("%2u  %8" PRIxPTR "  %12zu  %12zu  %12zu  %3u  ", heap->id, heap->base, heap->size,
                                heap->free_bytes, heap->size - heap->free_bytes, percent);
    return row + (peak < 0 ? fmt("%s\n", heap->name) : fmt("%12s       %3d\n", heap->name, peak));
}
unsigned percent(heap_t* heap, size_t used) { return unsigned(used / (heap->size / 100)); }
unsigned used_percent(heap_t* heap) { return percent(heap, heap->size - heap->free_bytes); }
int peak_percent(heap_t* heap) { return int(percent(heap, heap->size - heap->available_bytes_watermark)); }

const std::string kSummaryHead =
    "ID      Base      Total(b)       Free(b)       Used(b)   %   Name\n"
    "--  --------     ---------     ---------     ---------  ---   -----------\n";
const std::string kExtensiveHead =
    "ID      Base      Total(b)       Free(b)       Used(b)   %   Name         Peak used %\n"
    "--  --------     ---------     ---------     ---------  ---   -----------  -----------\n";

// The accounting row of one PC (or of "other" and "Total", given as key).
std::string pc_row(const std::string& key, unsigned blocks, unsigned bytes) {
    return fmt("   %-*s  %9u  %12u\n", kPcWidth, key.c_str(), blocks, bytes);
}
std::string pc_of(void* p) { return fmt("%0*" PRIxPTR, kPcWidth, u(heap_get_pc(p))); }

}  // namespace

using HeapCommands = Cli;

TEST_F(HeapCommands, SummariesOneHeapAndMissingHeaps) {
    heap_t* tiny = world_.tiny;
    void* whole = heap_malloc(tiny, 1);  // takes the tiny heap's only block whole
    ASSERT_NE(whole, nullptr);
    std::string freelists;
    for (auto* l = static_cast<heap_freelist_t*>(list_get_head(&tiny->freelist)); l != nullptr;
         l = static_cast<heap_freelist_t*>(list_get_next(&tiny->freelist, l))) {
        freelists += (l->size ? fmt(" %5zu  ", l->size) : "     -  ") +
                     fmt("%10zu  %8u  %8u  %8u  (%5u, %5u)\n", l->free_bytes, l->blocks.item_count, l->allocs, l->frees,
                         l->smallest, l->largest);
    }
    expect_lines({
        {"show heap", kSummaryHead + summary_row(world_.heap, used_percent(world_.heap)) + summary_row(tiny, 100) +
                          summary_row(world_.buffers, used_percent(world_.buffers))},
        // A heap under 100 bytes shows its exact share.
        {"show heap extensive", kExtensiveHead +
                                    summary_row(world_.heap, used_percent(world_.heap), peak_percent(world_.heap)) +
                                    summary_row(tiny, 100, 100) +
                                    summary_row(world_.buffers, used_percent(world_.buffers),
                                                peak_percent(world_.buffers))},
        {"set heap 1 low-watermark 5000", ""},
        {"show heap 1", kSummaryHead + summary_row(tiny, 100) +
                            "Available bytes watermark: 0\n\nWatermark:\n  Low watermark(b): 5000\n"
                            "\nFreelists for Heap blocks:\n"
                            "  Size     Free(b)    Blocks    Allocs     Frees    (Min, Max)\n"
                            " -----  ----------  --------  --------  --------  --------------\n" +
                            freelists +
                            " -----  ----------  --------  --------  --------  --------------\n"
                            " Total           0         0         1         1\n"
                            "\n Largest Contiguous\n Block          0\n"},
        {"show heap 7", "Failed to find a heap with ID 7\n"},
        {"show heap 7 accounting pc", "Failed to find a heap with ID 7\n"},
        {"debug heap 7", "Couldn't find heap ID 7\n"},
        {"set heap 7 debug enable", "No heap with ID 7 found\n"},
    });
    EXPECT_EQ(run("show heap 1 help").rfind("\n ================ Heap Help Info ==================\n", 0), 0u);
    heap_free(tiny, whole);
}

TEST_F(HeapCommands, SetAndDebugChangeWhatTheyName) {
    heap_t* tiny = world_.tiny;
    const struct {
        const char* line;
        const char* output;
        boolean heap_t::*flag;
        boolean value;
    } steps[] = {
        {"set heap 1 debug enable", "", &heap_t::debug_enabled, TRUE},
        {"set heap 1 debug disable", "", &heap_t::debug_enabled, FALSE},
        {"debug heap 1", "", &heap_t::debug, TRUE},
        {"undebug heap 1", "", &heap_t::debug, FALSE},
        {"set heap 1 low-memory_recovery 25 50", "Usage Error: High mem > Low mem, e.g. 50 25\n", nullptr, 0},
        {"set heap 1 low-memory_recovery 50 25", "", nullptr, 0},
    };
    for (const auto& step : steps) {
        EXPECT_EQ(run(step.line), step.output) << step.line;
        if (step.flag != nullptr) {
            EXPECT_EQ(tiny->*step.flag, step.value) << step.line;
        }
    }
}

TEST_F(HeapCommands, ListingsSanityAndBlockReports) {
    heap_t* heap = world_.heap;
    ASSERT_EQ(heap->free_bytes, heap->size);
    void* a = at_a(heap, 64);
    void* gap = at_b(heap, 100);
    void* b = at_b(heap, 64);
    heap_free(heap, gap);  // a free block between two allocated ones, on the 96 list
    heap_block_t* hole = hdr(gap);
    auto* rest = reinterpret_cast<heap_block_t*>(static_cast<char*>(b) + heap_block_size(b));
    void* foreign = heap_malloc(world_.tiny, 1);
    std::string foreign_report = fmt("\n\nHeap block: Header Address: %p\nHeap block: Data   Address: %p\n\n",
                                     static_cast<void*>(hdr(foreign)), foreign) +
                                 fmt("Not a block of heap %p (%p - %p)\n", static_cast<void*>(heap),
                                     reinterpret_cast<void*>(heap->base),
                                     reinterpret_cast<void*>(heap->base + heap->size)) +
                                 "\n******** FAILED VALIDITY CHECKS **********\n\n";
    std::string block_report;
    {
        corvex_test::CliCapture capture;
        heap_show_block(heap, a);
        block_report = capture.text();
    }
    const std::string pc_b = fmt("0x%" PRIxPTR, u(heap_get_pc(b)));
    expect_lines({
        {"show heap 0 blocks", kListing + a_row(a) + f_row(heap, hole) + a_row(b) + f_row(heap, rest)},
        {"show heap 0 blocks 64", kListing + a_row(a) + a_row(b)},
        {"show heap 0 blocks alloc", kListing + a_row(a) + a_row(b)},
        {"sh he 0 bl al 64 pc " + pc_b, kListing + a_row(b)},
        {"show heap 0 blocks alloc pc " + fmt("%" PRIuPTR, u(heap_get_pc(a))), kListing + a_row(a)},
        {"show heap 0 blocks alloc 100 pc " + pc_b, kListing},
        {"show heap 0 blocks free", kListing + f_row(heap, hole) + f_row(heap, rest)},
        {"show heap 0 blocks free 96", kListing + f_row(heap, hole)},
        {"show heap 0 sanity", "Heap cli passed Heap block sanity check (        4 blocks)\n"},
        {"show heap 0 sanity active", "% \"active\" needs security level 10 (session level 0)\n", CLI_DENIED},
        {"set security 10", "Security level set to 10\n"},
        {"show heap 0 sanity active", "Heap cli passed Heap block sanity check (        4 blocks)\n"},
        {fmt("show heap 0 address %p", a), block_report},
        {fmt("show heap 0 address %p", foreign), foreign_report},
    });
    heap_free(world_.tiny, foreign);
    heap_free(heap, a);
    heap_free(heap, b);
}

TEST_F(HeapCommands, SanityActivePanicsOnACorruptedHeap) {
    EXPECT_LOGGED_DEATH(
        {
            hdr(at_a(world_.heap, 64))->magic = 0;
            cli_session_security_level_set(session_, 10);
            run("show heap 0 sanity active");
        },
        "Memory corruption in block");
}

TEST_F(HeapCommands, AccountingGroupsTheBlocksOfEachCallSite) {
    heap_t* heap = world_.heap;
    ASSERT_EQ(heap->free_bytes, heap->size);
    std::vector<void*> blocks = {at_a(heap, 64), at_a(heap, 64), at_a(heap, 60), at_a(heap, 200),
                                 at_b(heap, 64), at_b(heap, 64), at_b(heap, 1000)};
    const std::string a = pc_of(blocks[0]), b = pc_of(blocks[4]);
    const std::string rule = std::string(kPcWidth, '-') + "  ---------  ------------\n";
    const std::string head = fmt("   %-*s     Blocks      Bytes(b)\n   ", kPcWidth, "PC") + rule;
    const auto both = [](const std::string& pc, unsigned size, unsigned blocks, unsigned bytes) {
        return fmt("   %s  %9u  %9u  %12u\n", pc.c_str(), size, blocks, bytes);
    };
    const std::string both_rule = std::string(kPcWidth, '-') + "  ---------  ---------  ------------\n";
    expect_lines({
        {"show heap 0 accounting pc", "\n Allocated blocks of heap cli by PC\n" + head + pc_row(b, 3, 1128) +
                                          pc_row(a, 4, 392) + "   " + rule + pc_row("Total", 7, 1520)},
        {"show heap 0 accounting size",
         "\n Allocated blocks of heap cli by size\n"
         "     Size(b)     Blocks      Bytes(b)\n   ---------  ---------  ------------\n"
         "        1000          1          1000\n          64          5           320\n"
         "         200          1           200\n   ---------  ---------  ------------\n"
         "   Total              7          1520\n"},
        {"show heap 0 accounting pc size",
         "\n Allocated blocks of heap cli by PC and size\n" +
             fmt("   %-*s    Size(b)     Blocks      Bytes(b)\n   ", kPcWidth, "PC") + both_rule +
             both(b, 1000, 1, 1000) + both(a, 200, 1, 200) + both(a, 64, 3, 192) + both(b, 64, 2, 128) + "   " +
             both_rule + fmt("   %-*s  %9u  %12u\n", kPcWidth + 11, "Total", 7u, 1520u)},
    });
    for (void* p : blocks) heap_free(heap, p);

    // More sizes than a report holds: the last five, highest in memory, are summed as "other".
    blocks.clear();
    for (unsigned k = 0; k < 205; ++k) blocks.push_back(at_a(heap, 16 + 8 * k));
    const std::string sizes = run("show heap 0 accounting size");
    EXPECT_NE(sizes.find("   ---------  ---------  ------------\n        1608          1          1608\n"),
              std::string::npos);
    EXPECT_EQ(sizes.substr(sizes.find("   other")),
              "   other              5          8160\n   ---------  ---------  ------------\n"
              "   Total            205        170560\n"
              "   (more than the 200 rows a report holds: the rest are summed as \"other\")\n");
    for (void* p : blocks) heap_free(heap, p);
}

TEST_F(HeapCommands, AccountingRatesCountSinceThePreviousLook) {
    heap_t* heap = world_.heap;
    EXPECT_EQ(run("show heap 0 accounting rates"),
              "Counting allocations and frees of heap cli by PC from now on: the next accounting rates shows them\n");
    void* kept = at_a(heap, 64);
    const std::string a = pc_of(kept);
    heap_free(heap, at_a(heap, 64));
    void* once = at_b(heap, 1000);
    const std::string b = pc_of(once);
    heap_free(heap, once);
    const std::string rule = "   " + std::string(kPcWidth, '-') + "  ---------  ---------  ------------  ------------\n";
    const std::string head = fmt("   %-*s     Allocs      Frees    Alloc'd(b)      Freed(b)\n", kPcWidth, "PC") + rule;
    const auto row = [](const std::string& key, unsigned allocs, unsigned frees, unsigned in, unsigned out) {
        return fmt("   %-*s  %9u  %9u  %12u  %12u\n", kPcWidth, key.c_str(), allocs, frees, in, out);
    };
    const auto seen = [&] {  // the report with its duration read as T
        std::string text = run("show heap 0 accounting rates");
        const size_t from = text.find("last ") + 5;
        return text.replace(from, text.find(" seconds") - from, "T");
    };
    EXPECT_EQ(seen(), "\n Allocations and frees of heap cli by PC in the last T seconds\n" + head +
                          row(b, 1, 1, 1000, 1000) + row(a, 2, 1, 128, 64) + rule +
                          row("Total", 3, 2, 1128, 1064));
    heap_free(heap, kept);
    EXPECT_EQ(seen(), "\n Allocations and frees of heap cli by PC in the last T seconds\n" + head +
                          row(a, 0, 1, 0, 64) + rule + row("Total", 0, 1, 0, 64));
}
