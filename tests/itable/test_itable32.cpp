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
        for (void* p = itable32_getnext(table, nullptr, &cursor); p; p = itable32_getnext(table, &cursor, &cursor)) {
            EXPECT_EQ(p, get(cursor));
            seen.push_back(cursor);
        }
        return seen;
    }

    CountingAllocator heap;
    itable32_t* table = nullptr;
};

TEST_F(Itable32Test, LowerTablesAreMadeOnDemandAndNoMemoryIsRefusedCleanly) {
    ASSERT_EQ(put(0x12345678), 0);
    // Upper record, its can and bucket, lower record, its can and bucket: all the caller's.
    EXPECT_EQ(std::tuple(get(0x12345678), lower(0x1234)->itable16_maxentry, table->itable32_maxentry, heap.live()),
              std::tuple(token(0x12345678), 0x5679u, 0x12345679u, 7u));
    for (u_int32_t other : {0x12345679u, 0x12355678u, 0x00005678u}) EXPECT_EQ(get(other), nullptr) << other;
    heap.fail_after(1);  // the record, but not the upper table
    EXPECT_EQ(itable32_create_shm(&CountingAllocator::alloc, &CountingAllocator::release, &heap), nullptr);
    heap.fail_after(0);
    EXPECT_EQ(put(0x40000), 12);
    heap.fail_after(1);  // the lower table's record, but not the upper table's can
    EXPECT_EQ(put(0x40000), 12);
    heap.fail_after(-1);
    EXPECT_EQ(std::tuple(lower(4), heap.live(), table->itable32_maxentry), std::tuple(nullptr, 7u, 0x12345679u));
}

TEST_F(Itable32Test, AllocOpensTheNextLowerTableWhenOneIsFull) {
    for (u_int32_t expected = 0; expected < 0x10000; ++expected) ASSERT_EQ(alloc(), expected);
    EXPECT_EQ(lower(1), nullptr);
    EXPECT_EQ(alloc(), 0x10000);
    // Unpacked: a hole in lower table 0 is not reused while lower table 1 has room.
    drop(5);
    EXPECT_EQ(alloc(), 0x10001);
    itable32_set_packed(table, 1);
    EXPECT_EQ(alloc(), 5);
}

TEST_F(Itable32Test, MarkFallsToTheNextHighestEntryReplaceNeverMovesIt) {
    for (u_int32_t i : {5u, 0x30000u, 0x20010u}) ASSERT_EQ(put(i), 0);
    std::vector<u_int32_t> marks;
    for (index32_t i : {0x20010u, 0x30000u, 5u}) drop(i), marks.push_back(table->itable32_maxentry);  // the top last
    EXPECT_EQ(marks, (std::vector<u_int32_t>{0x30001, 6, 0}));
    EXPECT_EQ(replace(0x70000, token(1)), nullptr);
    EXPECT_EQ(std::tuple(get(0x70000), table->itable32_maxentry, lower(7) != nullptr), std::tuple(nullptr, 0u, true));
}

TEST_F(Itable32Test, GetnextWalksAcrossLowerTablesDestroyCounts) {
    const std::vector<u_int32_t> stored{0, 3, 0x10000, 0x2FFFF, 0x50001, 0x12345678, 0xFFFFFFFE};
    for (u_int32_t i : stored) ASSERT_EQ(put(i), 0);
    EXPECT_EQ(replace(0x40007, token(1)), nullptr);
    ASSERT_NE(lower(4), nullptr);  // an empty lower table in the way
    EXPECT_EQ(walk(), stored);
    index32_t after_empty = 0x3000, top = 0xFFFFFFFE, next = 0;
    EXPECT_EQ(itable32_getnext(table, &after_empty, &next), token(0x10000));
    EXPECT_EQ(std::tuple(next, itable32_getnext(table, &top, nullptr)), std::tuple(0x10000u, nullptr));
    EXPECT_EQ(itable32_destroy(table), 7) << "the empty lower table adds nothing";
    table = nullptr;
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
    itable16_t* low0 = lower(0);
    drop(0x10000);  // the 10001st
    EXPECT_EQ(std::tuple(table->itable32_numremove, lower(1), low0->cans[0][0]), std::tuple(0u, nullptr, nullptr));
    EXPECT_TRUE(lower(2) != nullptr && lower(5) != nullptr) << "one in use, one above the mark: not visited";
    EXPECT_EQ(std::tuple(get(100), get(0x20000)), std::tuple(token(100), token(0x20000)));
}

}  // namespace
