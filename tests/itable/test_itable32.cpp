// 32-bit indexed table: lower tables on demand, the limit, the mark, the
// periodic cleanup, walks across lower tables, destroy, index 0xFFFFFFFF.
#include <vector>

#include <gtest/gtest.h>

#include "counting_allocator.h"
#include "itable32.h"

using corvex_test::CountingAllocator;
using corvex_test::token;

namespace {

class Itable32Test : public ::testing::Test {
protected:
    void SetUp() override {
        table = itable32_create_shm(&CountingAllocator::alloc, &CountingAllocator::release, &heap);
        ASSERT_NE(table, nullptr);
    }
    void TearDown() override {
        if (table != nullptr) itable32_destroy(table);
        EXPECT_EQ(heap.live(), 0u) << "storage not given back by destroy";
    }

    // Indices by value, so the helpers can hand their address on.
    status_t put(index32_t i) { return itable32_insert(table, token(i), &i); }
    void drop(index32_t i) { itable32_remove(table, &i); }
    void* get(index32_t i) { return itable32_lookup(table, &i); }
    void* replace(index32_t i, void* value) { return itable32_replace(table, &i, value); }
    int64_t alloc() {
        index32_t i = 0;
        return itable32_alloc(table, token(7), &i) == 0 ? static_cast<int64_t>(i) : -1;
    }
    itable16_t* lower(u_int32_t upper) {
        return static_cast<itable16_t*>(itable16_lookup_inline(table->itable32_upper, static_cast<index16_t>(upper)));
    }
    std::vector<u_int32_t> walk() {
        std::vector<u_int32_t> seen;
        index32_t cursor = 0xDEADBEEF;
        for (void* p = itable32_getnext(table, nullptr, &cursor); p != nullptr;
             p = itable32_getnext(table, &cursor, &cursor)) {
            EXPECT_EQ(p, get(cursor));
            seen.push_back(cursor);
        }
        return seen;
    }

    CountingAllocator heap;
    itable32_t* table = nullptr;
};

TEST_F(Itable32Test, CreateSetsDefaultsAndFailsCleanlyWithoutMemory) {
    EXPECT_EQ(table->itable32_maxindex, 0xFFFFFFFFu);
    EXPECT_EQ(table->shm_flag, 1);
    EXPECT_TRUE(heap.holds(table));
    EXPECT_TRUE(heap.holds(table->itable32_upper));
    itable32_t* plain = itable32_create();
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(plain->shm_flag, 0);
    EXPECT_EQ(plain->free_func, &itable32_free_default);
    EXPECT_FALSE(heap.holds(plain->itable32_upper));
    u_int32_t i = 0x50000;
    EXPECT_EQ(itable32_insert(plain, token(1), &i), 0);
    EXPECT_EQ(itable32_destroy(plain), 1);

    heap.fail_after(1);  // the record, but not the upper table
    EXPECT_EQ(itable32_create_shm(&CountingAllocator::alloc, &CountingAllocator::release, &heap), nullptr);
    heap.fail_after(0);
    EXPECT_EQ(put(0x40000), 12);
    EXPECT_EQ(alloc(), -1);
    heap.fail_after(1);  // the lower table's record, but not the upper table's can
    EXPECT_EQ(put(0x40000), 12);
    heap.fail_after(-1);
    EXPECT_EQ(lower(4), nullptr);
    EXPECT_EQ(heap.live(), 2u);  // only the fixture's table and its upper table
    EXPECT_EQ(table->itable32_maxentry, 0u);
    EXPECT_EQ(put(0x40000), 0);
    EXPECT_EQ(itable32_init(nullptr, nullptr, nullptr, nullptr, 0), 1000);
    EXPECT_EQ(itable32_lookup(nullptr, nullptr), nullptr);
}

TEST_F(Itable32Test, AllocOpensTheNextLowerTableWhenOneIsFull) {
    for (u_int32_t expected = 0; expected < 0x10000; ++expected) ASSERT_EQ(alloc(), expected);
    EXPECT_EQ(lower(1), nullptr);
    EXPECT_EQ(alloc(), 0x10000);
    ASSERT_NE(lower(1), nullptr);
    EXPECT_EQ(table->itable32_maxentry, 0x10001u);
    // Unpacked: a hole in lower table 0 is not reused while lower table 1 has room.
    drop(5);
    EXPECT_EQ(alloc(), 0x10001);
    itable32_set_packed(table, 1);
    EXPECT_EQ(alloc(), 5);
}

TEST_F(Itable32Test, InsertMakesOnlyTheLowerTableItNeeds) {
    ASSERT_EQ(put(0x12345678), 0);
    itable16_t* low = lower(0x1234);
    ASSERT_NE(low, nullptr);
    ASSERT_NE(low->cans[5], nullptr);
    ASSERT_NE(low->cans[5][25], nullptr);
    EXPECT_EQ(low->cans[5][25][56], token(0x12345678));
    EXPECT_EQ(low->itable16_maxentry, 0x5679u);
    EXPECT_EQ(table->itable32_maxentry, 0x12345679u);
    EXPECT_EQ(get(0x12345678), token(0x12345678));
    for (u_int32_t other : {0x12345679u, 0x12355678u, 0x00005678u}) EXPECT_EQ(get(other), nullptr) << other;
    // Upper record, its can and bucket, lower record, its can and bucket: all the caller's.
    EXPECT_EQ(heap.live(), 1u + 3u + 3u);
}

TEST_F(Itable32Test, LimitIsInclusiveAndReachesLowerTables) {
    ASSERT_EQ(put(0x10003), 0);
    itable32_set_maxindex(table, 0x10005);
    EXPECT_EQ(lower(1)->itable16_maxindex, 6u);
    itable32_set_maxindex(table, 0x30002);
    EXPECT_EQ(lower(1)->itable16_maxindex, 0x10000u);
    itable32_set_maxindex(table, 0);
    EXPECT_EQ(table->itable32_maxindex, 0x30002u);
    EXPECT_EQ(put(0x30003), 1000);
    ASSERT_EQ(put(0x30001), 0);
    EXPECT_EQ(lower(3)->itable16_maxindex, 3u);  // made under the limit: gets it
    EXPECT_EQ(alloc(), 0x30002);
    EXPECT_EQ(alloc(), 0x30000);  // the tail is closed: the hole below the mark
    EXPECT_EQ(alloc(), -1);       // the next upper index is above the limit
    EXPECT_EQ(replace(0x40005, token(1)), nullptr);
    EXPECT_EQ(lower(4), nullptr);
    EXPECT_EQ(lower(0), nullptr);
}

TEST_F(Itable32Test, IndexFFFFFFFFIsNeverStored) {
    EXPECT_EQ(put(0xFFFFFFFF), 1000);
    EXPECT_EQ(table->itable32_maxentry, 0u);
    EXPECT_EQ(lower(0xFFFF), nullptr);
    ASSERT_EQ(put(0xFFFFFFFE), 0);
    EXPECT_EQ(table->itable32_maxentry, 0xFFFFFFFFu);
    EXPECT_EQ(lower(0xFFFF)->itable16_maxindex, 0xFFFFu);
    // A full top lower table hands out its hole, never 0xFFFFFFFF, then wraps to upper index 0.
    for (u_int32_t i = 0xFFFF0000; i < 0xFFFFFFFE; ++i) ASSERT_EQ(put(i), 0);
    drop(0xFFFF1234);
    EXPECT_EQ(alloc(), 0xFFFF1234);
    EXPECT_EQ(alloc(), 0);
    EXPECT_EQ(walk().back(), 0xFFFFFFFEu);
    EXPECT_EQ(replace(0xFFFFFFFF, token(1)), nullptr);
    EXPECT_EQ(get(0xFFFFFFFF), nullptr);
    // Moving the limit away and back keeps the top lower table short.
    itable32_set_maxindex(table, 0xFFFFFFF0);
    EXPECT_EQ(lower(0xFFFF)->itable16_maxindex, 0xFFF1u);
    itable32_set_maxindex(table, 0xFFFFFFFF);
    EXPECT_EQ(lower(0xFFFF)->itable16_maxindex, 0xFFFFu);
    itable32_set_maxindex(table, 0x5);
    EXPECT_EQ(lower(0xFFFF)->itable16_maxindex, 0xFFFFu);
}

TEST_F(Itable32Test, MarkFallsToTheNextHighestEntry) {
    for (u_int32_t i : {5u, 0x30000u, 0x20010u}) ASSERT_EQ(put(i), 0);
    std::vector<u_int32_t> marks;
    for (index32_t i : {0x20010u, 0x30000u, 5u}) {  // the top last
        drop(i);
        marks.push_back(table->itable32_maxentry);
    }
    EXPECT_EQ(marks, (std::vector<u_int32_t>{0x30001, 6, 0}));
    EXPECT_EQ(itable32_getnext(table, nullptr, nullptr), nullptr);
    // Below a removed top entry, a full lower table 0 gives its own mark.
    for (u_int32_t i = 0; i <= 0x10000; ++i) ASSERT_EQ(put(i), 0);
    drop(0x10000);
    EXPECT_EQ(table->itable32_maxentry, 0x10000u);
}

TEST_F(Itable32Test, GetnextWalksAcrossLowerTablesDestroyCounts) {
    const std::vector<u_int32_t> stored{0, 3, 0x10000, 0x2FFFF, 0x50001, 0x12345678, 0xFFFFFFFE};
    for (u_int32_t i : stored) ASSERT_EQ(put(i), 0);
    EXPECT_EQ(replace(0x40007, token(1)), nullptr);
    ASSERT_NE(lower(4), nullptr);  // an empty lower table in the way
    EXPECT_EQ(walk(), stored);
    // After a stored index, after an empty one, and at the top.
    index32_t at = 0x10000, next = 0;
    EXPECT_EQ(itable32_getnext(table, &at, &next), token(0x2FFFF));
    EXPECT_EQ(next, 0x2FFFFu);
    at = 0x3000;
    EXPECT_EQ(itable32_getnext(table, &at, &next), token(0x10000));
    at = 0xFFFFFFFE;
    EXPECT_EQ(itable32_getnext(table, &at, nullptr), nullptr);
    drop(0);
    drop(3);
    EXPECT_EQ(walk().front(), 0x10000u);
    EXPECT_EQ(itable32_destroy(table), 5);  // the empty lower table adds nothing
    table = nullptr;
}

TEST_F(Itable32Test, ReplaceNeverMovesTheMark) {
    EXPECT_EQ(replace(0x70000, token(1)), nullptr);
    EXPECT_EQ(get(0x70000), nullptr);
    EXPECT_EQ(table->itable32_maxentry, 0u);
    ASSERT_NE(lower(7), nullptr);  // made on demand, left empty
    ASSERT_EQ(put(0x70010), 0);
    EXPECT_EQ(replace(0x70004, token(2)), nullptr);
    EXPECT_EQ(get(0x70004), token(2));
    EXPECT_EQ(replace(0x70010, token(3)), token(0x70010));
    EXPECT_EQ(table->itable32_maxentry, 0x70011u);
}

TEST_F(Itable32Test, FlagsReachEveryLowerTableButNotTheUpper) {
    for (u_int32_t i : {1u, 0x20001u, 0x90001u}) ASSERT_EQ(put(i), 0);
    itable32_set_packed(table, 4);
    itable32_set_cleanup_on_remove(table, 0x10);
    ASSERT_EQ(put(0x30001), 0);  // made after: gets them too
    EXPECT_EQ(table->itable32_packed, 1);
    EXPECT_EQ(table->cleanup_on_remove, 1);
    for (u_int32_t u : {0u, 2u, 3u, 9u}) {
        EXPECT_EQ(lower(u)->itable16_packed, 1) << u;
        EXPECT_EQ(lower(u)->cleanup_on_remove, 1) << u;
    }
    EXPECT_EQ(table->itable32_upper->itable16_packed, 0);
    EXPECT_EQ(table->itable32_upper->cleanup_on_remove, 0);
    itable32_set_packed(table, 0);
    EXPECT_EQ(lower(0)->itable16_packed, 0);
    EXPECT_EQ(lower(9)->itable16_packed, 0);
    drop(1);
    EXPECT_EQ(table->itable32_numremove, 0u) << "not counted with cleanup on remove";
}

TEST_F(Itable32Test, The10001stRemovalDropsEmptyLowerTables) {
    for (u_int32_t i = 0; i < 200; ++i) ASSERT_EQ(put(i), 0);
    for (u_int32_t i = 0x10000; i < 0x10010; ++i) ASSERT_EQ(put(i), 0);
    ASSERT_EQ(put(0x20000), 0);
    replace(0x50003, token(1));  // empty, above the mark's lower table
    for (u_int32_t i = 0x10000; i < 0x10010; ++i) drop(i);
    for (u_int32_t i = 0; i < 64; ++i) drop(i);  // bucket 0 of lower table 0 now empty
    // Removals of free slots count too, as long as the lower table exists.
    while (table->itable32_numremove < 10000) drop(0x10000);
    ASSERT_NE(lower(1), nullptr);
    itable16_t* low0 = lower(0);
    ASSERT_NE(low0->cans[0][0], nullptr);
    drop(0x10000);  // the 10001st
    EXPECT_EQ(table->itable32_numremove, 0u);
    EXPECT_EQ(lower(1), nullptr);
    EXPECT_EQ(low0->cans[0][0], nullptr);
    EXPECT_NE(lower(2), nullptr);
    EXPECT_NE(lower(5), nullptr);  // above the mark: not visited
    EXPECT_EQ(get(100), token(100));
    EXPECT_EQ(get(0x20000), token(0x20000));
    drop(0x10000);  // without a lower table a removal is not counted
    EXPECT_EQ(table->itable32_numremove, 0u);
}

}  // namespace
