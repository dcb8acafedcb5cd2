// Shared-memory index table: a reader walking while a writer publishes
// never meets an entry whose bit is set before its bytes are written.
#include <atomic>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "itable_shm.h"

namespace {

// 224 entries give 7 bitmap words, so entries are only 4-byte aligned.
struct Entry {
    u_int32_t id;
    u_int32_t check;
    u_int32_t payload[5];
};

constexpr int kEntries = 224;

u_int32_t fill_of(int index) { return 0x11111111u * static_cast<u_int32_t>(index % 15 + 1); }

TEST(ShmPublish, ReaderNeverSeesAHalfWrittenEntry) {
    char tmpl[] = "/tmp/corvex_itable_pub_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string path = std::string(tmpl) + "/table";
    // One mapping for both threads, so a thread sanitizer sees every access.
    itable_shm_t* h = itable_shm_alloc(path.c_str(), 1, 0, kEntries, sizeof(Entry));
    ASSERT_NE(h, nullptr);

    // The writer waits until the reader has found each entry, so every entry is
    // read while the writer is at work. The handshake is relaxed on purpose:
    // only the bitmap may carry the entry's bytes to the reader.
    std::atomic<int> seen_by_reader{0};
    std::atomic<bool> reader_gave_up{false};
    std::thread writer([&] {
        for (int n = 0; n < kEntries; ++n) {
            const int index = itable_shm_index_alloc(h);
            auto* e = static_cast<Entry*>(itable_shm_entry_get(h, index, nullptr));
            e->id = static_cast<u_int32_t>(index) + 1;
            for (u_int32_t& word : e->payload) word = fill_of(index);
            e->check = ~e->id;
            itable_shm_entry_set(h, index);
            while (seen_by_reader.load(std::memory_order_relaxed) <= n &&
                   !reader_gave_up.load(std::memory_order_relaxed))
                std::this_thread::yield();
        }
    });

    int bad = 0, last_count = 0;
    // A walk that finds nothing new yields, so the writer runs under any
    // scheduler (valgrind runs one thread at a time). A correct table cannot
    // reach ten million such walks in a row: each gives the processor away,
    // and the writer, runnable, publishes its next entry long before. There,
    // the entries never showed up: give up.
    for (int idle_walks = 0; last_count < kEntries && idle_walks < 10000000;) {
        int count = 0;
        for (int i = itable_shm_get_next_index(h, -1); i >= 0; i = itable_shm_get_next_index(h, i), ++count) {
            int flag = 0;
            const auto* e = static_cast<const Entry*>(itable_shm_entry_get(h, i, &flag));
            bad += flag != 1 || e->id != static_cast<u_int32_t>(i) + 1 || e->check != ~e->id ||
                   e->payload[0] != fill_of(i) || e->payload[4] != fill_of(i);
        }
        EXPECT_GE(count, last_count) << "entries are only added";
        idle_walks = count == last_count ? idle_walks + 1 : 0;
        last_count = count;
        seen_by_reader.store(count, std::memory_order_relaxed);
        if (idle_walks > 0) std::this_thread::yield();
    }
    reader_gave_up.store(true, std::memory_order_relaxed);
    writer.join();
    EXPECT_EQ(std::tuple(bad, last_count, itable_shm_index_alloc(h)), std::tuple(0, kEntries, -1));
    const auto len = static_cast<size_t>(itable_shm_get_mmap_size(h));
    void* start = itable_shm_get_start_addr(h);
    itable_shm_delete(h);
    munmap(start, len);
    rmdir(tmpl);
}

}  // namespace
