// 16-bit indexed table: storage on demand, both allocation orders, the
// limit and the mark, storage given back, walks and destroy.
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
    void put(index16_t i) { ASSERT_EQ(insert(i, token(i)), 0) << i; }
    void drop(index16_t i) { itable16_remove(table, &i); }
    void* get(index16_t i) { return itable16_lookup(table, &i); }
    // Each allocation's index, or minus its failure status.
    std::vector<int> allocs(int n) {
        std::vector<int> got;
        for (index16_t i = 0; n-- > 0;) got.push_back(itable16_alloc(table, token(1000), &i) == 0 ? i : -12);
        return got;
    }
    // The mark after each removal, in turn.
    std::vector<u_int32_t> marks_dropping(std::initializer_list<index16_t> indices) {
        std::vector<u_int32_t> marks;
        for (index16_t i : indices) drop(i), marks.push_back(table->itable16_maxentry);
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

TEST_F(Itable16Test, StorageIsMadeOnlyWhereAnIndexLivesAndNoMemoryIsRefused) {
    put(0x1234);
    constexpr size_t kLevel = 64 * sizeof(void*);
    EXPECT_EQ(heap.sizes(), (std::vector<size_t>{sizeof(itable16_t), kLevel, kLevel})) << "record, a can, a bucket";
    EXPECT_EQ(std::tuple(get(0x1234), itable16_lookup_inline(table, 0x1234), table->itable16_maxentry),
              std::tuple(token(0x1234), token(0x1234), 0x1235u));
    for (index16_t other : {0x0234, 0x1274, 0x1235, 0xFFFF}) EXPECT_EQ(get(other), nullptr) << other;
    heap.fail_after(1);  // a can but not its bucket: the can stays, empty, until destroy
    EXPECT_EQ(insert(9000, token(1)), 12);
    heap.fail_after(-1);
    EXPECT_EQ(std::tuple(buckets_present(), table->itable16_maxentry), std::tuple(1u, 0x1235u));
}

TEST_F(Itable16Test, UnpackedTakesHolesOnlyWhenTheTailIsClosed) {
    EXPECT_EQ(allocs(64).back(), 63);
    drop(5);
    heap.fail_after(0);  // the tail needs a new bucket, the hole does not
    EXPECT_EQ(allocs(2), (std::vector<int>{5, -12}));
    heap.fail_after(-1);
    drop(6);
    EXPECT_EQ(allocs(1), std::vector<int>{64});  // the tail while it has memory
    itable16_set_maxindex(table, 65);            // at the limit: the lowest hole, then 12
    drop(2);
    EXPECT_EQ(allocs(3), (std::vector<int>{2, 6, -12}));
}

// Holes are taken in three passes: free slots of present buckets first, then
// absent buckets of present cans, then absent cans, each in index order.
TEST_F(Itable16Test, PackedKeepsStorageAndFillsPresentBucketsFirst) {
    itable16_set_packed(table, 1);
    itable16_set_cleanup_on_remove(table, 1);
    for (index16_t i = 0; i < 192; ++i) put(i);
    put(9000);  // can 2, bucket 12 (8960..9023)
    for (index16_t i = 0; i < 64; ++i) drop(i);
    EXPECT_EQ(std::tuple(buckets_present(), table->itable16_numremove), std::tuple(4u, 0u)) << "nothing given back";
    itable16_cleanup(table);
    EXPECT_EQ(buckets_present(), 3u);
    drop(150);
    EXPECT_EQ(allocs(2), (std::vector<int>{150, 8960}));  // before the lower, released bucket
    for (index16_t i = 8961; i < 9000; ++i) put(i);
    const size_t before = heap.allocations();
    EXPECT_EQ(allocs(2), (std::vector<int>{0, 1}));
    EXPECT_EQ(heap.allocations() - before, 1u);
}

TEST_F(Itable16Test, InsertAndBoundRefuseIndicesAtTheLimit) {
    itable16_set_maxindex(table, 64);
    index16_t at_limit = 64, zero = 0;
    EXPECT_EQ(std::tuple(insert(70, token(1)), itable16_bound(table, nullptr, &zero), heap.live()),
              std::tuple(1000, 1000, 1u));
    EXPECT_EQ(itable16_bound(table, token(1), &at_limit), 1000);
    EXPECT_EQ(corvex_test::syslog_records(), (std::vector<LogRecord>{{3, "ITABLE: inserting illegal index (70)\n"},
                                                                     {3, "ITABLE: insert illegal index (64)\n"}}));
    put(63);
    EXPECT_EQ(insert(63, token(8)), 0) << "overwrites silently";
    EXPECT_EQ(std::tuple(get(63), table->itable16_maxentry), std::tuple(token(8), 64u));
}

TEST_F(Itable16Test, MarkFollowsTheHighestEntry) {
    for (index16_t i : {3, 70, 5000, 40000}) put(i);
    EXPECT_EQ(marks_dropping({70, 40000, 5000, 3}), (std::vector<u_int32_t>{40001, 5001, 4, 0}));
    // Removing what holds nothing (empty slot, absent bucket, absent can) is not counted.
    EXPECT_EQ(marks_dropping({3, 200, 20000}), (std::vector<u_int32_t>{0, 0, 0}));
    EXPECT_EQ(table->itable16_numremove, 4u);
    // The scan crosses released storage too.
    itable16_set_cleanup_on_remove(table, 1);
    for (index16_t i : {1, 4100, 9000}) put(i);
    EXPECT_EQ(marks_dropping({4100, 9000}), (std::vector<u_int32_t>{9001, 2}));
}

TEST_F(Itable16Test, GetnextWalksAcrossAbsentBucketsAndCansDestroyCounts) {
    const std::vector<int> stored{0, 1, 63, 64 * 5 + 2, 4096 * 3 + 7, 4096 * 3 + 8, 65535};
    for (int i : stored) put(i);
    put(200);
    drop(200);  // a present bucket with nothing in it
    std::vector<int> seen;
    index16_t cursor = 0xBEEF;  // one variable walks the table
    for (void* p = itable16_getnext(table, nullptr, &cursor); p; p = itable16_getnext(table, &cursor, &cursor))
        seen.push_back(cursor);
    EXPECT_EQ(seen, stored);
    EXPECT_EQ(itable16_destroy(table), 7) << "what is still stored; every block given back, the empty bucket's too";
    table = nullptr;
}

}  // namespace
