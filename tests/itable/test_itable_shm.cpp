// Shared-memory index table: the file layout byte for byte, attach and
// replace, bad files, bitmap walks, delete, and two processes on one region.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "itable_shm.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes file_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

// A header field of the file, in the host's byte order.
template <class T>
u_int32_t field(const Bytes& b, size_t off) {
    T v{};
    if (off + sizeof v <= b.size()) memcpy(&v, b.data() + off, sizeof v);
    return v;
}

struct stat stat_of(const std::string& path) {
    struct stat st{};
    if (stat(path.c_str(), &st) != 0) st.st_size = -1;
    return st;
}

struct Entry {
    u_int32_t id;
    u_int32_t check;
    u_int32_t pad;
};

// Writes an entry and then marks it, the order a publisher keeps.
void publish(itable_shm_t* h, int index, u_int32_t id) {
    auto* e = static_cast<Entry*>(itable_shm_entry_get(h, index, nullptr));
    e->id = id;
    e->check = ~id;
    itable_shm_entry_set(h, index);
}

// Runs `child` in a forked process; its exit status, or -1.
template <class F>
int in_child(F child) {
    const pid_t pid = fork();
    if (pid == 0) _exit(child());
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

class ShmTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/corvex_itable_shm_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir + "/table";
    }
    void TearDown() override {
        for (itable_shm_t* h : handles) {
            void* start = itable_shm_get_start_addr(h);
            const int len = itable_shm_get_mmap_size(h);
            itable_shm_delete(h);
            munmap(start, static_cast<size_t>(len));
        }
        unlink(path.c_str());
        rmdir(dir.c_str());
    }

    itable_shm_t* attach(unsigned version, int cmn, int entries, int ent_size) {
        itable_shm_t* h = itable_shm_alloc(path.c_str(), version, cmn, entries, ent_size);
        if (h != nullptr) handles.push_back(h);
        return h;
    }
    // Lets go of this process's view without touching the file.
    void detach(itable_shm_t* h) {
        munmap(itable_shm_get_start_addr(h), static_cast<size_t>(itable_shm_get_mmap_size(h)));
        close(h->shm_fd);
        free(h->shm_path);
        free(h);
        std::erase(handles, h);
    }
    std::vector<u_int32_t> words(itable_shm_t* h) { return {h->bitmap, h->bitmap + h->max_widx}; }
    std::vector<int> valid(itable_shm_t* h) {
        std::vector<int> seen;
        for (int i = itable_shm_get_next_index(h, -1); i >= 0; i = itable_shm_get_next_index(h, i)) seen.push_back(i);
        return seen;
    }

    std::string dir, path;
    std::vector<itable_shm_t*> handles;
};

TEST_F(ShmTest, LayoutOfANewRegion) {
    itable_shm_t* h = attach(7, 10, 100, 12);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(itable_shm_get_mmap_size(h), 1664);
    EXPECT_EQ(stat_of(path).st_size, 1665);
    EXPECT_EQ(stat_of(path).st_mode & 0777, 0600u);
    const Bytes b = file_bytes(path);
    ASSERT_EQ(b.size(), 1665u);
    const std::vector<u_int32_t> header{field<u_int32_t>(b, 0),  field<u_int32_t>(b, 4),  field<u_int32_t>(b, 8),
                                        field<u_int16_t>(b, 12), field<u_int16_t>(b, 14), field<u_int32_t>(b, 16),
                                        field<u_int32_t>(b, 20), field<u_int32_t>(b, 24), field<u_int32_t>(b, 28)};
    EXPECT_EQ(header, (std::vector<u_int32_t>{0x20141007, 7, 1664, 16, 16, 100, 32, 48, 64}));
    EXPECT_TRUE(std::all_of(b.begin() + 32, b.end(), [](unsigned char c) { return c == 0; }));

    auto* start = static_cast<char*>(itable_shm_get_start_addr(h));
    EXPECT_EQ(static_cast<void*>(h->bitmap), start + 48);
    EXPECT_EQ(h->max_widx, 4u);
    EXPECT_STREQ(h->shm_path, path.c_str());
    int size = 0, flag = 9;
    EXPECT_EQ(itable_shm_get_cmn_area(h, &size), start + 32);
    EXPECT_EQ(size, 16);
    EXPECT_EQ(itable_shm_entry_get(h, 0, &flag), start + 64);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(itable_shm_entry_get(h, 99, &flag), start + 64 + 16 * 99);
}

TEST_F(ShmTest, BadParametersAndPathsAreRefused) {
    struct Params { int cmn, entries, ent_size; };
    for (const Params& p : {Params{-1, 10, 8}, Params{65529, 10, 8}, Params{8, -1, 8}, Params{8, 10, 65529},
                            Params{8, 0x7FFFFFFF, 65528}}) {
        errno = 0;
        EXPECT_EQ(itable_shm_alloc(path.c_str(), 1, p.cmn, p.entries, p.ent_size), nullptr) << p.cmn << " " << p.entries;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(itable_shm_alloc(nullptr, 1, 8, 10, 8), nullptr);
    EXPECT_EQ(stat_of(path).st_size, -1) << "nothing is created for refused parameters";
    errno = 0;
    EXPECT_EQ(itable_shm_alloc((dir + "/missing/table").c_str(), 1, 8, 8, 8), nullptr);
    EXPECT_EQ(errno, ENOENT);
    // The largest sizes still fit their 16-bit fields.
    itable_shm_t* h = attach(1, 65528, 3, 65528);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->shm_hdr->cmn_area_size, 65528u);
    EXPECT_EQ(h->shm_hdr->entry_size, 65528u);
}

TEST_F(ShmTest, IndexAllocProposesTheLowestUnmarkedIndex) {
    itable_shm_t* h = attach(1, 10, 100, 12);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(itable_shm_index_alloc(h), 0);
    EXPECT_EQ(itable_shm_index_alloc(h), 0);  // proposing does not mark
    itable_shm_entry_set(h, 0);
    EXPECT_EQ(itable_shm_index_alloc(h), 1);
    EXPECT_EQ(h->last_alloc_index, 1u);
    for (int i = 1; i < 40; ++i) itable_shm_entry_set(h, i);
    itable_shm_entry_unset(h, 17);
    EXPECT_EQ(itable_shm_index_alloc(h), 17);
    itable_shm_entry_set(h, 17);
    EXPECT_EQ(itable_shm_index_alloc(h), 40);
    EXPECT_EQ(words(h), (std::vector<u_int32_t>{0xFFFFFFFF, 0xFF, 0, 0}));

    // 40 entries leave bits 40..63 free but are full; 64 fill both words.
    for (int entries : {40, 64}) {
        unlink(path.c_str());
        itable_shm_t* full = attach(1, 0, entries, 4);
        ASSERT_NE(full, nullptr);
        for (int i = 0; i < entries; ++i) itable_shm_entry_set(full, i);
        EXPECT_EQ(itable_shm_index_alloc(full), -1) << entries;
        EXPECT_EQ(full->last_alloc_index, 0u);
        itable_shm_entry_unset(full, entries - 1);
        EXPECT_EQ(itable_shm_index_alloc(full), entries - 1);
    }
    unlink(path.c_str());
    itable_shm_t* none = attach(1, 8, 0, 4);
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->max_widx, 0u);
    EXPECT_EQ(itable_shm_index_alloc(none), -1);
    EXPECT_EQ(itable_shm_get_next_index(none, -1), -1);
    EXPECT_EQ(itable_shm_entry_get(none, 0, nullptr), nullptr);
}

TEST_F(ShmTest, NextIndexWalksTheBitmapOutOfRangeTouchesNothing) {
    itable_shm_t* h = attach(1, 10, 100, 12);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(itable_shm_get_next_index(h, -1), -1);
    int flag = 42;
    for (int i : {100, 127, 128, -1, -32, 0x7FFFFFFF}) {
        EXPECT_EQ(itable_shm_entry_get(h, i, &flag), nullptr) << i;
        itable_shm_entry_unset(h, i);
        itable_shm_entry_set(h, i);
    }
    EXPECT_EQ(flag, 42);
    EXPECT_EQ(field<u_int32_t>(file_bytes(path), 0), 0x20141007u) << "header untouched";
    itable_shm_entry_set(h, 3);
    itable_shm_entry_set(h, 40);
    EXPECT_EQ(words(h), (std::vector<u_int32_t>{1u << 3, 1u << 8, 0, 0}));
    const std::vector<std::pair<int, int>> steps{{-1, 3}, {-7, 3}, {2, 3},     {3, 40},
                                                 {31, 40}, {40, -1}, {100, -1}, {1000, -1}};
    for (auto [prev, next] : steps) EXPECT_EQ(itable_shm_get_next_index(h, prev), next) << prev;
    for (int i : {0, 31, 32, 99}) itable_shm_entry_set(h, i);
    EXPECT_EQ(valid(h), (std::vector<int>{0, 3, 31, 32, 40, 99}));
    itable_shm_entry_unset(h, 40);
    itable_shm_entry_unset(h, 40);
    EXPECT_EQ(valid(h), (std::vector<int>{0, 3, 31, 32, 99}));
    // A stray bit past the last entry (written by someone else) is not an entry.
    h->bitmap[3] |= 1u << 31;
    EXPECT_EQ(itable_shm_get_next_index(h, 99), -1);
    // A missing handle is ignored everywhere.
    EXPECT_EQ(itable_shm_index_alloc(nullptr), -1);
    EXPECT_EQ(itable_shm_entry_get(nullptr, 0, &flag), nullptr);
    EXPECT_EQ(itable_shm_get_next_index(nullptr, -1), -1);
    EXPECT_EQ(itable_shm_get_start_addr(nullptr), nullptr);
    EXPECT_EQ(itable_shm_get_cmn_area(nullptr, &flag), nullptr);
    itable_shm_entry_set(nullptr, 0);
    itable_shm_delete(nullptr);
}

TEST_F(ShmTest, SameParametersFindTheRegionAsItWasLeft) {
    itable_shm_t* first = attach(3, 10, 100, 12);
    ASSERT_NE(first, nullptr);
    const ino_t inode = stat_of(path).st_ino;
    publish(first, 5, 0xA5A5);
    int size = 0, flag = 0;
    strcpy(static_cast<char*>(itable_shm_get_cmn_area(first, &size)), "cfg");
    detach(first);  // as a process that ends without deleting
    itable_shm_t* again = attach(3, 10, 100, 12);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(stat_of(path).st_ino, inode);
    EXPECT_EQ(valid(again), std::vector<int>{5});
    auto* seen = static_cast<Entry*>(itable_shm_entry_get(again, 5, &flag));
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(seen->id, 0xA5A5u);
    EXPECT_EQ(seen->check, ~0xA5A5u);
    EXPECT_STREQ(static_cast<char*>(itable_shm_get_cmn_area(again, &size)), "cfg");
}

TEST_F(ShmTest, MismatchingParametersReplaceTheRegion) {
    struct Params { unsigned version; int cmn, entries, ent_size; };
    // Each differs from the previous one in one parameter.
    const std::vector<Params> params{{1, 10, 100, 12}, {2, 10, 100, 12}, {2, 24, 100, 12},
                                     {2, 24, 101, 12}, {2, 24, 101, 20}};
    itable_shm_t* prev = nullptr;
    for (const Params& p : params) {
        if (prev != nullptr) itable_shm_entry_set(prev, 7);
        itable_shm_t* h = attach(p.version, p.cmn, p.entries, p.ent_size);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->shm_hdr->version, p.version);
        EXPECT_EQ(h->shm_hdr->max_entries, static_cast<u_int32_t>(p.entries));
        EXPECT_EQ(itable_shm_get_next_index(h, -1), -1) << "a new region is empty";
        if (prev != nullptr) {
            EXPECT_EQ(itable_shm_get_next_index(prev, -1), 7) << "the old mapping keeps its region";
        }
        prev = h;
    }
    // Sizes that round to the same multiples of 8 are the same region.
    itable_shm_entry_set(prev, 9);
    itable_shm_t* rounded_same = attach(2, 17, 101, 17);
    ASSERT_NE(rounded_same, nullptr);
    EXPECT_EQ(itable_shm_get_next_index(rounded_same, -1), 9);
}

TEST_F(ShmTest, BadFilesAreReplacedNeverMapped) {
    itable_shm_t* good = attach(1, 10, 100, 12);
    ASSERT_NE(good, nullptr);
    itable_shm_entry_set(good, 1);
    detach(good);
    const Bytes valid_bytes = file_bytes(path);
    ASSERT_EQ(valid_bytes.size(), 1665u);
    // The valid file cut or grown to `len` bytes, with `values` written at `at`.
    const auto edited = [&](size_t len, size_t at = 0, const Bytes& values = {}) {
        Bytes b = valid_bytes;
        b.resize(len);
        std::copy(values.begin(), values.end(), b.begin() + static_cast<long>(at));
        return b;
    };
    const std::vector<std::pair<const char*, Bytes>> bad{
        {"truncated in the entries", edited(100)},
        {"truncated in the header", edited(20)},
        {"without its end byte", edited(1664)},
        {"longer than made", edited(8192)},
        {"foreign", Bytes(1665, 0x5A)},
        {"another version", edited(1665, 4, {2})},
        {"deleted", edited(1665, 0, {0, 0, 0, 0})},
        {"lying about its length", edited(1665, 9, {0x70})},  // mmap_len 0x7080
    };
    for (const auto& [what, bytes] : bad) {
        std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(bytes.data()),
                                                                     static_cast<std::streamsize>(bytes.size()));
        itable_shm_t* h = attach(1, 10, 100, 12);
        ASSERT_NE(h, nullptr) << what;
        EXPECT_EQ(valid(h), std::vector<int>{}) << what;
        EXPECT_EQ(file_bytes(path).size(), 1665u) << what;
        // The whole mapping is backed by the file: touching its end is safe.
        static_cast<char*>(itable_shm_entry_get(h, 99, nullptr))[15] = 1;
        detach(h);
    }
    // A FIFO opens for reading and writing but cannot be sized or mapped.
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    ASSERT_NE(attach(1, 8, 8, 8), nullptr);
    EXPECT_TRUE(S_ISREG(stat_of(path).st_mode));
    EXPECT_EQ(stat_of(path).st_size, 32 + 8 + 4 + 64 + 1);
}

TEST_F(ShmTest, DeleteKillsTheRegionForEveryone) {
    itable_shm_t* first = attach(1, 10, 100, 12);
    itable_shm_t* second = attach(1, 10, 100, 12);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    itable_shm_entry_set(first, 4);
    auto* hdr = static_cast<itable_shm_header_t*>(itable_shm_get_start_addr(first));
    std::erase(handles, first);
    itable_shm_delete(first);
    EXPECT_EQ(hdr->magic_num, 0u);
    EXPECT_EQ(second->shm_hdr->magic_num, 0u);  // seen through the other mapping
    EXPECT_EQ(stat_of(path).st_size, -1);
    EXPECT_EQ(hdr->max_entries, 100u) << "the mapping stays readable";
    munmap(hdr, hdr->mmap_len);

    itable_shm_t* fresh = attach(1, 10, 100, 12);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->shm_hdr->magic_num, 0x20141007u);
    EXPECT_EQ(valid(fresh), std::vector<int>{});
    EXPECT_EQ(valid(second), std::vector<int>{4});
}

TEST_F(ShmTest, TwoProcessesSeeEachOthersEntries) {
    itable_shm_t* parent = attach(5, 16, 64, sizeof(Entry));
    ASSERT_NE(parent, nullptr);
    ASSERT_EQ(itable_shm_index_alloc(parent), 0);
    publish(parent, 0, 1000);
    int size = 0;
    strcpy(static_cast<char*>(itable_shm_get_cmn_area(parent, &size)), "parent");
    // The child attaches by path, as an unrelated process would, and gets its own mapping.
    EXPECT_EQ(in_child([&] {
                  itable_shm_t* c = itable_shm_alloc(path.c_str(), 5, 16, 64, sizeof(Entry));
                  int flag = 0;
                  const auto* e = c ? static_cast<Entry*>(itable_shm_entry_get(c, 0, &flag)) : nullptr;
                  if (e == nullptr || c->shm_hdr == parent->shm_hdr || flag != 1 || e->id != 1000 || e->check != ~1000u ||
                      strcmp(static_cast<char*>(itable_shm_get_cmn_area(c, &flag)), "parent") != 0 ||
                      itable_shm_index_alloc(c) != 1)
                      return 1;
                  publish(c, 1, 2000);
                  publish(c, 33, 3000);
                  return 0;
              }),
              0);
    EXPECT_EQ(valid(parent), (std::vector<int>{0, 1, 33}));
    for (auto [i, id] : {std::pair{1, 2000u}, std::pair{33, 3000u}}) {
        auto* e = static_cast<Entry*>(itable_shm_entry_get(parent, i, nullptr));
        EXPECT_EQ(e->id, id);
        EXPECT_EQ(e->check, ~id);
    }
    EXPECT_EQ(itable_shm_index_alloc(parent), 2);
}

}  // namespace
