// 16-bit indexed table: index layout, both allocation orders, the mark,
// storage given back, walks and destroy.
#include <cstdlib>
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

    void put(u_int32_t index) { put(index, token(index)); }
    void put(u_int32_t index, void* value) {
        const index16_t i = static_cast<index16_t>(index);
        ASSERT_EQ(itable16_insert(table, value, &i), 0) << index;
    }
    void drop(u_int32_t index) {
        const index16_t i = static_cast<index16_t>(index);
        itable16_remove(table, &i);
    }
    void* get(u_int32_t index) {
        const index16_t i = static_cast<index16_t>(index);
        return itable16_lookup(table, &i);
    }
    int alloc() {
        index16_t i = 0;
        return itable16_alloc(table, token(1000), &i) == 0 ? i : -1;
    }
    std::vector<int> walk() {
        std::vector<int> seen;
        index16_t cursor = 0xBEEF;
        for (void* p = itable16_getnext(table, nullptr, &cursor); p != nullptr;
             p = itable16_getnext(table, &cursor, &cursor)) {
            seen.push_back(cursor);
        }
        return seen;
    }
    size_t buckets_present() const {
        size_t n = 0;
        for (auto* can : table->cans)
            for (int b = 0; can != nullptr && b < 64; ++b) n += can[b] != nullptr;
        return n;
    }
    size_t cans_present() const {
        size_t n = 0;
        for (auto* can : table->cans) n += can != nullptr;
        return n;
    }

    CountingAllocator heap;
    itable16_t* table = nullptr;
};

TEST_F(Itable16Test, IndexIsCanBucketEntry) {
    const size_t before = heap.allocations();
    put(0x1234);
    // One can and one bucket, each 64 pointers, and only where 0x1234 lives.
    EXPECT_EQ(heap.allocations() - before, 2u);
    ASSERT_NE(table->cans[1], nullptr);
    ASSERT_NE(table->cans[1][8], nullptr);
    EXPECT_EQ(table->cans[1][8][52], token(0x1234));
    EXPECT_EQ(cans_present(), 1u);
    EXPECT_EQ(buckets_present(), 1u);
    EXPECT_EQ(table->itable16_maxentry, 0x1235u);
    EXPECT_EQ(get(0x1234), token(0x1234));
    EXPECT_EQ(itable16_lookup_inline(table, 0x1234), token(0x1234));
    // Same entry number in other buckets and cans: nothing there.
    EXPECT_EQ(get(0x0234), nullptr);
    EXPECT_EQ(get(0x1274), nullptr);
    EXPECT_EQ(get(0x1235), nullptr);
    EXPECT_EQ(get(0xFFFF), nullptr);
    put(0xFFFF);
    ASSERT_NE(table->cans[15], nullptr);
    ASSERT_NE(table->cans[15][63], nullptr);
    EXPECT_EQ(table->cans[15][63][63], token(0xFFFF));
    EXPECT_EQ(table->itable16_maxentry, 0x10000u);
}

TEST_F(Itable16Test, LevelsHaveTheSizeOf64Pointers) {
    struct SizeLog {
        std::vector<size_t> sizes;
        static void* alloc(void* ctxt, size_t size) {
            static_cast<SizeLog*>(ctxt)->sizes.push_back(size);
            return calloc(size, 1);
        }
        static void release(void*, void* p) { free(p); }
    } log;
    itable16_t* t = itable16_create_shm(&SizeLog::alloc, &SizeLog::release, &log);
    ASSERT_NE(t, nullptr);
    const index16_t i = 4097;
    ASSERT_EQ(itable16_insert(t, token(1), &i), 0);
    EXPECT_EQ(log.sizes, (std::vector<size_t>{sizeof(itable16_t), kLevelBytes, kLevelBytes}));
    EXPECT_EQ(itable16_destroy(t), 1);
}

TEST_F(Itable16Test, DefaultsAndSetters) {
    EXPECT_EQ(table->itable16_maxindex, 0x10000u);
    EXPECT_EQ(table->itable16_packed, 0);
    EXPECT_EQ(table->cleanup_on_remove, 0);
    EXPECT_EQ(table->alloc_ctxt, &heap);
    itable16_set_maxindex(table, 0);
    itable16_set_maxindex(table, 65537);
    EXPECT_EQ(table->itable16_maxindex, 0x10000u);
    itable16_set_maxindex(table, 1);
    EXPECT_EQ(table->itable16_maxindex, 1u);
    itable16_set_maxindex(table, 65536);
    EXPECT_EQ(table->itable16_maxindex, 0x10000u);
    // Any non-zero flag is true and stored as 1.
    itable16_set_packed(table, 0x80);
    itable16_set_cleanup_on_remove(table, 2);
    EXPECT_EQ(table->itable16_packed, 1);
    EXPECT_EQ(table->cleanup_on_remove, 1);
    // Null tables are ignored by the setters and the initialiser.
    itable16_set_maxindex(nullptr, 5);
    itable16_set_packed(nullptr, 1);
    itable16_set_cleanup_on_remove(nullptr, 1);
    itable16_init(nullptr);
}

TEST_F(Itable16Test, InitPreparesCallerRecordWithDefaults) {
    auto* own = static_cast<itable16_t*>(kzalloc(sizeof(itable16_t)));
    ASSERT_NE(own, nullptr);
    itable16_init(own);
    EXPECT_EQ(own->itable16_maxindex, 0x10000u);
    EXPECT_EQ(own->alloc_func, &itable16_alloc_default);
    EXPECT_EQ(own->free_func, &itable16_free_default);
    const index16_t i = 77;
    ASSERT_EQ(itable16_insert(own, token(77), &i), 0);
    EXPECT_EQ(itable16_lookup(own, &i), token(77));
    EXPECT_EQ(itable16_destroy(own), 1);  // record released with free
}

TEST_F(Itable16Test, NewTableHandsOutAscendingIndicesInBothModes) {
    for (int packed = 0; packed <= 1; ++packed) {
        itable16_t* t = itable16_create();
        ASSERT_NE(t, nullptr);
        itable16_set_packed(t, static_cast<boolean>(packed));
        for (int expected = 0; expected < 200; ++expected) {
            index16_t i = 0xFFFF;
            ASSERT_EQ(itable16_alloc(t, token(expected), &i), 0);
            ASSERT_EQ(i, expected) << "packed " << packed;
        }
        EXPECT_EQ(t->itable16_maxentry, 200u);
        EXPECT_EQ(itable16_destroy(t), 200);
    }
}

TEST_F(Itable16Test, UnpackedExtendsTailPackedFillsHole) {
    for (int i = 0; i < 10; ++i) ASSERT_EQ(alloc(), i);
    drop(5);
    EXPECT_EQ(alloc(), 10);
    itable16_set_packed(table, 1);
    EXPECT_EQ(alloc(), 5);
    // No hole left: a packed table extends the tail.
    EXPECT_EQ(alloc(), 11);
}

TEST_F(Itable16Test, UnpackedFallsBackToAHoleWhenTheTailHasNoMemory) {
    for (int i = 0; i < 64; ++i) ASSERT_EQ(alloc(), i);
    drop(5);
    heap.fail_after(0);  // the tail needs a new bucket, the hole does not
    EXPECT_EQ(alloc(), 5);
    EXPECT_EQ(alloc(), -1);
    heap.fail_after(-1);
    EXPECT_EQ(alloc(), 64);
}

TEST_F(Itable16Test, UnpackedReusesHolesOnlyAtTheLimit) {
    itable16_set_maxindex(table, 4);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(alloc(), i);
    EXPECT_EQ(alloc(), -1);
    drop(2);
    drop(1);
    EXPECT_EQ(alloc(), 1);
    EXPECT_EQ(alloc(), 2);
    index16_t i = 0;
    EXPECT_EQ(itable16_alloc(table, token(1), &i), 12);
}

TEST_F(Itable16Test, LoweredLimitStillFillsHolesBelowTheMark) {
    for (int i = 0; i < 10; ++i) ASSERT_EQ(alloc(), i);
    itable16_set_maxindex(table, 4);
    drop(7);
    EXPECT_EQ(get(8), token(1000));  // stored entries are not touched
    EXPECT_EQ(alloc(), 7);
    EXPECT_EQ(alloc(), -1);
}

// Holes are taken in three passes: free slots of present buckets first, then
// absent buckets of present cans, then absent cans, each in index order.
TEST_F(Itable16Test, PackedPassOrder) {
    itable16_set_packed(table, 1);
    for (u_int32_t i = 0; i < 64; ++i) put(i);  // can 0, bucket 0 full
    put(9000);                                  // can 2, bucket 12 (8960..9023)
    // Pass 1 finds 8960 in the present bucket before the absent bucket at 64.
    EXPECT_EQ(alloc(), 8960);
    for (u_int32_t i = 8961; i < 9000; ++i) put(i);
    // Pass 2: the first absent bucket below the mark, in can 0.
    const size_t before = heap.allocations();
    EXPECT_EQ(alloc(), 64);
    EXPECT_EQ(heap.allocations() - before, 1u);
    EXPECT_EQ(alloc(), 65);

    // Pass 3: every present can is full below the mark; can 1 is absent.
    itable16_t* t = itable16_create_shm(&CountingAllocator::alloc, &CountingAllocator::release, &heap);
    ASSERT_NE(t, nullptr);
    itable16_set_packed(t, 1);
    index16_t i = 0;
    for (u_int32_t n = 0; n < 4096; ++n) ASSERT_EQ(itable16_alloc(t, token(n), &i), 0);
    i = 8192;
    ASSERT_EQ(itable16_insert(t, token(8192), &i), 0);
    itable16_set_maxindex(t, 8193);  // no tail left: only a hole can be had
    // The bucket of the new can cannot be had: the can is given back.
    const size_t live = heap.live();
    heap.fail_after(1);
    EXPECT_EQ(itable16_alloc(t, token(1), &i), 12);
    EXPECT_EQ(t->cans[1], nullptr);
    EXPECT_EQ(heap.live(), live);
    EXPECT_EQ(t->itable16_maxentry, 8193u);
    heap.fail_after(-1);
    ASSERT_EQ(itable16_alloc(t, token(1), &i), 0);
    EXPECT_EQ(i, 4096);
    EXPECT_EQ(heap.live(), live + 2);
    EXPECT_EQ(itable16_destroy(t), 4098);
}

TEST_F(Itable16Test, PresentBucketPreferredToLowerReleasedOne) {
    itable16_set_packed(table, 1);
    for (u_int32_t i = 0; i < 200; ++i) put(i);
    for (u_int32_t i = 0; i < 64; ++i) drop(i);
    EXPECT_EQ(buckets_present(), 4u);  // a packed table keeps storage on removal
    itable16_cleanup(table);
    EXPECT_EQ(buckets_present(), 3u);
    drop(150);
    EXPECT_EQ(alloc(), 150);
    EXPECT_EQ(alloc(), 0);
    EXPECT_EQ(alloc(), 1);
}

TEST_F(Itable16Test, InsertAndBoundRefuseIndicesAtTheLimit) {
    itable16_set_maxindex(table, 64);
    const index16_t i70 = 70, i64 = 64, i63 = 63, i0 = 0;
    EXPECT_EQ(itable16_insert(table, token(1), &i70), 1000);
    EXPECT_EQ(itable16_insert(table, token(1), &i64), 1000);
    EXPECT_EQ(itable16_bound(table, token(1), &i70), 1000);
    EXPECT_EQ(corvex_test::syslog_records(),
              (std::vector<LogRecord>{{3, "ITABLE: inserting illegal index (70)\n"},
                                      {3, "ITABLE: inserting illegal index (64)\n"},
                                      {3, "ITABLE: insert illegal index (70)\n"}}));
    EXPECT_EQ(table->itable16_maxentry, 0u);
    EXPECT_EQ(cans_present(), 0u);
    corvex_test::syslog_clear();
    EXPECT_EQ(itable16_bound(table, nullptr, &i0), 1000);
    EXPECT_EQ(table->itable16_maxentry, 0u);
    EXPECT_EQ(cans_present(), 0u);
    EXPECT_EQ(itable16_bound(table, token(5), &i63), 0);
    EXPECT_EQ(itable16_lookup(table, &i63), token(5));
    EXPECT_EQ(itable16_bound(table, token(6), &i0), 0);
    EXPECT_EQ(itable16_lookup(table, &i0), token(6));
    EXPECT_TRUE(corvex_test::syslog_records().empty());
    // Insert overwrites silently.
    put(63, token(7));
    EXPECT_EQ(get(63), token(7));
    EXPECT_EQ(table->itable16_maxentry, 64u);
}

TEST_F(Itable16Test, InsertWithoutMemoryKeepsTheEmptyCan) {
    heap.fail_after(1);
    const index16_t i = 5000;
    EXPECT_EQ(itable16_insert(table, token(1), &i), 12);
    EXPECT_NE(table->cans[1], nullptr);
    EXPECT_EQ(buckets_present(), 0u);
    EXPECT_EQ(table->itable16_maxentry, 0u);
    heap.fail_after(0);
    index16_t got = 0;
    EXPECT_EQ(itable16_alloc(table, token(1), &got), 12);
    heap.fail_after(-1);
    itable16_cleanup(table);
    EXPECT_EQ(cans_present(), 0u);
    EXPECT_EQ(heap.live(), 1u);  // the record
}

TEST_F(Itable16Test, MarkFollowsTheHighestEntry) {
    put(3);
    put(70);
    put(5000);
    put(40000);
    drop(70);  // not the top: the mark stays
    EXPECT_EQ(table->itable16_maxentry, 40001u);
    drop(40000);
    EXPECT_EQ(table->itable16_maxentry, 5001u);
    drop(5000);
    EXPECT_EQ(table->itable16_maxentry, 4u);
    drop(3);
    EXPECT_EQ(table->itable16_maxentry, 0u);
    EXPECT_EQ(itable16_getnext(table, nullptr, nullptr), nullptr);
    // The scan crosses released storage too.
    itable16_set_cleanup_on_remove(table, 1);
    put(1);
    put(4100);
    put(9000);
    drop(4100);
    EXPECT_EQ(table->cans[1], nullptr);
    drop(9000);
    EXPECT_EQ(table->itable16_maxentry, 2u);
}

TEST_F(Itable16Test, RemovingAFreeIndexChangesNothing) {
    put(10);
    drop(10);
    EXPECT_EQ(table->itable16_numremove, 1u);
    drop(10);        // slot already empty
    drop(11);        // bucket present, slot empty
    drop(20000);     // can absent
    EXPECT_EQ(table->itable16_numremove, 1u);
    EXPECT_EQ(table->itable16_maxentry, 0u);
}

TEST_F(Itable16Test, ReplaceActsOnlyBelowTheMark) {
    put(10);
    put(200);
    const index16_t at_mark = 201, above = 5000, free_slot = 11, absent_bucket = 64, stored = 10;
    EXPECT_EQ(itable16_replace(table, &at_mark, token(1)), nullptr);
    EXPECT_EQ(itable16_replace(table, &above, token(1)), nullptr);
    EXPECT_EQ(get(201), nullptr);
    EXPECT_EQ(get(5000), nullptr);
    const size_t allocations = heap.allocations();
    EXPECT_EQ(itable16_replace(table, &absent_bucket, token(1)), nullptr);
    EXPECT_EQ(get(64), nullptr);
    EXPECT_EQ(heap.allocations(), allocations);
    EXPECT_EQ(itable16_replace(table, &free_slot, token(2)), nullptr);
    EXPECT_EQ(get(11), token(2));
    EXPECT_EQ(itable16_replace(table, &stored, token(3)), token(10));
    EXPECT_EQ(get(10), token(3));
    EXPECT_EQ(table->itable16_maxentry, 201u);
}

TEST_F(Itable16Test, GetnextWalksAcrossAbsentBucketsAndCans) {
    const std::vector<int> stored{0, 1, 63, 64 * 5 + 2, 4096 * 3 + 7, 4096 * 3 + 8, 65535};
    for (int i : stored) put(static_cast<u_int32_t>(i));
    put(200);
    drop(200);  // a present bucket with nothing in it
    EXPECT_EQ(walk(), stored);
    // Starting after an index that holds nothing, and without ret_index.
    const index16_t from = 100;
    EXPECT_EQ(itable16_getnext(table, &from, nullptr), token(64 * 5 + 2));
    index16_t next = 0;
    const index16_t before_top = 65534;
    EXPECT_EQ(itable16_getnext(table, &before_top, &next), token(65535));
    EXPECT_EQ(next, 65535);
    const index16_t top = 65535;
    next = 7;
    EXPECT_EQ(itable16_getnext(table, &top, &next), nullptr);
    EXPECT_EQ(next, 7);
    drop(65535);
    const index16_t last = 4096 * 3 + 8;  // mark - 1
    EXPECT_EQ(itable16_getnext(table, &last, nullptr), nullptr);
}

TEST_F(Itable16Test, CleanupOnRemoveGivesStorageBackAtOnce) {
    itable16_set_cleanup_on_remove(table, 1);
    for (u_int32_t i = 0; i <= 64; ++i) put(i);
    put(4096);
    EXPECT_EQ(heap.live(), 1u + 3u + 2u);  // record, can 0 with 2 buckets, can 1 with 1
    drop(4096);
    EXPECT_EQ(table->cans[1], nullptr);
    EXPECT_EQ(heap.live(), 4u);
    drop(64);
    EXPECT_EQ(table->cans[0][1], nullptr);
    EXPECT_EQ(heap.live(), 3u);
    for (u_int32_t i = 0; i < 63; ++i) drop(i);
    EXPECT_EQ(heap.live(), 3u);
    drop(63);
    EXPECT_EQ(table->cans[0], nullptr);
    EXPECT_EQ(heap.live(), 1u);
    EXPECT_EQ(table->itable16_numremove, 0u);  // no counting in this mode
}

TEST_F(Itable16Test, PackedTableKeepsStorageOnRemove) {
    itable16_set_packed(table, 1);
    itable16_set_cleanup_on_remove(table, 1);
    put(4096);
    drop(4096);
    EXPECT_EQ(heap.live(), 3u);
    EXPECT_EQ(table->itable16_numremove, 0u);
    itable16_cleanup(table);
    EXPECT_EQ(heap.live(), 1u);
}

TEST_F(Itable16Test, The1025thRemovalCleansTheWholeTable) {
    for (u_int32_t i = 0; i < 2048; ++i) put(i);
    EXPECT_EQ(buckets_present(), 32u);
    for (u_int32_t i = 0; i < 1024; ++i) drop(i);
    EXPECT_EQ(table->itable16_numremove, 1024u);
    EXPECT_EQ(buckets_present(), 32u);
    const size_t releases = heap.releases();
    drop(2047);  // the 1025th counted removal
    EXPECT_EQ(table->itable16_numremove, 0u);
    EXPECT_EQ(heap.releases() - releases, 16u);
    EXPECT_EQ(buckets_present(), 16u);
    EXPECT_EQ(table->itable16_maxentry, 2047u);
    EXPECT_EQ(get(1024), token(1024));
}

TEST_F(Itable16Test, DestroyCountsAndReleasesEverything) {
    put(5);
    put(70);
    put(60000);
    put(100);
    drop(100);  // leaves an empty bucket behind
    EXPECT_EQ(heap.live(), 1u + 2u + 2u + 1u);
    EXPECT_EQ(itable16_destroy(table), 3);
    table = nullptr;
    EXPECT_EQ(heap.live(), 0u);
    EXPECT_EQ(heap.releases(), heap.allocations());
}

TEST_F(Itable16Test, CreateFailsCleanlyWithoutMemory) {
    heap.fail_after(0);
    EXPECT_EQ(itable16_create_shm(&CountingAllocator::alloc, &CountingAllocator::release, &heap), nullptr);
    EXPECT_EQ(itable16_create_shm(nullptr, &CountingAllocator::release, &heap), nullptr);
    heap.fail_after(-1);
}

}  // namespace
