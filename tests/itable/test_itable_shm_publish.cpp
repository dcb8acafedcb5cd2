// Shared-memory index table: a reader walking while a writer publishes
// never meets an entry whose bit is set before its bytes are written.
#include <atomic>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "itable_shm.h"

namespace {

// Entries are only 4-byte aligned when the bitmap has an odd number of
// words (1050 entries: 33 words), so the record holds 32-bit fields only.
struct Entry {
    u_int32_t id;
    u_int32_t check;
    u_int32_t payload[5];
};

constexpr int kEntries = 1050;

TEST(ShmPublish, ReaderNeverSeesAHalfWrittenEntry) {
    char tmpl[] = "/tmp/corvex_itable_pub_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string path = std::string(tmpl) + "/table";
    // Both threads use one mapping, so a thread sanitizer sees every access.
    itable_shm_t* writer_view = itable_shm_alloc(path.c_str(), 1, 0, kEntries, sizeof(Entry));
    ASSERT_NE(writer_view, nullptr);
    itable_shm_t* reader_view = writer_view;

    // The writer publishes one entry at a time and waits until the reader's
    // walk has found it, so every entry is read while the writer is still
    // at work. The handshake is relaxed on purpose: it orders nothing, so
    // only the bitmap can carry the entry's bytes to the reader.
    std::atomic<int> seen_by_reader{0};
    std::atomic<bool> reader_gave_up{false};
    std::thread writer([&] {
        for (int n = 0; n < kEntries; ++n) {
            const int index = itable_shm_index_alloc(writer_view);
            auto* e = static_cast<Entry*>(itable_shm_entry_get(writer_view, index, nullptr));
            e->id = static_cast<u_int32_t>(index) + 1;
            for (u_int32_t& word : e->payload) word = 0x11111111u * static_cast<u_int32_t>(index % 15 + 1);
            e->check = ~e->id;
            itable_shm_entry_set(writer_view, index);
            while (seen_by_reader.load(std::memory_order_relaxed) <= n &&
                   !reader_gave_up.load(std::memory_order_relaxed)) {
                std::this_thread::yield();
            }
        }
    });

    int bad = 0;
    int last_count = 0;
    // A walk that finds nothing new many times in a row means the writer's
    // entries never showed up: give up rather than hang.
    for (int idle_walks = 0; last_count < kEntries && idle_walks < 10000000;) {
        int count = 0;
        for (int i = itable_shm_get_next_index(reader_view, -1); i >= 0; i = itable_shm_get_next_index(reader_view, i)) {
            int flag = 0;
            const auto* e = static_cast<const Entry*>(itable_shm_entry_get(reader_view, i, &flag));
            const u_int32_t fill = 0x11111111u * static_cast<u_int32_t>(i % 15 + 1);
            bad += flag != 1 || e->id != static_cast<u_int32_t>(i) + 1 || e->check != ~e->id ||
                   e->payload[0] != fill || e->payload[4] != fill;
            ++count;
        }
        // Entries are only added, in index order.
        EXPECT_GE(count, last_count);
        idle_walks = count == last_count ? idle_walks + 1 : 0;
        last_count = count;
        seen_by_reader.store(count, std::memory_order_relaxed);
    }
    reader_gave_up.store(true, std::memory_order_relaxed);
    writer.join();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(last_count, kEntries);
    EXPECT_EQ(itable_shm_index_alloc(reader_view), -1);

    const int len = itable_shm_get_mmap_size(writer_view);
    void* start = itable_shm_get_start_addr(writer_view);
    itable_shm_delete(writer_view);
    munmap(start, static_cast<size_t>(len));
    rmdir(tmpl);
}

}  // namespace
