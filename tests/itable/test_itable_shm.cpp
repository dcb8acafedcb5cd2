// Shared-memory index table: the file layout byte for byte, attach and
// replace, bad files, bitmap walks, delete, and two processes on one region.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "itable_shm.h"

namespace {

std::vector<unsigned char> file_bytes(const std::string& path) {
    std::vector<unsigned char> bytes;
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return bytes;
    unsigned char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) bytes.insert(bytes.end(), buf, buf + n);
    close(fd);
    return bytes;
}

void file_write(const std::string& path, const std::vector<unsigned char>& bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

u_int32_t u32_at(const std::vector<unsigned char>& b, size_t off) {
    return b[off] | b[off + 1] << 8 | b[off + 2] << 16 | static_cast<u_int32_t>(b[off + 3]) << 24;
}
u_int16_t u16_at(const std::vector<unsigned char>& b, size_t off) {
    return static_cast<u_int16_t>(b[off] | b[off + 1] << 8);
}

ino_t inode_of(const std::string& path) {
    struct stat st{};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

off_t size_of(const std::string& path) {
    struct stat st{};
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

struct Entry {
    u_int32_t id;
    u_int32_t check;
    u_int32_t pad;
};

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
        for (auto& [start, len] : unmapped_later) munmap(start, len);
        unlink(path.c_str());
        rmdir(dir.c_str());
    }

    itable_shm_t* attach(unsigned version, int cmn, int entries, int ent_size) {
        itable_shm_t* h = itable_shm_alloc(path.c_str(), version, cmn, entries, ent_size);
        if (h != nullptr) handles.push_back(h);
        return h;
    }
    // Forgets a handle whose region the test deletes itself.
    void forget(itable_shm_t* h) {
        unmapped_later.emplace_back(itable_shm_get_start_addr(h), static_cast<size_t>(itable_shm_get_mmap_size(h)));
        std::erase(handles, h);
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
    std::vector<std::pair<void*, size_t>> unmapped_later;
};

TEST_F(ShmTest, LayoutOfANewRegion) {
    itable_shm_t* h = attach(7, 10, 100, 12);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(itable_shm_get_mmap_size(h), 1664);
    EXPECT_EQ(size_of(path), 1665);
    struct stat st{};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    const std::vector<unsigned char> b = file_bytes(path);
    ASSERT_EQ(b.size(), 1665u);
    EXPECT_EQ(u32_at(b, 0), 0x20141007u);
    EXPECT_EQ(u32_at(b, 4), 7u);
    EXPECT_EQ(u32_at(b, 8), 1664u);
    EXPECT_EQ(u16_at(b, 12), 16u);
    EXPECT_EQ(u16_at(b, 14), 16u);
    EXPECT_EQ(u32_at(b, 16), 100u);
    EXPECT_EQ(u32_at(b, 20), 32u);
    EXPECT_EQ(u32_at(b, 24), 48u);
    EXPECT_EQ(u32_at(b, 28), 64u);
    for (size_t i = 32; i < b.size(); ++i) ASSERT_EQ(b[i], 0) << i;

    auto* start = static_cast<char*>(itable_shm_get_start_addr(h));
    EXPECT_EQ(static_cast<void*>(h->shm_hdr), start);
    EXPECT_EQ(static_cast<void*>(h->bitmap), start + 48);
    EXPECT_EQ(h->max_widx, 4u);
    EXPECT_EQ(h->last_alloc_index, 0u);
    EXPECT_STREQ(h->shm_path, path.c_str());
    EXPECT_NE(h->shm_path, path.c_str());
    int size = 0;
    EXPECT_EQ(itable_shm_get_cmn_area(h, &size), start + 32);
    EXPECT_EQ(size, 16);
    int valid_flag = 9;
    EXPECT_EQ(itable_shm_entry_get(h, 0, &valid_flag), start + 64);
    EXPECT_EQ(valid_flag, 0);
    EXPECT_EQ(itable_shm_entry_get(h, 99, &valid_flag), start + 64 + 16 * 99);

    // What the process writes through the mapping is in the file.
    memcpy(itable_shm_get_cmn_area(h, &size), "common", 6);
    itable_shm_entry_set(h, 37);
    const std::vector<unsigned char> after = file_bytes(path);
    EXPECT_EQ(std::string(after.begin() + 32, after.begin() + 38), "common");
    EXPECT_EQ(u32_at(after, 48 + 4), 1u << 5);
}

TEST_F(ShmTest, ParametersOutOfRangeAreRefused) {
    errno = 0;
    EXPECT_EQ(itable_shm_alloc(path.c_str(), 1, -1, 10, 8), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(itable_shm_alloc(path.c_str(), 1, 65529, 10, 8), nullptr);
    EXPECT_EQ(itable_shm_alloc(path.c_str(), 1, 8, -1, 8), nullptr);
    EXPECT_EQ(itable_shm_alloc(path.c_str(), 1, 8, 10, 65529), nullptr);
    EXPECT_EQ(itable_shm_alloc(path.c_str(), 1, 8, 0x7FFFFFFF, 65528), nullptr);
    EXPECT_EQ(itable_shm_alloc(nullptr, 1, 8, 10, 8), nullptr);
    EXPECT_EQ(size_of(path), -1) << "nothing is created for refused parameters";
    // The largest sizes still fit their 16-bit fields.
    itable_shm_t* h = attach(1, 65528, 3, 65528);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->shm_hdr->cmn_area_size, 65528u);
    EXPECT_EQ(h->shm_hdr->entry_size, 65528u);
}

TEST_F(ShmTest, OpenFailureReturnsAtOnce) {
    errno = 0;
    EXPECT_EQ(itable_shm_alloc((dir + "/missing/table").c_str(), 1, 8, 8, 8), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ShmTest, IndexAllocProposesUntilSet) {
    itable_shm_t* h = attach(1, 10, 100, 12);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(itable_shm_index_alloc(h), 0);
    EXPECT_EQ(itable_shm_index_alloc(h), 0);
    itable_shm_entry_set(h, 0);
    EXPECT_EQ(itable_shm_index_alloc(h), 1);
    EXPECT_EQ(h->last_alloc_index, 1u);
    for (int i = 1; i < 40; ++i) itable_shm_entry_set(h, i);
    itable_shm_entry_unset(h, 17);
    EXPECT_EQ(itable_shm_index_alloc(h), 17);
    itable_shm_entry_set(h, 17);
    EXPECT_EQ(itable_shm_index_alloc(h), 40);
    EXPECT_EQ(words(h), (std::vector<u_int32_t>{0xFFFFFFFF, 0xFF, 0, 0}));
}

TEST_F(ShmTest, IndexAllocStopsAtTheLastEntry) {
    itable_shm_t* h = attach(1, 0, 40, 4);
    ASSERT_NE(h, nullptr);
    for (int i = 0; i < 40; ++i) itable_shm_entry_set(h, i);
    EXPECT_EQ(words(h), (std::vector<u_int32_t>{0xFFFFFFFF, 0xFF}));
    EXPECT_EQ(itable_shm_index_alloc(h), -1);
    EXPECT_EQ(h->last_alloc_index, 0u);
    itable_shm_entry_unset(h, 39);
    EXPECT_EQ(itable_shm_index_alloc(h), 39);

    // Exactly 64 entries: both words full means none left.
    ASSERT_EQ(unlink(path.c_str()), 0);
    itable_shm_t* full = attach(1, 0, 64, 4);
    ASSERT_NE(full, nullptr);
    for (int i = 0; i < 64; ++i) itable_shm_entry_set(full, i);
    EXPECT_EQ(itable_shm_index_alloc(full), -1);
    // No entries at all.
    ASSERT_EQ(unlink(path.c_str()), 0);
    itable_shm_t* none = attach(1, 8, 0, 4);
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->max_widx, 0u);
    EXPECT_EQ(itable_shm_get_mmap_size(none), 40);
    EXPECT_EQ(itable_shm_index_alloc(none), -1);
    EXPECT_EQ(itable_shm_get_next_index(none, -1), -1);
    EXPECT_EQ(itable_shm_entry_get(none, 0, nullptr), nullptr);
}

TEST_F(ShmTest, NextIndexWalksTheBitmap) {
    itable_shm_t* h = attach(1, 10, 100, 12);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(itable_shm_get_next_index(h, -1), -1);
    itable_shm_entry_set(h, 3);
    itable_shm_entry_set(h, 40);
    EXPECT_EQ(words(h), (std::vector<u_int32_t>{1u << 3, 1u << 8, 0, 0}));
    EXPECT_EQ(itable_shm_get_next_index(h, -1), 3);
    EXPECT_EQ(itable_shm_get_next_index(h, -7), 3);
    EXPECT_EQ(itable_shm_get_next_index(h, 3), 40);
    EXPECT_EQ(itable_shm_get_next_index(h, 40), -1);
    EXPECT_EQ(itable_shm_get_next_index(h, 31), 40);
    EXPECT_EQ(itable_shm_get_next_index(h, 2), 3);
    EXPECT_EQ(itable_shm_get_next_index(h, 100), -1);
    EXPECT_EQ(itable_shm_get_next_index(h, 1000), -1);
    itable_shm_entry_set(h, 0);
    itable_shm_entry_set(h, 31);
    itable_shm_entry_set(h, 32);
    itable_shm_entry_set(h, 99);
    EXPECT_EQ(valid(h), (std::vector<int>{0, 3, 31, 32, 40, 99}));
    EXPECT_EQ(itable_shm_get_next_index(h, 31), 32);
    EXPECT_EQ(itable_shm_get_next_index(h, 98), 99);
    EXPECT_EQ(itable_shm_get_next_index(h, 99), -1);
    itable_shm_entry_unset(h, 40);
    itable_shm_entry_unset(h, 40);
    EXPECT_EQ(valid(h), (std::vector<int>{0, 3, 31, 32, 99}));
    // A stray bit past the last entry (written by someone else) is not an entry.
    h->bitmap[3] |= 1u << 31;
    EXPECT_EQ(itable_shm_get_next_index(h, 99), -1);
}

TEST_F(ShmTest, OutOfRangeIndicesTouchNothing) {
    itable_shm_t* h = attach(1, 10, 100, 12);
    ASSERT_NE(h, nullptr);
    int flag = 42;
    EXPECT_EQ(itable_shm_entry_get(h, 100, &flag), nullptr);
    EXPECT_EQ(itable_shm_entry_get(h, -1, &flag), nullptr);
    EXPECT_EQ(itable_shm_entry_get(h, 0x7FFFFFFF, &flag), nullptr);
    EXPECT_EQ(flag, 42);
    for (int i : {100, 127, 128, -1, -32, 0x7FFFFFFF}) {
        itable_shm_entry_set(h, i);
        itable_shm_entry_unset(h, i);
    }
    itable_shm_entry_set(h, 100);
    EXPECT_EQ(words(h), (std::vector<u_int32_t>{0, 0, 0, 0}));
    EXPECT_EQ(u32_at(file_bytes(path), 0), 0x20141007u) << "header untouched";
    itable_shm_entry_set(h, 64);
    EXPECT_NE(itable_shm_entry_get(h, 64, &flag), nullptr);
    EXPECT_EQ(flag, 1);
    EXPECT_NE(itable_shm_entry_get(h, 65, &flag), nullptr);
    EXPECT_EQ(flag, 0);
    EXPECT_NE(itable_shm_entry_get(h, 64, nullptr), nullptr);
    // A missing handle is ignored everywhere.
    EXPECT_EQ(itable_shm_index_alloc(nullptr), -1);
    EXPECT_EQ(itable_shm_entry_get(nullptr, 0, &flag), nullptr);
    EXPECT_EQ(itable_shm_get_next_index(nullptr, -1), -1);
    EXPECT_EQ(itable_shm_get_start_addr(nullptr), nullptr);
    EXPECT_EQ(itable_shm_get_cmn_area(nullptr, &flag), nullptr);
    itable_shm_entry_set(nullptr, 0);
    itable_shm_delete(nullptr);
}

TEST_F(ShmTest, SameParametersShareTheRegion) {
    itable_shm_t* first = attach(3, 10, 100, 12);
    ASSERT_NE(first, nullptr);
    const ino_t inode = inode_of(path);
    auto* e = static_cast<Entry*>(itable_shm_entry_get(first, 5, nullptr));
    e->id = 5;
    e->check = 0xA5A5;
    itable_shm_entry_set(first, 5);
    int size = 0;
    strcpy(static_cast<char*>(itable_shm_get_cmn_area(first, &size)), "cfg");

    itable_shm_t* second = attach(3, 10, 100, 12);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(inode_of(path), inode);
    EXPECT_NE(second->shm_hdr, first->shm_hdr);  // its own mapping of the same file
    EXPECT_EQ(valid(second), std::vector<int>{5});
    int flag = 0;
    auto* seen = static_cast<Entry*>(itable_shm_entry_get(second, 5, &flag));
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(seen->id, 5u);
    EXPECT_EQ(seen->check, 0xA5A5u);
    EXPECT_STREQ(static_cast<char*>(itable_shm_get_cmn_area(second, &size)), "cfg");
    // A change through one mapping is seen through the other at once.
    itable_shm_entry_set(second, 6);
    EXPECT_EQ(valid(first), (std::vector<int>{5, 6}));

    // A process that restarts finds the region as it was.
    detach(first);
    detach(second);
    itable_shm_t* again = attach(3, 10, 100, 12);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(inode_of(path), inode);
    EXPECT_EQ(valid(again), (std::vector<int>{5, 6}));
}

TEST_F(ShmTest, MismatchingParametersReplaceTheRegion) {
    struct Params {
        unsigned version;
        int cmn, entries, ent_size;
    };
    // Each differs from the previous one in one parameter; rounding to the
    // same sizes (10 and 12 both give 16) is the same region.
    const std::vector<Params> params{{1, 10, 100, 12}, {2, 10, 100, 12}, {2, 24, 100, 12},
                                     {2, 24, 101, 12}, {2, 24, 101, 20}};
    itable_shm_t* prev = nullptr;
    for (const Params& p : params) {
        if (prev != nullptr) itable_shm_entry_set(prev, 7);
        const ino_t old_inode = inode_of(path);
        itable_shm_t* h = attach(p.version, p.cmn, p.entries, p.ent_size);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->shm_hdr->version, p.version);
        EXPECT_EQ(h->shm_hdr->max_entries, static_cast<u_int32_t>(p.entries));
        EXPECT_EQ(itable_shm_get_next_index(h, -1), -1) << "a new region is empty";
        if (prev != nullptr) {
            EXPECT_NE(inode_of(path), old_inode);
            // The old mapping still reads its own, now unlinked, region.
            EXPECT_EQ(itable_shm_get_next_index(prev, -1), 7);
        }
        prev = h;
    }
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
    const std::vector<unsigned char> valid_bytes = file_bytes(path);
    ASSERT_EQ(valid_bytes.size(), 1665u);

    std::vector<std::pair<const char*, std::vector<unsigned char>>> bad;
    bad.emplace_back("truncated in the entries", std::vector<unsigned char>(valid_bytes.begin(), valid_bytes.begin() + 100));
    bad.emplace_back("truncated in the header", std::vector<unsigned char>(valid_bytes.begin(), valid_bytes.begin() + 20));
    bad.emplace_back("without its end byte", std::vector<unsigned char>(valid_bytes.begin(), valid_bytes.end() - 1));
    auto longer = valid_bytes;
    longer.resize(8192);
    bad.emplace_back("longer than made", longer);
    std::vector<unsigned char> foreign(1665, 0x5A);
    bad.emplace_back("foreign", foreign);
    auto other_version = valid_bytes;
    other_version[4] = 2;
    bad.emplace_back("another version", other_version);
    auto deleted = valid_bytes;
    deleted[0] = deleted[1] = deleted[2] = deleted[3] = 0;
    bad.emplace_back("deleted", deleted);
    auto wrong_len = valid_bytes;
    wrong_len[9] = 0x70;  // mmap_len claims 0x7080 bytes
    bad.emplace_back("lying about its length", wrong_len);

    for (auto& [what, bytes] : bad) {
        file_write(path, bytes);
        itable_shm_t* h = attach(1, 10, 100, 12);
        ASSERT_NE(h, nullptr) << what;
        EXPECT_EQ(size_of(path), 1665) << what;
        EXPECT_EQ(valid(h), std::vector<int>{}) << what;
        EXPECT_EQ(file_bytes(path).size(), 1665u) << what;
        // The whole mapping is backed by the file: touching its end is safe.
        auto* last = static_cast<char*>(itable_shm_entry_get(h, 99, nullptr));
        last[15] = 1;
        detach(h);
    }

    // A valid file attaches untouched.
    file_write(path, valid_bytes);
    itable_shm_t* h = attach(1, 10, 100, 12);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(valid(h), std::vector<int>{1});
}

TEST_F(ShmTest, ANonRegularFileCostsOneAttempt) {
    // A FIFO opens for reading and writing but cannot be sized or mapped.
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    itable_shm_t* h = attach(1, 8, 8, 8);
    ASSERT_NE(h, nullptr);
    struct stat st{};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 32 + 8 + 4 + 64 + 1);
}

TEST_F(ShmTest, DeleteKillsTheRegionForEveryone) {
    itable_shm_t* first = attach(1, 10, 100, 12);
    itable_shm_t* second = attach(1, 10, 100, 12);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    itable_shm_entry_set(first, 4);
    auto* hdr = static_cast<itable_shm_header_t*>(itable_shm_get_start_addr(first));
    forget(first);
    itable_shm_delete(first);
    EXPECT_EQ(hdr->magic_num, 0u);
    EXPECT_EQ(second->shm_hdr->magic_num, 0u);  // seen through the other mapping
    EXPECT_EQ(size_of(path), -1);
    EXPECT_EQ(hdr->max_entries, 100u) << "the mapping stays readable";

    itable_shm_t* fresh = attach(1, 10, 100, 12);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->shm_hdr->magic_num, 0x20141007u);
    EXPECT_EQ(valid(fresh), std::vector<int>{});
    EXPECT_EQ(valid(second), std::vector<int>{4});
}

// Writes entry `index` of the region and marks it, the way a publisher does.
void publish(itable_shm_t* h, int index, u_int32_t id) {
    auto* e = static_cast<Entry*>(itable_shm_entry_get(h, index, nullptr));
    e->id = id;
    e->check = ~id;
    itable_shm_entry_set(h, index);
}

TEST_F(ShmTest, TwoProcessesSeeEachOthersEntries) {
    itable_shm_t* parent = attach(5, 16, 64, sizeof(Entry));
    ASSERT_NE(parent, nullptr);
    const int mine = itable_shm_index_alloc(parent);
    ASSERT_EQ(mine, 0);
    publish(parent, mine, 1000);
    int size = 0;
    strcpy(static_cast<char*>(itable_shm_get_cmn_area(parent, &size)), "parent");

    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The child attaches by path, as an unrelated process would.
        itable_shm_t* child = itable_shm_alloc(path.c_str(), 5, 16, 64, sizeof(Entry));
        if (child == nullptr) _exit(10);
        if (child->shm_hdr == parent->shm_hdr) _exit(11);
        int flag = 0;
        auto* e = static_cast<Entry*>(itable_shm_entry_get(child, 0, &flag));
        if (flag != 1 || e->id != 1000 || e->check != ~1000u) _exit(12);
        int csize = 0;
        if (strcmp(static_cast<char*>(itable_shm_get_cmn_area(child, &csize)), "parent") != 0) _exit(13);
        const int idx = itable_shm_index_alloc(child);
        if (idx != 1) _exit(14);
        publish(child, idx, 2000);
        publish(child, 33, 3000);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(valid(parent), (std::vector<int>{0, 1, 33}));
    for (int i : {1, 33}) {
        auto* e = static_cast<Entry*>(itable_shm_entry_get(parent, i, nullptr));
        EXPECT_EQ(e->check, ~e->id);
    }
    EXPECT_EQ(static_cast<Entry*>(itable_shm_entry_get(parent, 33, nullptr))->id, 3000u);
    EXPECT_EQ(itable_shm_index_alloc(parent), 2);
}

TEST_F(ShmTest, ChildWithOtherParametersReplacesTheRegion) {
    itable_shm_t* parent = attach(5, 16, 64, sizeof(Entry));
    ASSERT_NE(parent, nullptr);
    publish(parent, 3, 1);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        itable_shm_t* child = itable_shm_alloc(path.c_str(), 6, 16, 64, sizeof(Entry));
        _exit(child != nullptr && itable_shm_get_next_index(child, -1) == -1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    // The file is the child's now; the parent keeps its unlinked region.
    const std::vector<unsigned char> b = file_bytes(path);
    ASSERT_GE(b.size(), 8u);
    EXPECT_EQ(u32_at(b, 4), 6u);
    EXPECT_EQ(valid(parent), std::vector<int>{3});
}

}  // namespace
