// Block validation: each of the twelve tests failed by a real corruption,
// with its exact report; panics and assertions of the release path.
#include <algorithm>

#include "heap_fixture.h"

using namespace heap_test;
using corvex_test::syslog_clear;

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
    const char* release_death = nullptr;  // what releasing the named block dies with, if checked
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
const char* const kTrailer = "Block overrun - TRAILER overwritten";

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
    {kBadPrev, false,  // no room for a header before the end of the range
     [](Three& t) { return t.b->prev = at(reinterpret_cast<void*>(t.heap->base + t.heap->size), -8), Named{t.b}; }},
    {"Possible block overrun - bad prev header magic number", false,
     [](Three& t) {
         std::memset(data(t.a), 0, 64);
         return t.b->prev = static_cast<heap_block_t*>(data(t.a)), Named{t.b, t.b->prev};
     }},
    {"Possible block overrun - bad next header magic number", false,
     [](Three& t) { return t.c->magic = 0, around_b(t); },
     "<3>HEAP: Possible block overrun - bad next header magic number(.|\n)*Memory corruption in block 0x"},
    {"Zero refcount in header for allocated block", false,
     [](Three& t) { return t.b->header.refcount = 0, around_b(t); }},
    {"Invalid heap pointer in header", false,
     [](Three& t) { return t.b->x.alloc.heap = make_heap(65536), around_b(t); }},
    {kTrailer, true, [](Three& t) { return t.b_guard()[0] = 0x54, around_b(t); },
     "TRAILER overwritten(.|\n)*FAILED VALIDITY CHECKS(.|\n)*Memory corruption in block 0x"},
    {kTrailer, true, [](Three& t) { return t.b_guard()[15] = 0, around_b(t); }},
    {"Non-zero refcount in header for free block", false,
     [](Three& t) { return t.freed_b()->header.refcount = 1, around_b(t); }},
    {"Invalid fprev pointer", false,
     [](Three& t) { return t.freed_b()->x.free.links.prev = &outside_link, around_b(t); }},
    {"Invalid fnext pointer", false,
     [](Three& t) { return t.freed_b()->x.free.links.next = &outside_link, around_b(t); }},
};

status_t walk_named(Three& t, const Named& n, heap_walk_arg_t arg) {
    return n.list != nullptr ? heap_freelist_walk(t.heap, n.list, nullptr, &arg) : heap_walk(t.heap, nullptr, &arg);
}

}  // namespace

TEST(HeapValidate, EachCorruptionFailsWithItsExactReport) {
    for (const Corruption& c : kCorruptions) {
        SCOPED_TRACE(c.error);
        Three t(c.debug);
        ASSERT_EQ(walk(t.heap), 0);
        Named n = c.apply(t);
        auto expected = expected_report(t.heap, c.error, n.block, n.prev, n.next);
        u_int32_t failures = heap_bp_failure_count;
        syslog_clear();
        EXPECT_EQ(walk_named(t, n, walk_arg(true)), 1000);
        EXPECT_EQ(log_texts(), expected);
        // One count for the report, one for each block log in it.
        EXPECT_EQ(heap_bp_failure_count - failures, 2u + (n.prev != nullptr) + (n.next != nullptr));
        syslog_clear();
        EXPECT_EQ(walk_named(t, n, walk_arg()), 1000);
        EXPECT_TRUE(log_texts().empty());
        if (c.release_death != nullptr) {
            EXPECT_LOGGED_DEATH(heap_free(t.heap, data(n.block)), c.release_death);
        }
        if (n.list != nullptr) {  // the block log stops early against a bad heap
            EXPECT_EQ(expected.back(), "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");
            EXPECT_LOGGED_DEATH(walk_named(t, n, walk_arg(true, true)), "Heap corruption at 0x");
        }
    }
}

namespace {

// Dies of the corruption the way the heap catches it on its own: a bad heap
// record on the release of one of its blocks; an allocated block on its
// release, with the heap its header names (none when that is a foreign
// heap); a free block when a walk that panics reaches it.
void catch_and_die(Three& t, const Corruption& c, bool heap_given) {
    Named n = c.apply(t);
    if (n.list != nullptr) {
        expect_at_abort(panic_records(fmt("Heap corruption at 0x%p\n", static_cast<void*>(t.heap))), 1);
        heap_free(heap_given ? t.heap : nullptr, data(t.b));
        return;
    }
    auto log = records(3, expected_report(t.heap, c.error, n.block, n.prev, n.next));
    append(log, panic_records(fmt("Memory corruption in block %p\n", static_cast<void*>(n.block))));
    expect_at_abort(log, 2u + (n.prev != nullptr) + (n.next != nullptr));
    if (n.block->header.allocated) {
        heap_free(n.block->x.alloc.heap == t.heap ? t.heap : nullptr, data(n.block));
    }
    heap_walk_arg_t active = walk_arg(false, true);  // a release that did not die leaves a log that differs
    heap_walk(t.heap, nullptr, &active);
}

}  // namespace

TEST(HeapValidate, EachCorruptionIsCaughtWithItsExactLog) {
    for (const Corruption& c : kCorruptions) {
        SCOPED_TRACE(c.error);
        const bool record = std::string(c.error) == "Heap corrupted";
        for (bool heap_given : {true, false}) {
            if (!heap_given && !record) continue;
            EXPECT_EXACT_LOG_DEATH({
                Three t(c.debug);
                catch_and_die(t, c, heap_given);
            });
        }
    }
}

TEST(HeapValidate, NearMissesPass) {
    Three t(true);
    // Only bits 16 and 17 are outside the header mark.
    u_int32_t w = word(t.a) ^ 0x00030000u;
    std::memcpy(&t.a->header, &w, 4);
    // Slack between the request and the trailer, and the trailer's address word, are not guard bytes.
    auto* bytes = static_cast<unsigned char*>(data(t.b));
    const size_t usable = heap_block_size(bytes);
    bytes[usable - 1] = 0;
    bytes[usable + 16] ^= 1;
    EXPECT_EQ(walk(t.heap), 0);
    t.a->header.offset ^= 1;  // the block log names a bad mark
    auto log = block_log_of(t.heap, t.a);
    EXPECT_NE(std::find(log.begin(), log.end(), "HEAP:     offset    : fffffff8    : Bad  Heap Block Magic number \n"),
              log.end());
}

TEST(HeapValidate, ReleasePanicsAndAssertions) {
    Three t;
    // A block of another heap, or released without a heap: checked against the heap it lies in.
    t.b->x.alloc.heap = make_heap(65536);
    EXPECT_LOGGED_DEATH(heap_free(nullptr, data(t.b)), panic_after("Invalid heap pointer in header"));
    EXPECT_DEATH(heap_free(t.heap, data(t.b)), "heap == expect_heap");
    t.b->x.alloc.heap = t.heap;
    // An address in no heap at all is refused and logged, not followed.
    static char elsewhere[128];
    u_int32_t failures = heap_bp_failure_count;
    syslog_clear();
    heap_free(t.heap, elsewhere + 64);
    heap_free(nullptr, elsewhere + 64);
    EXPECT_EQ(log_texts()[0], fmt("HEAP: Freeing %p, which lies in no heap\n", static_cast<void*>(elsewhere + 64)));
    EXPECT_EQ(heap_bp_failure_count, failures + 2);
    // Released twice after merging into a free predecessor: the dead header.
    heap_free(t.heap, data(t.a));
    heap_free(t.heap, data(t.b));
    EXPECT_LOGGED_DEATH(heap_free(t.heap, data(t.b)), panic_after("Invalid header magic number"));
    // Released twice without a merge: its heap word is now a list link.
    Three u;
    heap_free(u.heap, data(u.b));
    EXPECT_DEATH(heap_free(u.heap, data(u.b)), "heap/heap.*heap_block_return.*heap == expect_heap");
    EXPECT_LOGGED_DEATH(heap_free(nullptr, data(u.b)), "Heap corruption at 0x");
    // A corrupt free neighbour stops the merge before its links are followed, from either side.
    static list_item_t outside;
    u.b->x.free.links.next = &outside;
    for (heap_block_t* neighbour : {u.a, u.c}) {
        EXPECT_LOGGED_DEATH(heap_free(u.heap, data(neighbour)), panic_after("Invalid fnext pointer"));
    }
}

TEST(HeapValidate, ReleasingAFreeBlockThatPassesValidationIsRefused) {
    // A free header passes the checks with its heap word naming the heap
    // only when the heap's record lies inside its own range: build that.
    char* range = make_range(8192);
    auto* heap = reinterpret_cast<heap_t*>(range + 4096);
    ASSERT_EQ(create(heap, range, 8192, "inside"), 0);
    ASSERT_EQ(heap->stats.allocs, 0u);  // the self-test found no room for its table
    heap_block_t* block = first_block(heap);
    block->x.free.links.prev = reinterpret_cast<list_item_t*>(heap);
    std::vector<std::string> expected = {"traceback: Freeing an already freed block!\n"};
    append(expected, block_log_of(heap, block));
    u_int32_t failures = heap_bp_failure_count;
    syslog_clear();
    heap_free(heap, data(block));
    EXPECT_EQ(log_texts(), expected);
    EXPECT_EQ(heap_bp_failure_count, failures + 2);  // the refusal and its block log
    EXPECT_EQ(block->header.allocated, 0u);
    EXPECT_EQ(heap->stats.frees, 0u);
}

TEST(HeapValidate, CorruptedSizeNeverLeadsOutsideTheRange) {
    Three t(true);
    // A trailer placed past the end of the range by the size fails, and is not read.
    size_t saved = t.b->size;
    t.b->size = t.heap->size;
    EXPECT_EQ(walk(t.heap), 1000);
    t.b->size = saved;
    // The last allocated block claims to run past the end of the range.
    void* d = heap_malloc(t.heap, 64);
    void* last = heap_malloc(t.heap, next_of(hdr(d))->size);  // takes the rest whole
    ASSERT_EQ(hdr(last), next_of(hdr(d)));
    hdr(last)->size += 4096;
    EXPECT_EQ(walk(t.heap), 0);  // passes validation: no next block
    EXPECT_LOGGED_DEATH(heap_free(t.heap, last), panic_after("Block size runs past the end of the heap"));
    // A free block whose size ends in mid-air: not used for an allocation.
    hdr(last)->size -= 4096;
    heap_free(t.heap, d);
    heap_free(t.heap, last);
    hdr(d)->size += 4096;
    EXPECT_LOGGED_DEATH(heap_malloc(t.heap, hdr(d)->size - 4096), "Memory corruption in block 0x");
}
