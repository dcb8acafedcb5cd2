// Intrusive list: invariants after every operation, ordering rules, misuse.
#include <cstddef>
#include <vector>

#include <gtest/gtest.h>

#include "llist.h"
#include "syslog_capture.h"

using corvex_test::LogRecord;
using corvex_test::syslog_records;

namespace {

// The link sits in the middle of the record, so item and link pointers differ.
struct Port {
    int key;
    list_item_t link;
    int seq;
};

// Checks the links both ways and the count; the keys from head to tail.
std::vector<int> keys_checked(list_t* list) {
    std::vector<int> keys, backward;
    for (auto* p = static_cast<Port*>(list_get_head(list)); p; p = static_cast<Port*>(list_get_next(list, p)))
        keys.push_back(p->key);
    for (auto* p = static_cast<Port*>(list_get_tail(list)); p; p = static_cast<Port*>(list_get_prev(list, p)))
        backward.insert(backward.begin(), p->key);
    EXPECT_EQ(std::tuple(backward, list->item_count, list->head == nullptr),
              std::tuple(keys, keys.size(), keys.empty()));
    return keys;
}

class ListTest : public ::testing::Test {
protected:
    void SetUp() override {
        list_init_static("Ports", offsetof(Port, link), &list);
        for (int i = 0; i < 8; ++i) ports[i].key = i;
        corvex_test::syslog_clear();
    }
    list_item_t* link(int i) { return &ports[i].link; }
    list_t list{};
    Port ports[8]{};
};

TEST_F(ListTest, InsertionsAndYanks) {
    EXPECT_EQ(std::tuple(list_get_head(&list), list_get_tail(&list), list_yank_head(&list)),
              std::tuple(nullptr, nullptr, nullptr));
    list_insert_after(&list, nullptr, link(2));   // appends
    list_insert_before(&list, nullptr, link(0));  // prepends
    list_append(&list, link(4));
    list_insert_before(&list, link(2), link(1));
    list_insert_after(&list, link(2), link(3));
    list_insert_before(&list, link(0), link(5));  // new head
    list_insert_after(&list, link(4), link(6));   // new tail
    list_prepend(&list, link(7));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{7, 5, 0, 1, 2, 3, 4, 6}));
    EXPECT_EQ(list_get_next(&list, nullptr), nullptr) << "does not start at the head";
    // Yanks at the ends leave the removed links as they were; a yank anywhere clears them.
    EXPECT_EQ(list_yank_head(&list), &ports[7]);
    EXPECT_EQ(list_yank_tail(&list), &ports[6]);
    list_yank(&list, link(2));
    Port unlisted{};
    list_yank(&list, &unlisted.link);  // never listed, both links null: nothing changes
    EXPECT_EQ(std::tuple(ports[7].link.next, ports[6].link.prev, ports[2].link.next),
              std::tuple(link(5), link(4), nullptr));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{5, 0, 1, 3, 4}));
    EXPECT_TRUE(syslog_records().empty());
}

TEST_F(ListTest, AddSortedIsAscendingAndStableFindComparesItemThenKey) {
    Port items[6]{};
    const int keys[] = {5, 1, 5, 9, 5, 0};
    auto by_key = [](void* item, void* other) {
        return static_cast<Port*>(item)->key - static_cast<Port*>(other)->key;
    };
    for (int i = 0; i < 6; ++i) items[i] = {keys[i], {}, i}, list_add_sorted(&list, &items[i], by_key);
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0, 1, 5, 5, 5, 9}));
    std::vector<int> equal_order;
    for (auto* p = static_cast<Port*>(list_get_head(&list)); p; p = static_cast<Port*>(list_get_next(&list, p)))
        if (p->key == 5) equal_order.push_back(p->seq);
    EXPECT_EQ(equal_order, (std::vector<int>{0, 2, 4})) << "order of insertion";
    Port key{9, {}, 0};
    EXPECT_EQ(std::tuple(list_find(&list, &key, by_key), list_find(&list, &items[2], nullptr),
                         list_find(&list, &key, nullptr)),
              std::tuple(&items[3], &items[2], nullptr));
}

TEST_F(ListTest, DestroyReleasesOnlyAnEmptyListOfItsOwnBadMagicIsReported) {
    list_append(&list, link(0));
    list_destroy(&list);  // non-empty: reported, kept
    list_yank(&list, link(0));
    list_destroy(&list);  // empty static head: nothing happens, still usable
    list_append(&list, link(1));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{1}));
    list_destroy(list_create("Made", 0));  // released (AddressSanitizer checks it is not leaked)
    list_t bad{};                          // magic 0: reported, nothing touched
    list_append(&bad, link(2));
    EXPECT_EQ(list_get_next(&bad, &ports[2]), nullptr);
    bad.magic = 0xdeadbeef;
    list_add_sorted(&bad, &ports[2], nullptr);
    EXPECT_EQ(std::tuple(bad.head, bad.item_count), std::tuple(nullptr, 0u));
    EXPECT_EQ(syslog_records(), (std::vector<LogRecord>{{0, "list_destroy(): Ports: non-empty list (1)\n"},
                                                        {0, "list_append, list has bad magic (0)\n"},
                                                        {0, "list_get_next, list has bad magic (0)\n"},
                                                        {0, "list_get_head, list has bad magic (0xdeadbeef)\n"},
                                                        {0, "list_append, list has bad magic (0xdeadbeef)\n"}}));
    EXPECT_DEATH(list_get_tail(&bad), "llist/llist:[0-9]+: list_get_tail: Assertion `list->magic == 0x48746162 "
                                      "\\|\\| list->magic == \\(0x53744c6c\\)' failed");
}

}  // namespace
