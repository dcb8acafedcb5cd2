// Shared-memory index table: the file layout byte for byte, attach and
// replace, bad files, bitmap walks, delete, and two processes on one region.
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "itable_shm.h"
#include "shm_view.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes file_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

off_t file_size(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Writes an entry (its id and the id's complement) and then marks it, the order a publisher keeps.
void publish(itable_shm_t* h, int index, u_int32_t id) {
    auto* e = static_cast<u_int32_t*>(itable_shm_entry_get(h, index, nullptr));
    e[0] = id, e[1] = ~id;
    itable_shm_entry_set(h, index);
}

std::vector<int> valid(itable_shm_t* h) {
    std::vector<int> seen;
    for (int i = itable_shm_get_next_index(h, -1); i >= 0; i = itable_shm_get_next_index(h, i)) seen.push_back(i);
    return seen;
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
        while (!handles.empty()) detach(handles.back());
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
    itable_shm_t* attach(unsigned version, int cmn, int entries, int ent_size) {
        itable_shm_t* h = itable_shm_alloc(path.c_str(), version, cmn, entries, ent_size);
        if (h != nullptr) handles.push_back(h);
        return h;
    }
    void detach(itable_shm_t* h) {
        shm_view_release(h);
        std::erase(handles, h);
    }
    std::string dir, path;
    std::vector<itable_shm_t*> handles;
};

TEST_F(ShmTest, LayoutOfANewRegionAndRefusedParameters) {
    itable_shm_t* h = attach(7, 10, 100, 12);
    ASSERT_NE(h, nullptr);
    const Bytes b = file_bytes(path);
    ASSERT_EQ(b.size(), 1665u);
    std::vector<u_int32_t> header(8);
    std::memcpy(header.data(), b.data(), 32);
    EXPECT_EQ(header,
              (std::vector<u_int32_t>{0x20141007, 7, 1664, 16 | 16 << 16, 100, 32, 48, 64}));  // two 16-bit sizes
    EXPECT_EQ(std::count(b.begin() + 32, b.end(), 0), 1665 - 32);
    auto* start = static_cast<char*>(itable_shm_get_start_addr(h));
    int size = 0, flag = 9;
    EXPECT_EQ(itable_shm_get_cmn_area(h, &size), start + 32);
    EXPECT_EQ(itable_shm_entry_get(h, 99, &flag), start + 64 + 16 * 99);
    EXPECT_EQ(std::tuple(itable_shm_get_mmap_size(h), size, flag), std::tuple(1664, 16, 0));
    for (auto [cmn, entries, ent_size] : {std::tuple{-1, 10, 8}, {65529, 10, 8}, {8, -1, 8}, {8, 0x7FFFFFFF, 65528}}) {
        errno = 0;
        EXPECT_EQ(itable_shm_alloc((dir + "/other").c_str(), 1, cmn, entries, ent_size), nullptr)
            << cmn << " " << entries;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(file_size(dir + "/other"), -1) << "nothing is created";
    }
}

TEST_F(ShmTest, IndexAllocProposesTheLowestUnmarkedIndexAndNextIndexWalksTheBitmap) {
    itable_shm_t* h = attach(1, 0, 40, 4);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(itable_shm_index_alloc(h), 0);
    EXPECT_EQ(itable_shm_index_alloc(h), 0) << "proposing does not mark";
    for (int i = 0; i < 40; ++i) itable_shm_entry_set(h, i);
    EXPECT_EQ(itable_shm_index_alloc(h), -1) << "40 entries leave bits 40..63 free but are full";
    for (int i : {17, 39, 40, 100, -1}) itable_shm_entry_unset(h, i);
    EXPECT_EQ(itable_shm_index_alloc(h), 17);
    const std::vector<std::pair<int, int>> steps{{-7, 0}, {15, 16}, {16, 18}, {30, 31}, {31, 32}, {38, -1}, {1000, -1}};
    for (auto [prev, next] : steps) EXPECT_EQ(itable_shm_get_next_index(h, prev), next) << prev;
    h->bitmap[1] |= 1u << 31;  // a stray bit past the last entry (written by someone else) is not an entry
    EXPECT_EQ(itable_shm_get_next_index(h, 38), -1);
    int flag = 42;
    EXPECT_EQ(std::tuple(itable_shm_entry_get(h, 40, &flag), itable_shm_entry_get(h, -1, &flag), flag),
              std::tuple(nullptr, nullptr, 42));
    EXPECT_EQ(std::tuple(itable_shm_index_alloc(nullptr), itable_shm_get_next_index(nullptr, -1)), std::tuple(-1, -1));
}

TEST_F(ShmTest, SameParametersFindTheRegionAsItWasLeftOthersReplaceIt) {
    itable_shm_t* first = attach(3, 10, 100, 12);
    ASSERT_NE(first, nullptr);
    publish(first, 5, 0xA5A5);
    int size = 0;
    strcpy(static_cast<char*>(itable_shm_get_cmn_area(first, &size)), "cfg");
    detach(first);  // as a process that ends without deleting
    itable_shm_t* again = attach(3, 11, 100, 13);  // sizes that round to the same multiples of 8
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(std::tuple(valid(again), static_cast<u_int32_t*>(itable_shm_entry_get(again, 5, nullptr))[1]),
              std::tuple(std::vector<int>{5}, ~0xA5A5u));
    EXPECT_STREQ(static_cast<char*>(itable_shm_get_cmn_area(again, &size)), "cfg");
    // Each parameter that differs makes a new, empty region; the old mapping keeps its own.
    for (auto [version, cmn, entries, ent_size] : {std::tuple{4u, 11, 100, 13}, {4u, 24, 100, 13}, {4u, 24, 101, 20}}) {
        itable_shm_t* h = attach(version, cmn, entries, ent_size);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(std::tuple(h->shm_hdr->max_entries, valid(h)),
                  std::tuple(static_cast<u_int32_t>(entries), std::vector<int>{}));
        itable_shm_entry_set(h, 7);
    }
    EXPECT_EQ(valid(again), std::vector<int>{5});
}

TEST_F(ShmTest, TwoProcessesSeeEachOthersEntries) {
    itable_shm_t* parent = attach(5, 16, 64, 12);
    ASSERT_NE(parent, nullptr);
    publish(parent, 0, 1000);
    // The child attaches by path, as an unrelated process would, and gets its own mapping.
    const pid_t child = fork();
    if (child == 0) {
        itable_shm_t* c = itable_shm_alloc(path.c_str(), 5, 16, 64, 12);
        int flag = 0;
        const auto* e = c ? static_cast<u_int32_t*>(itable_shm_entry_get(c, 0, &flag)) : nullptr;
        if (e == nullptr || c->shm_hdr == parent->shm_hdr || flag != 1 || e[1] != ~1000u ||
            itable_shm_index_alloc(c) != 1)
            _exit(1);
        publish(c, 33, 3000);
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(std::tuple(valid(parent), static_cast<u_int32_t*>(itable_shm_entry_get(parent, 33, nullptr))[1]),
              std::tuple(std::vector<int>{0, 33}, ~3000u));
}

}  // namespace
