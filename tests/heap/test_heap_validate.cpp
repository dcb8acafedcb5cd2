// Block validation: each of the twelve tests failed by a real corruption,
// with its exact report; panics and assertions of the release path.
#include <algorithm>
#include <string>
#include <vector>

#include "heap_fixture.h"
#include "heap_log.h"

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
    void free_b() { heap_free(heap, data(b)); }
};

heap_walk_arg_t noisy() {
    heap_walk_arg_t arg{};
    arg.noisy = TRUE;
    return arg;
}

// A noisy walk fails with 1000 and logs exactly the expected report.
void expect_walk_report(heap_t* heap, const char* error, heap_block_t* block, heap_block_t* prev = nullptr,
                        heap_block_t* next = nullptr) {
    auto expected = expected_report(heap, error, block, prev, next);
    heap_walk_arg_t arg = noisy();
    u_int32_t failures = heap_bp_failure_count;
    syslog_clear();
    EXPECT_EQ(heap_walk(heap, nullptr, &arg), 1000);
    EXPECT_EQ(log_texts(), expected) << error;
    // One count for the report, one for each block log in it.
    EXPECT_EQ(heap_bp_failure_count - failures, 2u + (prev != nullptr) + (next != nullptr));
    // Quietly: the same status, nothing logged.
    heap_walk_arg_t quiet{};
    syslog_clear();
    EXPECT_EQ(heap_walk(heap, nullptr, &quiet), 1000);
    EXPECT_TRUE(log_texts().empty());
}

void set_word(heap_block_t* block, u_int32_t w) { std::memcpy(&block->header, &w, 4); }

}  // namespace

TEST(HeapValidate, Test1HeapCorrupted) {
    Three t;
    heap_freelist_t* deflt = &t.heap->freelist_table[0];
    heap_block_t* free_block = reinterpret_cast<heap_block_t*>(reinterpret_cast<char*>(deflt->blocks.head) - sizeof(void*));
    t.heap->magic = 0x12345678;
    auto expected = expected_report(t.heap, "Heap corrupted", free_block);
    heap_walk_arg_t arg = noisy();
    syslog_clear();
    EXPECT_EQ(heap_freelist_walk(t.heap, deflt, nullptr, &arg), 1000);
    EXPECT_EQ(log_texts(), expected);
    // The block log of a block validated against a bad heap stops early.
    EXPECT_EQ(expected.back(), "\nHEAP: ******** FAILED VALIDITY CHECKS **********\n\n");
    arg.active = TRUE;
    EXPECT_DEATH(
        {
            corvex_test::syslog_echo_to_stderr(true);
            heap_freelist_walk(t.heap, deflt, nullptr, &arg);
        },
        "Heap corruption at 0x");
    t.heap->magic = 0xCACAD000;
    EXPECT_EQ(walk(t.heap), 0);
}

TEST(HeapValidate, Test2And3HeaderMarks) {
    {
        Three t;
        t.a->magic = 0x0EC0EE;
        expect_walk_report(t.heap, "Invalid header magic number", t.a);
    }
    {
        Three t;
        // Only bits 16 and 17 are outside the mark.
        u_int32_t w = word(t.a);
        set_word(t.a, w ^ 0x00030000u);
        EXPECT_EQ(walk(t.heap), 0);
        set_word(t.a, w ^ 0x00040000u);
        expect_walk_report(t.heap, "Invalid header block magic number", t.a);
        auto log = block_log_of(t.heap, t.a);
        EXPECT_NE(std::find(log.begin(), log.end(), "HEAP:     offset    : fffffff8    : Bad  Heap Block Magic number \n"),
                  log.end());
    }
}

TEST(HeapValidate, Test4And5PrevPointer) {
    {
        Three t;
        static heap_block_t outside;
        t.b->prev = &outside;
        expect_walk_report(t.heap, "Possible block overrun - bad prev block pointer", t.b);
        // Inside but misaligned, or too close to the end for a header: also bad.
        t.b->prev = reinterpret_cast<heap_block_t*>(reinterpret_cast<char*>(t.a) + 2);
        expect_walk_report(t.heap, "Possible block overrun - bad prev block pointer", t.b);
        t.b->prev = reinterpret_cast<heap_block_t*>(t.heap->base + t.heap->size - 8);
        expect_walk_report(t.heap, "Possible block overrun - bad prev block pointer", t.b);
    }
    {
        Three t;
        std::memset(data(t.a), 0, 64);
        auto* fake = static_cast<heap_block_t*>(data(t.a));
        t.b->prev = fake;
        expect_walk_report(t.heap, "Possible block overrun - bad prev header magic number", t.b, fake);
    }
}

TEST(HeapValidate, Test6NextHeaderReportedOnTheBlockBefore) {
    Three t;
    // Overwriting the next header's prev word is not the block's own failure.
    t.c->prev = nullptr;
    heap_walk_arg_t quiet{};
    EXPECT_EQ(heap_walk(t.heap, nullptr, &quiet), 1000);  // the walk's chain check catches it
    t.c->prev = t.b;
    t.c->magic = 0;
    expect_walk_report(t.heap, "Possible block overrun - bad next header magic number", t.b, t.a, t.c);
    EXPECT_DEATH(
        {
            corvex_test::syslog_echo_to_stderr(true);
            heap_free(t.heap, data(t.b));
        },
        "<3>HEAP: Possible block overrun - bad next header magic number(.|\n)*Memory corruption in block 0x");
}

TEST(HeapValidate, Test7And8AllocatedHeader) {
    Three t;
    t.b->header.refcount = 0;
    expect_walk_report(t.heap, "Zero refcount in header for allocated block", t.b, t.a, t.c);
    t.b->header.refcount = 1;
    heap_t* other = make_heap(65536);
    t.b->x.alloc.heap = other;
    expect_walk_report(t.heap, "Invalid heap pointer in header", t.b, t.a, t.c);
    // Released without a heap: checked against the heap it lies in.
    EXPECT_DEATH(
        {
            corvex_test::syslog_echo_to_stderr(true);
            heap_free(nullptr, data(t.b));
        },
        "HEAP: Invalid heap pointer in header(.|\n)*Memory corruption in block 0x");
    EXPECT_DEATH(heap_free(t.heap, data(t.b)), "heap == expect_heap");
    t.b->x.alloc.heap = t.heap;
    EXPECT_EQ(walk(t.heap), 0);
}

TEST(HeapValidate, Test9TrailerOverwritten) {
    Three t(true);
    auto* bytes = static_cast<unsigned char*>(data(t.b));
    const size_t usable = heap_block_size(bytes);
    EXPECT_EQ(usable, t.b->size - kTrailer);
    // Slack between the request and the trailer is not checked.
    bytes[usable - 1] = 0;
    EXPECT_EQ(walk(t.heap), 0);
    bytes[usable] = 0x54;  // first guard byte
    expect_walk_report(t.heap, "Block overrun - TRAILER overwritten", t.b, t.a, t.c);
    bytes[usable] = 0x55;
    bytes[usable + 15] = 0;  // last guard byte
    expect_walk_report(t.heap, "Block overrun - TRAILER overwritten", t.b, t.a, t.c);
    bytes[usable + 15] = 0x55;
    bytes[usable + 16] ^= 1;  // the address word is not a guard byte
    EXPECT_EQ(walk(t.heap), 0);
    EXPECT_DEATH(
        {
            bytes[usable + 3] = 'X';
            corvex_test::syslog_echo_to_stderr(true);
            heap_free(t.heap, bytes);
        },
        "TRAILER overwritten(.|\n)*FAILED VALIDITY CHECKS(.|\n)*Memory corruption in block 0x");
    // A size that puts the trailer past the end of the range fails too, and
    // nothing outside the range is read.
    t.b->size = t.heap->size;
    heap_walk_arg_t quiet{};
    EXPECT_EQ(heap_walk(t.heap, nullptr, &quiet), 1000);
}

TEST(HeapValidate, Test10To12FreeHeader) {
    Three t;
    t.free_b();
    EXPECT_EQ(walk(t.heap), 0);
    t.b->header.refcount = 1;
    expect_walk_report(t.heap, "Non-zero refcount in header for free block", t.b, t.a, t.c);
    t.b->header.refcount = 0;
    static list_item_t outside;
    list_item_t saved = t.b->x.free.links;
    t.b->x.free.links.prev = &outside;
    expect_walk_report(t.heap, "Invalid fprev pointer", t.b, t.a, t.c);
    t.b->x.free.links = saved;
    t.b->x.free.links.next = &outside;
    expect_walk_report(t.heap, "Invalid fnext pointer", t.b, t.a, t.c);
    t.b->x.free.links = saved;
    EXPECT_EQ(walk(t.heap), 0);
}

TEST(HeapValidate, ReleasePanicsAndAssertions) {
    Three t;
    // Released twice after merging into a free predecessor: the dead header.
    void* a = data(t.a);
    void* b = data(t.b);
    heap_free(t.heap, a);
    heap_free(t.heap, b);
    EXPECT_EQ(t.b->magic, 0xF13F12u);
    EXPECT_DEATH(
        {
            corvex_test::syslog_echo_to_stderr(true);
            heap_free(t.heap, b);
        },
        "HEAP: Invalid header magic number(.|\n)*Memory corruption in block 0x");
    // Released twice without a merge: its heap word is now a list link.
    Three u;
    heap_free(u.heap, data(u.b));
    EXPECT_DEATH(heap_free(u.heap, data(u.b)), "heap/heap.*heap_block_return.*heap == expect_heap");
    EXPECT_DEATH(
        {
            corvex_test::syslog_echo_to_stderr(true);
            heap_free(nullptr, data(u.b));
        },
        "Heap corruption at 0x");
}

TEST(HeapValidate, ReleasingAFreeBlockThatPassesValidationIsRefused) {
    // A free header passes the checks with its heap word naming the heap
    // only when the heap's record lies inside its own range: build that.
    char* range = make_range(8192);
    auto* heap = reinterpret_cast<heap_t*>(range + 4096);
    uintptr_t first = reinterpret_cast<uintptr_t>(range);
    ASSERT_EQ(heap_create(heap, first, first + 8192, const_cast<char*>("inside")), 0);
    ASSERT_EQ(heap->stats.allocs, 0u);  // the self-test found no room for its table
    heap_block_t* block = first_block(heap);
    block->x.free.links.prev = reinterpret_cast<list_item_t*>(heap);
    u_int32_t failures = heap_bp_failure_count;
    auto log = block_log_of(heap, block);
    syslog_clear();
    heap_free(heap, data(block));
    std::vector<std::string> expected = {"traceback: Freeing an already freed block!\n"};
    append(expected, log);
    EXPECT_EQ(log_texts(), expected);
    EXPECT_EQ(heap_bp_failure_count, failures + 3);  // the earlier log, the refusal, this log
    EXPECT_EQ(block->header.allocated, 0u);
    EXPECT_EQ(heap->stats.frees, 0u);
}

TEST(HeapValidate, ForeignPointersAreRefusedWithoutBeingRead) {
    Three t;
    heap_t* other = make_heap(65536);
    void* theirs = heap_malloc(other, 32);
    // A block of another heap: the heap named in its header is not the one given.
    EXPECT_DEATH(heap_free(t.heap, theirs), "heap == expect_heap");
    // An address in no heap at all is refused and logged, not followed.
    static char elsewhere[128];
    u_int32_t failures = heap_bp_failure_count;
    syslog_clear();
    heap_free(t.heap, elsewhere + 64);
    heap_free(nullptr, elsewhere + 64);
    EXPECT_EQ(log_texts()[0], fmt("HEAP: Freeing %p, which lies in no heap\n", static_cast<void*>(elsewhere + 64)));
    EXPECT_EQ(heap_bp_failure_count, failures + 2);
    heap_free(other, theirs);
    expect_whole(other);
}

TEST(HeapValidate, CorruptedSizeNeverLeadsOutsideTheRange) {
    Three t;
    // The last allocated block claims to run past the end of the range.
    void* d = heap_malloc(t.heap, 64);
    heap_block_t* tail = next_of(hdr(d));
    void* last = heap_malloc(t.heap, tail->size);  // takes the rest whole
    ASSERT_EQ(hdr(last), tail);
    hdr(last)->size += 4096;
    heap_walk_arg_t quiet{};
    EXPECT_EQ(heap_walk(t.heap, nullptr, &quiet), 0);  // passes validation: no next block
    EXPECT_DEATH(
        {
            corvex_test::syslog_echo_to_stderr(true);
            heap_free(t.heap, last);
        },
        "HEAP: Block size runs past the end of the heap(.|\n)*Memory corruption in block 0x");
    // A free block whose size ends in mid-air: not used for an allocation.
    hdr(last)->size -= 4096;
    heap_free(t.heap, d);
    heap_free(t.heap, last);
    heap_block_t* rest = hdr(d);
    rest->size += 4096;
    EXPECT_DEATH(
        {
            corvex_test::syslog_echo_to_stderr(true);
            heap_malloc(t.heap, rest->size - 4096);
        },
        "Memory corruption in block 0x");
}

TEST(HeapValidate, ACorruptFreeNeighbourStopsTheMergeBeforeItsLinksAreFollowed) {
    Three t;
    t.free_b();
    static list_item_t outside;
    t.b->x.free.links.next = &outside;
    EXPECT_DEATH(
        {
            corvex_test::syslog_echo_to_stderr(true);
            heap_free(t.heap, data(t.a));
        },
        "HEAP: Invalid fnext pointer(.|\n)*Memory corruption in block 0x");
    EXPECT_DEATH(
        {
            corvex_test::syslog_echo_to_stderr(true);
            heap_free(t.heap, data(t.c));
        },
        "HEAP: Invalid fnext pointer(.|\n)*Memory corruption in block 0x");
}
