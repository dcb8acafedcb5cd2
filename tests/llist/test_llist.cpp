// Intrusive list: invariants after every operation, ordering rules, misuse.
#include <cstddef>
#include <vector>

#include <gtest/gtest.h>

#include "llist.h"
#include "syslog_capture.h"

using corvex_test::LogRecord;
using corvex_test::syslog_clear;
using corvex_test::syslog_records;

namespace {

// The link sits in the middle of the record, so item and link pointers differ.
struct Port {
    int key;
    list_item_t link;
    int seq;
};

constexpr u_int32_t kLinkOffset = offsetof(Port, link);

// Checks every structural invariant and returns the keys from head to tail.
std::vector<int> keys_checked(list_t* list) {
    std::vector<int> keys;
    EXPECT_EQ(list->head == nullptr, list->tail == nullptr);
    if (list->head != nullptr) {
        EXPECT_EQ(list->head->prev, nullptr);
        EXPECT_EQ(list->tail->next, nullptr);
    }
    list_item_t* last = nullptr;
    for (list_item_t* link = list->head; link != nullptr; link = link->next) {
        EXPECT_EQ(link->prev, last);
        last = link;
        keys.push_back(reinterpret_cast<Port*>(reinterpret_cast<char*>(link) - kLinkOffset)->key);
    }
    EXPECT_EQ(last, list->tail);
    EXPECT_EQ(list->item_count, keys.size());
    // The item-pointer walk agrees with the links, in both directions.
    std::vector<int> forward, backward;
    for (auto* p = static_cast<Port*>(list_get_head(list)); p; p = static_cast<Port*>(list_get_next(list, p)))
        forward.push_back(p->key);
    for (auto* p = static_cast<Port*>(list_get_tail(list)); p; p = static_cast<Port*>(list_get_prev(list, p)))
        backward.insert(backward.begin(), p->key);
    EXPECT_EQ(forward, keys);
    EXPECT_EQ(backward, keys);
    return keys;
}

int32_t by_key(void* item, void* other) { return static_cast<Port*>(item)->key - static_cast<Port*>(other)->key; }

int32_t key_equals(void* item, void* key) { return static_cast<Port*>(item)->key - *static_cast<int*>(key); }

class ListTest : public ::testing::Test {
protected:
    void SetUp() override {
        list_init_static("Ports", kLinkOffset, &list);
        for (int i = 0; i < 8; ++i) ports[i].key = i;
        syslog_clear();
    }
    list_item_t* link(int i) { return &ports[i].link; }
    list_t list{};
    Port ports[8]{};
};

TEST_F(ListTest, InitialisersSetMagicOffsetAndName) {
    EXPECT_EQ(list.magic, LIST_STATIC_MAGIC);
    EXPECT_EQ(list.offset, kLinkOffset);
    EXPECT_STREQ(list.name, "Ports");
    list_t plain{};
    list_init("Plain", 12, &plain);
    EXPECT_EQ(plain.magic, 0x48746162u);
    EXPECT_EQ(plain.offset, 12u);
    list_init(nullptr, 0, nullptr);  // a null head is ignored
    list_init_static(nullptr, 0, nullptr);
}

TEST_F(ListTest, EmptyListAnswersNull) {
    EXPECT_EQ(list_get_head(&list), nullptr);
    EXPECT_EQ(list_get_tail(&list), nullptr);
    EXPECT_EQ(list_yank_head(&list), nullptr);
    EXPECT_EQ(list_yank_tail(&list), nullptr);
    EXPECT_EQ(list.item_count, 0u);
    EXPECT_TRUE(keys_checked(&list).empty());
}

TEST_F(ListTest, AppendPrependAndInsertKeepInvariants) {
    list_append(&list, link(2));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{2}));
    list_prepend(&list, link(0));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0, 2}));
    list_append(&list, link(4));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0, 2, 4}));
    list_insert_before(&list, link(2), link(1));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0, 1, 2, 4}));
    list_insert_after(&list, link(2), link(3));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0, 1, 2, 3, 4}));
    list_insert_before(&list, link(0), link(5));  // before the head: new head
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{5, 0, 1, 2, 3, 4}));
    list_insert_after(&list, link(4), link(6));  // after the tail: new tail
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{5, 0, 1, 2, 3, 4, 6}));
    EXPECT_EQ(static_cast<Port*>(list_get_head(&list)), &ports[5]);
    EXPECT_EQ(static_cast<Port*>(list_get_tail(&list)), &ports[6]);
    EXPECT_TRUE(syslog_records().empty());
}

TEST_F(ListTest, InsertWithNullNeighbourPrependsOrAppends) {
    list_insert_before(&list, nullptr, link(1));
    list_insert_before(&list, nullptr, link(0));
    list_insert_after(&list, nullptr, link(2));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0, 1, 2}));
}

TEST_F(ListTest, NextAndPrevStopAtTheEnds) {
    for (int i = 0; i < 3; ++i) list_append(&list, link(i));
    EXPECT_EQ(list_get_next(&list, nullptr), nullptr);  // does not start at the head
    EXPECT_EQ(list_get_prev(&list, nullptr), nullptr);
    EXPECT_EQ(list_get_next(&list, &ports[2]), nullptr);
    EXPECT_EQ(list_get_prev(&list, &ports[0]), nullptr);
    EXPECT_EQ(list_get_next(&list, &ports[0]), &ports[1]);
    EXPECT_EQ(list_get_prev(&list, &ports[2]), &ports[1]);
}

TEST_F(ListTest, YankHeadAndTailLeaveTheRemovedLinksAsTheyWere) {
    for (int i = 0; i < 3; ++i) list_append(&list, link(i));
    EXPECT_EQ(list_yank_head(&list), &ports[0]);
    EXPECT_EQ(ports[0].link.next, link(1));  // stale, as documented
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{1, 2}));
    EXPECT_EQ(list_yank_tail(&list), &ports[2]);
    EXPECT_EQ(ports[2].link.prev, link(1));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{1}));
    EXPECT_EQ(list_yank_tail(&list), &ports[1]);
    EXPECT_EQ(keys_checked(&list), std::vector<int>{});
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.tail, nullptr);
}

TEST_F(ListTest, YankRemovesAnywhereAndClearsLinks) {
    for (int i = 0; i < 5; ++i) list_append(&list, link(i));
    list_yank(&list, link(2));  // middle
    EXPECT_EQ(ports[2].link.next, nullptr);
    EXPECT_EQ(ports[2].link.prev, nullptr);
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0, 1, 3, 4}));
    list_yank(&list, link(0));  // head
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{1, 3, 4}));
    list_yank(&list, link(4));  // tail
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{1, 3}));
    list_yank(&list, nullptr);
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{1, 3}));
    list_yank(&list, link(3));
    list_yank(&list, link(1));  // the only item
    EXPECT_EQ(keys_checked(&list), std::vector<int>{});
}

TEST_F(ListTest, YankOfAnUnlistedItemChangesNothing) {
    for (int i = 0; i < 3; ++i) list_append(&list, link(i));
    list_yank(&list, link(5));  // never listed: both links null
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(list.item_count, 3u);
}

TEST_F(ListTest, AddSortedIsAscendingAndStableForEqualKeys) {
    Port items[6]{};
    const int keys[] = {5, 1, 5, 9, 5, 0};
    for (int i = 0; i < 6; ++i) {
        items[i].key = keys[i];
        items[i].seq = i;
        list_add_sorted(&list, &items[i], by_key);
    }
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0, 1, 5, 5, 5, 9}));
    std::vector<int> equal_order;
    for (auto* p = static_cast<Port*>(list_get_head(&list)); p; p = static_cast<Port*>(list_get_next(&list, p)))
        if (p->key == 5) equal_order.push_back(p->seq);
    EXPECT_EQ(equal_order, (std::vector<int>{0, 2, 4}));  // order of insertion
    EXPECT_EQ(static_cast<Port*>(list_get_head(&list))->key, 0);
    EXPECT_EQ(static_cast<Port*>(list_get_tail(&list))->key, 9);
}

TEST_F(ListTest, AddSortedWithoutComparisonOrdersByAddress) {
    list_add_sorted(&list, &ports[3], nullptr);
    list_add_sorted(&list, &ports[1], nullptr);
    list_add_sorted(&list, &ports[2], nullptr);
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{1, 2, 3}));
}

TEST_F(ListTest, FindWithAndWithoutComparison) {
    for (int i = 0; i < 4; ++i) list_append(&list, link(i));
    EXPECT_EQ(list_find(&list, &ports[2], nullptr), &ports[2]);
    EXPECT_EQ(list_find(&list, &ports[6], nullptr), nullptr);
    int key = 3;
    EXPECT_EQ(list_find(&list, &key, key_equals), &ports[3]);
    key = 42;
    EXPECT_EQ(list_find(&list, &key, key_equals), nullptr);
    list_t empty{};
    list_init_static("Empty", kLinkOffset, &empty);
    EXPECT_EQ(list_find(&empty, &ports[0], nullptr), nullptr);
}

TEST_F(ListTest, OneRecordOnTwoListsThroughTwoLinks) {
    struct Dual {
        list_item_t a;
        int key;
        list_item_t b;
    } dual[2]{};
    list_t by_a{}, by_b{};
    list_init_static("A", offsetof(Dual, a), &by_a);
    list_init_static("B", offsetof(Dual, b), &by_b);
    list_append(&by_a, &dual[0].a);
    list_append(&by_a, &dual[1].a);
    list_prepend(&by_b, &dual[0].b);
    list_prepend(&by_b, &dual[1].b);
    EXPECT_EQ(list_get_head(&by_a), &dual[0]);
    EXPECT_EQ(list_get_head(&by_b), &dual[1]);
    EXPECT_EQ(list_get_next(&by_b, &dual[1]), &dual[0]);
}

TEST_F(ListTest, DestroyRules) {
    list_append(&list, link(0));
    list_destroy(&list);  // non-empty: reported, kept
    EXPECT_EQ(syslog_records(), (std::vector<LogRecord>{{0, "list_destroy(): Ports: non-empty list (1)\n"}}));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{0}));
    list_yank(&list, link(0));
    syslog_clear();
    list_destroy(&list);  // empty static head: nothing happens, still usable
    EXPECT_EQ(list.magic, LIST_STATIC_MAGIC);
    list_append(&list, link(1));
    EXPECT_EQ(keys_checked(&list), (std::vector<int>{1}));

    list_t* made = list_create("Made", kLinkOffset);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->magic, LIST_MAGIC);
    EXPECT_EQ(made->head, nullptr);
    list_append(made, link(2));
    list_destroy(made);
    EXPECT_EQ(made->item_count, 1u);  // still alive and listed
    list_yank_head(made);
    list_destroy(made);  // released (AddressSanitizer checks it is not leaked)
    EXPECT_TRUE(syslog_records().size() == 1);
}

TEST_F(ListTest, BadMagicIsReportedAndTouchesNothing) {
    list_t bad{};  // magic 0
    Port p{};
    list_append(&bad, &p.link);
    list_prepend(&bad, &p.link);
    list_insert_before(&bad, nullptr, &p.link);
    list_insert_after(&bad, nullptr, &p.link);
    list_yank(&bad, &p.link);
    list_destroy(&bad);
    EXPECT_EQ(list_get_head(&bad), nullptr);
    EXPECT_EQ(list_get_next(&bad, &p), nullptr);
    EXPECT_EQ(list_get_prev(&bad, &p), nullptr);
    EXPECT_EQ(list_yank_tail(&bad), nullptr);
    EXPECT_EQ(bad.head, nullptr);
    EXPECT_EQ(bad.item_count, 0u);
    const std::vector<LogRecord> expected = {
        {0, "list_append, list has bad magic (0)\n"},     {0, "list_prepend, list has bad magic (0)\n"},
        {0, "list_insert_before, list has bad magic (0)\n"}, {0, "list_insert_after, list has bad magic (0)\n"},
        {0, "list_yank, list has bad magic (0)\n"},       {0, "list_destroy, list has bad magic (0)\n"},
        {0, "list_get_head, list has bad magic (0)\n"},   {0, "list_get_next, list has bad magic (0)\n"},
        {0, "list_get_prev, list has bad magic (0)\n"},   {0, "list_yank_tail, list has bad magic (0)\n"},
    };
    EXPECT_EQ(syslog_records(), expected);

    bad.magic = 0xdeadbeef;
    syslog_clear();
    EXPECT_EQ(list_find(&bad, &p, nullptr), nullptr);
    list_add_sorted(&bad, &p, nullptr);
    EXPECT_EQ(bad.item_count, 0u);
    EXPECT_EQ(syslog_records(), (std::vector<LogRecord>{{0, "list_get_head, list has bad magic (0xdeadbeef)\n"},
                                                        {0, "list_get_head, list has bad magic (0xdeadbeef)\n"},
                                                        {0, "list_append, list has bad magic (0xdeadbeef)\n"}}));
    syslog_clear();
    list_append(nullptr, &p.link);  // a missing head reads as magic 0
    EXPECT_EQ(syslog_records(), (std::vector<LogRecord>{{0, "list_append, list has bad magic (0)\n"}}));
}

using ListDeathTest = ListTest;

TEST_F(ListDeathTest, TailAndYankHeadOfABadListStopTheProcess) {
    list_t bad{};
    EXPECT_DEATH(list_get_tail(&bad),
                 "llist/llist:[0-9]+: list_get_tail: Assertion `list->magic == 0x48746162 \\|\\| "
                 "list->magic == \\(0x53744c6c\\)' failed");
    EXPECT_DEATH(list_yank_head(&bad),
                 "llist/llist:[0-9]+: list_yank_head: Assertion `list->magic == 0x48746162 \\|\\| "
                 "list->magic == \\(0x53744c6c\\)' failed");
}

}  // namespace
