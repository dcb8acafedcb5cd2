// Block validation: each of its tests failed by a real corruption, with
// its exact report; panics and refusals of the release path; walks.
#include <tuple>
#include <utility>

#include "heap_fixture.h"

using namespace heap_test;

namespace {

// Three allocated 64-byte blocks at the start of a heap, then free space.
struct Three {
    heap_t* heap;
    heap_block_t *a, *b, *c;
    explicit Three(bool debug = false) {
        heap = make_heap(65536);
        if (debug) heap_enable_debug(heap);
        a = hdr(heap_malloc(heap, 64));
        b = hdr(heap_malloc(heap, 64));
        c = hdr(heap_malloc(heap, 64));
        heap_disable_debug(heap);
    }
    unsigned char* b_guard() { return static_cast<unsigned char*>(data(b)) + heap_block_size(data(b)); }
    heap_block_t* freed_b() { return heap_free(heap, data(b)), b; }
};

// The blocks a corruption report names; with a list, the failure shows in a walk of that list.
struct Named {
    heap_block_t *block, *prev = nullptr, *next = nullptr;
    heap_freelist_t* list = nullptr;
};

struct Corruption {
    const char* error;
    bool debug;
    Named (*apply)(Three&);
};

heap_block_t* at(const void* base, intptr_t by) {
    return reinterpret_cast<heap_block_t*>(reinterpret_cast<uintptr_t>(base) + by);
}

heap_block_t outside_block;
list_item_t outside_link;

Named around_b(Three& t) { return {t.b, t.a, t.c}; }

// The release path reports `error`, then panics.
std::string panic_after(const char* error) {
    return std::string("HEAP: ") + error + "(.|\n)*Memory corruption in block 0x";
}

const char* const kBadPrev = "Possible block overrun - bad prev block pointer";

const Corruption kCorruptions[] = {
    {"Heap corrupted", false,
     [](Three& t) {
         t.heap->magic = 0x12345678;
         heap_freelist_t* deflt = &t.heap->freelist_table[0];
         return Named{at(deflt->blocks.head, -intptr_t{sizeof(void*)}), nullptr, nullptr, deflt};
     }},
    {"Invalid header magic number", false, [](Three& t) { return t.a->magic = 0x0EC0EE, Named{t.a}; }},
    {"Invalid header block magic number", false, [](Three& t) { return t.a->header.offset ^= 1, Named{t.a}; }},
    {kBadPrev, false, [](Three& t) { return t.b->prev = &outside_block, Named{t.b}; }},
    {kBadPrev, false, [](Three& t) { return t.b->prev = at(t.a, 2), Named{t.b}; }},  // misaligned
    {"Possible block overrun - bad prev header magic number", false,
     [](Three& t) {
         std::memset(data(t.a), 0, 64);
         return t.b->prev = static_cast<heap_block_t*>(data(t.a)), Named{t.b, t.b->prev};
     }},
    {"Possible block overrun - bad next header magic number", false,
     [](Three& t) { return t.c->magic = 0, around_b(t); }},
    {"Zero refcount in header for allocated block", false,
     [](Three& t) { return t.b->header.refcount = 0, around_b(t); }},
    {"Invalid heap pointer in header", false,
     [](Three& t) { return t.b->x.alloc.heap = make_heap(65536), around_b(t); }},
    {"Block overrun - TRAILER overwritten", true, [](Three& t) { return t.b_guard()[15] = 0, around_b(t); }},
    {"Non-zero refcount in header for free block", false,
     [](Three& t) { return t.freed_b()->header.refcount = 1, around_b(t); }},
    {"Invalid fprev pointer", false,
     [](Three& t) { return t.freed_b()->x.free.links.prev = &outside_link, around_b(t); }},
    {"Invalid fnext pointer", false,
     [](Three& t) { return t.freed_b()->x.free.links.next = &outside_link, around_b(t); }},
};

status_t walk_named(Three& t, const Named& n, bool noisy, bool active = false) {
    heap_walk_arg_t arg{noisy, active, 0, 0, 0, nullptr};
    return n.list != nullptr ? heap_freelist_walk(t.heap, n.list, nullptr, &arg) : walk(t.heap, noisy, active);
}

}  // namespace

// Each corruption fails a walk with its exact report (silently when the walk
// is quiet), and ends the process the way the heap catches it on its own: a
// bad heap record on the release of one of its blocks, with or without the
// heap given; an allocated block on its release; a free block when a walk
// that panics reaches it.
TEST(HeapValidate, EachCorruptionFailsWithItsExactReportAndIsCaught) {
    for (const Corruption& c : kCorruptions) {
        SCOPED_TRACE(c.error);
        Three t(c.debug);
        ASSERT_EQ(walk(t.heap), 0);
        Named n = c.apply(t);
        auto expected = expected_report(t.heap, c.error, n.block, n.prev, n.next);
        u_int32_t failures = heap_bp_failure_count;
        syslog_clear();
        EXPECT_EQ(walk_named(t, n, true), 1000);
        EXPECT_EQ(syslog_texts(3), expected);
        // One count for the report, one for each block log in it.
        EXPECT_EQ(heap_bp_failure_count - failures, 2u + (n.prev != nullptr) + (n.next != nullptr));
        syslog_clear();
        EXPECT_EQ(walk_named(t, n, false), 1000);
        EXPECT_TRUE(syslog_texts(3).empty());
        if (n.list != nullptr) {  // the block log stops early against a bad heap
            EXPECT_EQ(expected.back(), "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");
            for (heap_t* given : {t.heap, static_cast<heap_t*>(nullptr)})
                EXPECT_LOGGED_DEATH(heap_free(given, data(t.b)), "<0>Heap corruption at 0x");
        } else if (n.block->header.allocated) {
            EXPECT_LOGGED_DEATH(heap_free(n.block->x.alloc.heap == t.heap ? t.heap : nullptr, data(n.block)),
                                panic_after(c.error));
        } else {
            EXPECT_LOGGED_DEATH(walk(t.heap, false, true), panic_after(c.error));
        }
    }
}

TEST(HeapValidate, NearMissesPass) {
    Three t(true);
    // Only bits 16 and 17 are outside the header mark; slack before the
    // trailer and the trailer's address word are not guard bytes.
    u_int32_t w = word(t.a) ^ 0x00030000u;
    std::memcpy(&t.a->header, &w, 4);
    auto* bytes = static_cast<unsigned char*>(data(t.b));
    bytes[heap_block_size(bytes) - 1] = 0;
    bytes[heap_block_size(bytes) + 16] ^= 1;
    EXPECT_EQ(walk(t.heap), 0);
    t.a->header.offset ^= 1;  // the block log names a bad mark
    EXPECT_EQ(block_log_of(t.heap, t.a).at(32), "HEAP:     offset    : fffffff8    : Bad  Heap Block Magic number \n");
}

TEST(HeapValidate, ReleasePanicsAndRefusals) {
    Three t;
    // A block of another heap, or released without a heap: checked against the heap it lies in.
    t.b->x.alloc.heap = make_heap(65536);
    EXPECT_LOGGED_DEATH(heap_free(nullptr, data(t.b)), panic_after("Invalid heap pointer in header"));
    EXPECT_DEATH(heap_free(t.heap, data(t.b)), "heap/heap.*heap_block_return.*heap == expect_heap");
    t.b->x.alloc.heap = t.heap;
    static char elsewhere[128];  // an address in no heap at all is refused, logged and counted, not followed
    const u_int32_t failures = heap_bp_failure_count;
    syslog_clear();
    heap_free(t.heap, elsewhere + 64);
    heap_free(nullptr, elsewhere + 64);
    EXPECT_EQ(std::tuple(syslog_texts(3).at(0), heap_bp_failure_count - failures),
              std::tuple(fmt("HEAP: Freeing %p, which lies in no heap\n", static_cast<void*>(elsewhere + 64)), 2u));
    // Released twice after merging into a free predecessor: a dead header; without a merge: its heap
    // word is now a list link.
    heap_free(t.heap, data(t.a));
    heap_free(t.heap, data(t.b));
    EXPECT_LOGGED_DEATH(heap_free(t.heap, data(t.b)), panic_after("Invalid header magic number"));
    Three u;
    heap_free(u.heap, data(u.b));
    EXPECT_DEATH(heap_free(u.heap, data(u.b)), "heap == expect_heap");
    EXPECT_LOGGED_DEATH(heap_free(nullptr, data(u.b)), "<0>Heap corruption at 0x");
}

void called_post_free(void* p, size_t size) { heap_block_post_free(p, size); }

// A corrupt free neighbour stops the merge before its links are followed,
// from either side, whether the release runs the default hooks in place
// (knowing what they leave as the released block's checks found it) or
// calls a hook that might change anything.
TEST(HeapValidate, CorruptFreeNeighbourStopsTheMerge) {
    const std::pair<const char*, void (*)(Three&)> corruptions[] = {
        {"Invalid fnext pointer", [](Three& t) { t.b->x.free.links.next = &outside_link; }},
        {"Invalid header block magic number", [](Three& t) { t.b->header.offset ^= 1; }},
        {"Possible block overrun - bad prev header magic number",
         [](Three& t) { t.b->prev = static_cast<heap_block_t*>(data(t.a)); }},
    };
    for (bool hook_called : {false, true}) {
        for (auto [error, corrupt] : corruptions) {
            SCOPED_TRACE(::testing::Message() << error << (hook_called ? ", hook called" : ", hooks in place"));
            Three t;
            heap_debug_proc_t hooks{called_post_free, heap_block_post_coalesce, heap_block_pre_alloc};
            if (hook_called) heap_set_debug_proc(t.heap, &hooks);
            std::memset(data(t.a), 0, 64);
            t.freed_b();
            corrupt(t);
            for (heap_block_t* neighbour : {t.a, t.c})
                EXPECT_LOGGED_DEATH(heap_free(t.heap, data(neighbour)), panic_after(error));
        }
    }
}

TEST(HeapValidate, ReleasingAFreeBlockThatPassesValidationIsRefused) {
    // A free header passes the checks with its heap word naming the heap
    // only when the heap's record lies inside its own range: build that.
    char* range = make_range(8192);
    auto* heap = reinterpret_cast<heap_t*>(range + 4096);
    auto first = reinterpret_cast<uintptr_t>(range);
    ASSERT_EQ(heap_create(heap, first, first + 8192, const_cast<char*>("inside")), 0);
    auto* block = reinterpret_cast<heap_block_t*>(heap->base);
    block->x.free.links.prev = reinterpret_cast<list_item_t*>(heap);
    std::vector<std::string> expected = block_log_of(heap, block);
    expected.insert(expected.begin(), "traceback: Freeing an already freed block!\n");
    const u_int32_t failures = heap_bp_failure_count;
    syslog_clear();
    heap_free(heap, data(block));
    EXPECT_EQ(syslog_texts(3), expected);
    EXPECT_EQ(std::tuple(heap_bp_failure_count - failures, +block->header.allocated, heap->stats.frees),
              std::tuple(2u, 0u, 0u));
}

TEST(HeapValidate, CorruptedSizeNeverLeadsOutsideTheRange) {
    Three t(true);
    const size_t saved = std::exchange(t.b->size, t.heap->size);  // the trailer would lie past the end: not read
    EXPECT_EQ(walk(t.heap), 1000);
    t.b->size = saved;
    void* d = heap_malloc(t.heap, 64);
    void* last = heap_malloc(t.heap, next_of(hdr(d))->size);  // takes the rest whole
    hdr(last)->size += 4096;
    EXPECT_EQ(walk(t.heap), 0) << "no next block to contradict it";
    EXPECT_LOGGED_DEATH(heap_free(t.heap, last), panic_after("Block size runs past the end of the heap"));
    // A free block whose size ends in mid-air is not used for an allocation.
    hdr(last)->size -= 4096;
    heap_free(t.heap, d);
    heap_free(t.heap, last);
    hdr(d)->size += 4096;
    EXPECT_LOGGED_DEATH(heap_malloc(t.heap, hdr(d)->size - 4096), "Memory corruption in block 0x");
}

namespace {

TEST(HeapWalk, BadHeapsAndBadPrevChains) {
    heap_t never{};
    EXPECT_EQ(walk(&never), 22);
    EXPECT_LOGGED_DEATH(walk(&never, false, true), "<0>heap_check: Bad heap at 0x");
    heap_t* heap = make_heap(65536);
    void* a = heap_malloc(heap, 64);
    void* b = heap_malloc(heap, 64);
    void* c = heap_malloc(heap, 64);
    hdr(c)->prev = hdr(a);  // a live block, but not the one before
    std::vector<std::string> expected = {"HEAP:\n", "HEAP:\n", "HEAP: Either Current block has bad prev pointer\n",
                                         "HEAP: Or Previous block has bad size\n",
                                         fmt("HEAP: Current Heap Block: %p\n", static_cast<void*>(hdr(c)))};
    for (auto part : {block_log_of(heap, hdr(c)),
                      std::vector<std::string>{"HEAP:\n", "HEAP:\n",
                                               fmt("HEAP: Previous Heap Block: %p\n", static_cast<void*>(hdr(b)))},
                      block_log_of(heap, hdr(b))})
        expected.insert(expected.end(), part.begin(), part.end());
    syslog_clear();
    EXPECT_EQ(walk(heap, true), 1000);
    EXPECT_EQ(syslog_texts(3), expected);
    // The child runs the test afresh, so its addresses are its own.
    EXPECT_LOGGED_DEATH(walk(heap, false, true), "HEAP: Either Current block has bad prev pointer(.|\n)*"
                        "<0>HEAP: Bad prev pointer for block 0x[0-9a-f]+ \\(0x[0-9a-f]+ != 0x[0-9a-f]+\\)");
}

}  // namespace
