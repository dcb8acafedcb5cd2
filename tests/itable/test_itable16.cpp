// 16-bit indexed table: index layout, both allocation orders, the mark,
// storage given back, walks and destroy.
#include <initializer_list>
#include <vector>

#include <gtest/gtest.h>

#include "counting_allocator.h"
#include "heap.h"
#include "itable.h"
#include "syslog_capture.h"

using corvex_test::CountingAllocator;
using corvex_test::LogRecord;
using corvex_test::token;

namespace {

constexpr size_t kLevelBytes = 64 * sizeof(void*);

class Itable16Test : public ::testing::Test {
protected:
    void SetUp() override {
        table = itable16_create_shm(&CountingAllocator::alloc, &CountingAllocator::release, &heap);
        ASSERT_NE(table, nullptr);
        corvex_test::syslog_clear();
    }
    void TearDown() override {
        if (table != nullptr) itable16_destroy(table);
        EXPECT_EQ(heap.live(), 0u) << "storage not given back by destroy";
    }

    // Indices by value, so the helpers can hand their address on.
    status_t insert(index16_t i, void* value) { return itable16_insert(table, value, &i); }
    status_t bound(index16_t i, void* value) { return itable16_bound(table, value, &i); }
    void* replace(index16_t i, void* value) { return itable16_replace(table, &i, value); }
    void put(index16_t i) { ASSERT_EQ(insert(i, token(i)), 0) << i; }
    void drop(index16_t i) { itable16_remove(table, &i); }
    void* get(index16_t i) { return itable16_lookup(table, &i); }
    // Each allocation's index, or minus its failure status.
    std::vector<int> allocs(int n) {
        std::vector<int> got;
        for (int k = 0; k < n; ++k) {
            index16_t i = 0;
            const status_t rc = itable16_alloc(table, token(1000), &i);
            got.push_back(rc == 0 ? i : -static_cast<int>(rc));
        }
        return got;
    }
    int alloc() { return allocs(1)[0]; }
    // The mark after each removal, in turn.
    std::vector<u_int32_t> marks_dropping(std::initializer_list<index16_t> indices) {
        std::vector<u_int32_t> marks;
        for (index16_t i : indices) {
            drop(i);
            marks.push_back(table->itable16_maxentry);
        }
        return marks;
    }
    size_t buckets_present() const {
        size_t n = 0;
        for (auto* can : table->cans)
            for (int b = 0; can != nullptr && b < 64; ++b) n += can[b] != nullptr;
        return n;
    }

    CountingAllocator heap;
    itable16_t* table = nullptr;
};

TEST_F(Itable16Test, IndexIsCanBucketEntry) {
    put(0x1234);
    // Record, then one can and one bucket of 64 pointers, only where 0x1234 lives.
    EXPECT_EQ(heap.sizes(), (std::vector<size_t>{sizeof(itable16_t), kLevelBytes, kLevelBytes}));
    ASSERT_NE(table->cans[1], nullptr);
    ASSERT_NE(table->cans[1][8], nullptr);
    EXPECT_EQ(table->cans[1][8][52], token(0x1234));
    EXPECT_EQ(table->itable16_maxentry, 0x1235u);
    EXPECT_EQ(get(0x1234), token(0x1234));
    EXPECT_EQ(itable16_lookup_inline(table, 0x1234), token(0x1234));
    for (index16_t other : {0x0234, 0x1274, 0x1235, 0xFFFF}) EXPECT_EQ(get(other), nullptr) << other;
    put(0xFFFF);
    ASSERT_NE(table->cans[15], nullptr);
    ASSERT_NE(table->cans[15][63], nullptr);
    EXPECT_EQ(table->cans[15][63][63], token(0xFFFF));
    EXPECT_EQ(table->itable16_maxentry, 0x10000u);
}

TEST_F(Itable16Test, DefaultsSettersInitAndNoMemory) {
    EXPECT_EQ(table->itable16_maxindex, 0x10000u);
    EXPECT_EQ(table->itable16_packed, 0);
    EXPECT_EQ(table->cleanup_on_remove, 0);
    for (u_int32_t out_of_range : {0u, 65537u}) itable16_set_maxindex(table, out_of_range);
    EXPECT_EQ(table->itable16_maxindex, 0x10000u);
    itable16_set_maxindex(table, 1);
    EXPECT_EQ(table->itable16_maxindex, 1u);
    itable16_set_maxindex(table, 65536);
    EXPECT_EQ(table->itable16_maxindex, 0x10000u);
    itable16_set_packed(table, 0x80);  // any non-zero flag is stored as 1
    itable16_set_cleanup_on_remove(table, 2);
    EXPECT_EQ(table->itable16_packed, 1);
    EXPECT_EQ(table->cleanup_on_remove, 1);
    itable16_set_maxindex(nullptr, 5);  // null tables are ignored
    itable16_set_packed(nullptr, 1);
    itable16_set_cleanup_on_remove(nullptr, 1);
    itable16_init(nullptr);

    // A caller's record gets the default callbacks; destroy releases it with free.
    auto* own = static_cast<itable16_t*>(kzalloc(sizeof(itable16_t)));
    ASSERT_NE(own, nullptr);
    itable16_init(own);
    EXPECT_EQ(own->alloc_func, &itable16_alloc_default);
    EXPECT_EQ(own->free_func, &itable16_free_default);
    const index16_t i = 77;
    ASSERT_EQ(itable16_insert(own, token(77), &i), 0);
    EXPECT_EQ(itable16_destroy(own), 1);

    EXPECT_EQ(itable16_create_shm(nullptr, &CountingAllocator::release, &heap), nullptr);
    heap.fail_after(0);
    EXPECT_EQ(itable16_create_shm(&CountingAllocator::alloc, &CountingAllocator::release, &heap), nullptr);
    heap.fail_after(1);  // a can but not its bucket: the can stays, empty
    EXPECT_EQ(insert(5000, token(1)), 12);
    heap.fail_after(-1);
    EXPECT_NE(table->cans[1], nullptr);
    EXPECT_EQ(buckets_present(), 0u);
    EXPECT_EQ(table->itable16_maxentry, 0u);
}

TEST_F(Itable16Test, UnpackedTakesHolesOnlyWhenTheTailIsClosed) {
    for (int i = 0; i < 64; ++i) ASSERT_EQ(alloc(), i);
    drop(5);
    heap.fail_after(0);  // the tail needs a new bucket, the hole does not
    EXPECT_EQ(allocs(2), (std::vector<int>{5, -12}));
    heap.fail_after(-1);
    drop(6);
    EXPECT_EQ(alloc(), 64);  // the tail while it has memory
    itable16_set_maxindex(table, 65);  // at the limit: the lowest hole, then 12
    drop(2);
    EXPECT_EQ(allocs(3), (std::vector<int>{2, 6, -12}));
    // A limit lowered under the mark keeps stored entries and still fills holes below the mark.
    itable16_set_maxindex(table, 4);
    drop(40);
    EXPECT_EQ(get(41), token(1000));
    EXPECT_EQ(allocs(2), (std::vector<int>{40, -12}));
}

// Holes are taken in three passes: free slots of present buckets first, then
// absent buckets of present cans, then absent cans, each in index order.
TEST_F(Itable16Test, PackedKeepsStorageAndFillsPresentBucketsFirst) {
    itable16_set_packed(table, 1);
    itable16_set_cleanup_on_remove(table, 1);
    for (index16_t i = 0; i < 192; ++i) put(i);
    put(9000);  // can 2, bucket 12 (8960..9023)
    for (index16_t i = 0; i < 64; ++i) drop(i);
    EXPECT_EQ(buckets_present(), 4u);  // nothing given back on removal
    EXPECT_EQ(table->itable16_numremove, 0u);
    itable16_cleanup(table);
    EXPECT_EQ(buckets_present(), 3u);
    drop(150);
    EXPECT_EQ(allocs(2), (std::vector<int>{150, 8960}));  // before the lower, released bucket
    for (index16_t i = 8961; i < 9000; ++i) put(i);
    const size_t before = heap.allocations();
    EXPECT_EQ(allocs(2), (std::vector<int>{0, 1}));
    EXPECT_EQ(heap.allocations() - before, 1u);
}

TEST_F(Itable16Test, PackedPassThreeGivesTheNewCanBackWithoutMemory) {
    itable16_set_packed(table, 1);
    for (int n = 0; n < 4096; ++n) ASSERT_EQ(alloc(), n);  // a new table counts up in either mode
    put(8192);
    itable16_set_maxindex(table, 8193);  // no tail left: only a hole can be had
    heap.fail_after(1);  // the can, not its bucket
    EXPECT_EQ(alloc(), -12);
    EXPECT_EQ(table->cans[1], nullptr);  // and not leaked: the fixture counts every block
    EXPECT_EQ(table->itable16_maxentry, 8193u);
    heap.fail_after(-1);
    EXPECT_EQ(alloc(), 4096);
}

TEST_F(Itable16Test, InsertAndBoundRefuseIndicesAtTheLimit) {
    itable16_set_maxindex(table, 64);
    EXPECT_EQ(insert(70, token(1)), 1000);
    EXPECT_EQ(insert(64, token(1)), 1000);
    EXPECT_EQ(bound(70, token(1)), 1000);
    EXPECT_EQ(corvex_test::syslog_records(),
              (std::vector<LogRecord>{{3, "ITABLE: inserting illegal index (70)\n"},
                                      {3, "ITABLE: inserting illegal index (64)\n"},
                                      {3, "ITABLE: insert illegal index (70)\n"}}));
    corvex_test::syslog_clear();
    EXPECT_EQ(bound(0, nullptr), 1000);
    EXPECT_EQ(heap.live(), 1u) << "nothing stored";
    EXPECT_EQ(bound(63, token(5)), 0);
    EXPECT_EQ(bound(0, token(6)), 0);
    EXPECT_EQ(get(0), token(6));
    EXPECT_TRUE(corvex_test::syslog_records().empty());
    EXPECT_EQ(insert(63, token(7)), 0);  // overwrites silently
    EXPECT_EQ(get(63), token(7));
    EXPECT_EQ(table->itable16_maxentry, 64u);
}

TEST_F(Itable16Test, MarkFollowsTheHighestEntry) {
    for (index16_t i : {3, 70, 5000, 40000}) put(i);
    EXPECT_EQ(marks_dropping({70, 40000, 5000, 3}), (std::vector<u_int32_t>{40001, 5001, 4, 0}));
    EXPECT_EQ(itable16_getnext(table, nullptr, nullptr), nullptr);
    // Removing what holds nothing (empty slot, absent bucket, absent can) is not counted.
    EXPECT_EQ(table->itable16_numremove, 4u);
    EXPECT_EQ(marks_dropping({3, 200, 20000}), (std::vector<u_int32_t>{0, 0, 0}));
    EXPECT_EQ(table->itable16_numremove, 4u);
    // The scan crosses released storage too.
    itable16_set_cleanup_on_remove(table, 1);
    for (index16_t i : {1, 4100, 9000}) put(i);
    EXPECT_EQ(marks_dropping({4100, 9000}), (std::vector<u_int32_t>{9001, 2}));
    EXPECT_EQ(table->cans[1], nullptr);
}

TEST_F(Itable16Test, ReplaceActsOnlyBelowTheMark) {
    put(10);
    put(200);
    const size_t allocations = heap.allocations();
    for (index16_t i : {201, 5000, 64}) {  // at and above the mark, absent bucket
        EXPECT_EQ(replace(i, token(1)), nullptr);
        EXPECT_EQ(get(i), nullptr) << i;
    }
    EXPECT_EQ(heap.allocations(), allocations);
    EXPECT_EQ(replace(11, token(2)), nullptr);
    EXPECT_EQ(get(11), token(2));
    EXPECT_EQ(replace(10, token(3)), token(10));
    EXPECT_EQ(get(10), token(3));
    EXPECT_EQ(table->itable16_maxentry, 201u);
}

TEST_F(Itable16Test, GetnextWalksAcrossAbsentBucketsAndCansDestroyCounts) {
    const std::vector<int> stored{0, 1, 63, 64 * 5 + 2, 4096 * 3 + 7, 4096 * 3 + 8, 65535};
    for (int i : stored) put(i);
    put(200);
    drop(200);  // a present bucket with nothing in it
    std::vector<int> seen;
    index16_t cursor = 0xBEEF;  // one variable walks the table
    for (void* p = itable16_getnext(table, nullptr, &cursor); p != nullptr; p = itable16_getnext(table, &cursor, &cursor))
        seen.push_back(cursor);
    EXPECT_EQ(seen, stored);
    // From an index that holds nothing, and without ret_index.
    const index16_t from = 100, before_top = 65534, top = 65535;
    EXPECT_EQ(itable16_getnext(table, &from, nullptr), token(64 * 5 + 2));
    index16_t next = 0;
    EXPECT_EQ(itable16_getnext(table, &before_top, &next), token(65535));
    EXPECT_EQ(next, 65535);
    next = 7;
    EXPECT_EQ(itable16_getnext(table, &top, &next), nullptr);
    EXPECT_EQ(next, 7);
    drop(65535);
    const index16_t last = 4096 * 3 + 8;  // mark - 1
    EXPECT_EQ(itable16_getnext(table, &last, nullptr), nullptr);
    // Destroy counts what is still stored and gives back every block, the empty bucket's too.
    EXPECT_EQ(itable16_destroy(table), 6);
    table = nullptr;
}

TEST_F(Itable16Test, CleanupOnRemoveGivesStorageBackAtOnce) {
    itable16_set_cleanup_on_remove(table, 1);
    for (index16_t i = 0; i <= 64; ++i) put(i);
    put(4096);
    EXPECT_EQ(heap.live(), 1u + 3u + 2u);  // record, can 0 with 2 buckets, can 1 with 1
    drop(4096);
    EXPECT_EQ(table->cans[1], nullptr);
    drop(64);
    EXPECT_EQ(table->cans[0][1], nullptr);
    EXPECT_EQ(heap.live(), 3u);
    for (index16_t i = 0; i < 63; ++i) drop(i);
    EXPECT_EQ(heap.live(), 3u);
    drop(63);
    EXPECT_EQ(table->cans[0], nullptr);
    EXPECT_EQ(heap.live(), 1u);
    EXPECT_EQ(table->itable16_numremove, 0u);  // no counting in this mode
}

TEST_F(Itable16Test, The1025thRemovalCleansTheWholeTable) {
    for (index16_t i = 0; i < 2048; ++i) put(i);
    for (index16_t i = 0; i < 1024; ++i) drop(i);
    EXPECT_EQ(table->itable16_numremove, 1024u);
    EXPECT_EQ(buckets_present(), 32u);
    drop(2047);
    EXPECT_EQ(table->itable16_numremove, 0u);
    EXPECT_EQ(buckets_present(), 16u);
    EXPECT_EQ(table->itable16_maxentry, 2047u);
    EXPECT_EQ(get(1024), token(1024));
}

}  // namespace
