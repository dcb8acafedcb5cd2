// Every allocation of sheaf creation, pool start-up, packet get, clone and
// coalescing, and table growth failed in turn: each failure path leaves the
// counters consistent, logs nothing and leaks nothing (LeakSanitizer and
// valgrind check the last; here the pools and the buffer heap balance).
#include <algorithm>
#include <tuple>
#include <vector>

#include "failing_alloc.h"
#include "itable32.h"
#include "packet_pools.h"
#include "syslog_capture.h"

using namespace corvex_test;
using fault_test::sweep_failures;

namespace {

heap_t* buffer_heap() {
    static heap_t* heap = make_heap(1 << 20, "packet buffers");
    return heap;
}

std::vector<sheaf_t*> pools() {
    std::vector<sheaf_t*> all;
    for (sheaf_t* s = packet_common_sheaf; s != nullptr; s = s->next) all.push_back(s);
    for (sheaf_t* s : {packet_misfit_sheaf, packet_clone_sheaf})
        if (s != nullptr) all.push_back(s);
    return all;
}

// Nothing held outside the pools: every packet made rests in its sheaf, the
// sheaf counters agree, and the buffer heap lacks exactly the resting buffers.
void expect_balanced(const std::vector<sheaf_t*>& sheaves) {
    size_t buffers = 0;
    for (sheaf_t* s : sheaves) {
        u_int32_t resting = 0;
        for (packet_t* p = s->packets; p != nullptr; p = p->sheaf_next, ++resting)
            if (p->buffer != nullptr) buffers += heap_block_size(p->buffer) + sizeof(heap_block_t);
        EXPECT_EQ(std::tuple(s->free, s->total, s->nalloc - s->nempty - s->nfree),
                  std::tuple(resting, resting, resting))
            << s->name;
    }
    EXPECT_EQ(std::tuple(packet_stats.get_successes, heap_get_free_bytes(buffer_heap()) + buffers),
              std::tuple(packet_stats.returns, heap_size(buffer_heap())));
}

// Pools made from `table` for one test, destroyed with it.
struct Pools {
    explicit Pools(const packet_sheaf_block_t* table) { packet_pool_init(nullptr, table, buffer_heap()); }
    ~Pools() {
        for (sheaf_t* s : pools()) EXPECT_EQ(sheaf_destroy(s), TRUE);
        packet_common_sheaf = packet_misfit_sheaf = packet_clone_sheaf = nullptr;
    }
};

class FaultInjection : public ::testing::Test {
protected:
    void SetUp() override { syslog_clear(); }
    void TearDown() override { EXPECT_TRUE(syslog_records().empty()) << "failures are silent"; }
};

}  // namespace

TEST_F(FaultInjection, PoolStartUpAndSheafCreation) {
    const packet_sheaf_block_t table[] = {
        {const_cast<char*>("1518"), 1518, 1, 4, 3, nullptr}, {const_cast<char*>("clone"), 0, 0, 4, 2, nullptr},
        {const_cast<char*>("128"), 128, 0, 4, 2, nullptr},   {nullptr, 0, 0, 0, 0, nullptr},
    };
    // A failed sheaf ends the table walk; the misfit and clone pools are made all the same.
    EXPECT_GE(sweep_failures([&](int) {
                  Pools made(table);
                  expect_balanced(pools());
                  for (sheaf_t* s : pools()) EXPECT_LE(s->nempty, 1u) << s->name;
              }),
              4 + 3 * 2 + 2 * 2 + 2);  // sheaf records, two allocations a buffered packet, clone headers
    sheaf_vector_t vector = {packet_alloc, packet_free};
    EXPECT_EQ(sweep_failures([&](int) {
                  sheaf_t* s = sheaf_create("direct", 256, 0, 8, 3, &vector, nullptr);
                  if (s == nullptr) return;
                  expect_balanced({s});
                  EXPECT_EQ(sheaf_destroy(s), TRUE);
              }),
              1 + 3 * 2);
}

TEST_F(FaultInjection, GetCloneAndCoalesce) {
    // Pools that keep nothing: every get makes a packet, every return destroys it.
    const packet_sheaf_block_t keep_nothing[] = {
        {const_cast<char*>("512"), 512, 0, 0, 0, nullptr}, {const_cast<char*>("clone"), 0, 0, 0, 0, nullptr},
        {const_cast<char*>("128"), 128, 0, 0, 0, nullptr}, {nullptr, 0, 0, 0, 0, nullptr}};
    Pools made(keep_nothing);
    const auto sheaves = pools();
    for (packet_length_t length : {100, 400, 3000}) {  // a sized sheaf, the larger one, the misfits
        const packet_stats_t before = packet_stats;
        EXPECT_EQ(sweep_failures([&](int) {
                      if (packet_t* p = packet_get(length)) packet_return(p);
                      expect_balanced(sheaves);
                  }),
                  2);
        expect_counted(before, {.get_requests = 3, .get_successes = 1, .get_failures = 2, .returns = 1});
    }
    packet_t* original = frame_packet(60, 0x5A);
    const packet_stats_t before_clones = packet_stats;
    EXPECT_EQ(sweep_failures([&](int) {
                  if (packet_t* clone = packet_clone(original)) packet_return(clone);
                  EXPECT_EQ(std::tuple(original->buffer->refcount, original->clone_next), std::tuple(1, nullptr));
              }),
              1);
    expect_counted(before_clones, {.get_requests = 2, .get_successes = 1, .get_failures = 1, .returns = 1,
                                   .clone_requests = 2, .clone_successes = 1, .clone_failures = 1,
                                   .clone_returns = 1});
    packet_return(original);
    const packet_stats_t before_coalescing = packet_stats;
    EXPECT_EQ(sweep_failures([&](int n) {
                  packet_t* chain[3];
                  fault_test::disarm();  // the chain is built whole; only its coalescing fails
                  for (packet_t*& member : chain) member = frame_packet(100, 0x33);
                  fault_test::fail_nth_allocation(n);
                  packet_fragment_add(chain[0], chain[1]);
                  packet_fragment_add(chain[0], chain[2]);
                  if (packet_t* whole = packet_fragment_coalesce(chain[0])) packet_return(whole);
                  expect_balanced(sheaves);
              }),
              2);
    EXPECT_EQ(packet_stats.coalesce_failures - before_coalescing.coalesce_failures, 2u);
}

TEST_F(FaultInjection, TableGrowth) {
    const index32_t indices[] = {0, 70, 5000, 0x10000, 0x23456, 0xFFFF0000u};
    auto token = [](index32_t index) { return reinterpret_cast<void*>(static_cast<uintptr_t>(index) | 1); };
    EXPECT_GE(sweep_failures([&](int) {
                  itable32_t* table = itable32_create();
                  if (table == nullptr) return;
                  std::vector<index32_t> stored;
                  for (index32_t index : indices) {
                      const status_t status = itable32_insert(table, token(index), &index);
                      EXPECT_TRUE(status == 0 || status == 12) << status;
                      if (status == 0) stored.push_back(index);
                  }
                  for (index32_t index : indices) {
                      const bool kept = std::find(stored.begin(), stored.end(), index) != stored.end();
                      EXPECT_EQ(itable32_lookup(table, &index), kept ? token(index) : nullptr) << index;
                  }
                  EXPECT_EQ(table->itable32_maxentry, stored.empty() ? 0u : stored.back() + 1);
                  EXPECT_EQ(itable32_destroy(table), static_cast<int>(stored.size()));
              }),
              10);
}
