// Packets over the pools of a pool table: hand-out, return and verification,
// clones, copies and fragment chains.
#include <cerrno>

#include <gtest/gtest.h>

#include "packet_pools.h"
#include "syslog_capture.h"

using namespace corvex_test;

namespace {

// Every test of this binary (and every death-test child) starts from the
// same pools, built before anything else creates a sheaf.
class PoolEnvironment : public ::testing::Environment {
    void SetUp() override { packet_pool_init(nullptr, kPoolTable, make_heap(1 << 20, "packet buffers")); }
};
const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new PoolEnvironment);

// The packet and, in its pc, the address right after the call in here.
__attribute__((noinline)) packet_t* get_here(packet_length_t length) {
    packet_t* packet = packet_get(length);
    asm volatile("" ::: "memory");  // keeps the call from becoming a tail jump
    return packet;
}

TEST(PacketGet, TakesTheFirstFittingSheafOfTheChainAndResetsOnlyTheHeader) {
    std::vector<std::tuple<std::string, size_t, u_int32_t>> chain;
    for (sheaf_t* s = packet_common_sheaf; s != nullptr; s = s->next) chain.emplace_back(s->name, s->size, s->id);
    EXPECT_EQ(chain, (decltype(chain){{"128", 128, 3}, {"512", 512, 2}, {"1518", 1518, 1}})) << "the table reversed";
    const struct {
        packet_length_t length;
        sheaf_t* sheaf;
        packet_length_t maximum;
    } cases[] = {{0, chain_sheaf(128), 224}, {129, chain_sheaf(512), 608}, {1519, packet_misfit_sheaf, 1616}};
    for (const auto& c : cases) {
        const packet_stats_t before = packet_stats;
        packet_t* p = get_here(c.length);
        u_int32_t guard;
        std::memcpy(&guard, p->buffer->data + p->buffer->maximum, 4);
        EXPECT_EQ(std::tuple(p->sheaf, p->refcount, p->buffer->refcount, p->buffer->maximum, guard,
                             p->frame_start - p->buffer_start),
                  std::tuple(c.sheaf, 1, 1, c.maximum, PACKET_BUFFER_GUARD, 64))
            << c.length;
        EXPECT_LT(reinterpret_cast<uintptr_t>(p->pc) - reinterpret_cast<uintptr_t>(&get_here), 256u);
        packet_return(p);
        expect_counted(before, {.get_requests = 1, .get_successes = 1, .returns = 1});
    }
    EXPECT_EQ(packet_get(65437), nullptr) << "a 16-bit maximum cannot describe it";
    packet_t* p = frame_packet(60, 0xA5);
    std::tie(p->vrf_id, p->layer3_start) = std::tuple(9, p->frame_start + 14);
    packet_return(p);
    ASSERT_EQ(packet_get(100), p) << "last returned, first reused";
    EXPECT_EQ(std::tuple(p->vrf_id, p->layer3_start, p->length, p->frame_start[59]), std::tuple(0, nullptr, 0, 0xA5));
    packet_return(p);
}

TEST(PacketReturn, HolderCountsDecideAndTheLockMayBeHeldByTheCaller) {
    packet_t* p = packet_get(64);
    p->refcount = 2;  // a second holder
    const packet_stats_t before = packet_stats;
    packet_return(p);
    EXPECT_EQ(std::tuple(p->refcount, rests_in(chain_sheaf(128), p)), std::tuple(1, false));
    ASSERT_EQ(pthread_mutex_lock(&packet_glb_lock), 0);
    packet_return(p);
    expect_counted(before, {.returns = 1});
    EXPECT_EQ(std::tuple(rests_in(chain_sheaf(128), p), p->buffer->refcount), std::tuple(true, 0));
    EXPECT_EQ(pthread_mutex_unlock(&packet_glb_lock), 0) << "still held by this thread";
    EXPECT_EQ(pthread_mutex_unlock(&packet_glb_lock), EPERM) << "and not taken twice";
}

// Each case damages a packet and hands it back or verifies it.
TEST(PacketDeathTest, DamagedPacketsStopWithTheirMessages) {
    const struct {
        void (*run)();
        const char* stop;
    } cases[] = {
        {[] { packet_t* p = packet_get(100); packet_return(p); packet_return(p); },
         "<3>packet_return\\(\\): 0x[0-9a-f]+ \\(sheaf 128\\) has a packet refcount of 0\n.*"
         "packet/packet:[0-9]+: packet_return: Assertion `0' failed"},
        {[] { packet_t* p = packet_get(300); p->buffer->refcount = -1; packet_return(p); },
         "<3>packet_return\\(\\): 0x[0-9a-f]+ \\(sheaf 512\\) has a buffer refcount of -1\n.*Assertion `0' failed"},
        // 128 frame bytes and 32 of tail room fill the data area; one more hits the guard.
        {[] { packet_t* p = packet_get(128); std::memset(p->frame_start, 0, 128 + 32 + 1); packet_return(p); },
         "<0>packet_return: packet corruption \\(addr = 0x0x[0-9a-f]+\\)"},
        {[] { packet_t* p = packet_get(128); p->buffer->magic = 0; packet_return(p); },
         "<0>packet_return: invalid packet \\(addr = 0x0x[0-9a-f]+\\)"},
        {[] { packet_t* p = packet_get(100); p->magic = 1; packet_verify(p, "test"); },
         "<3>packet_verify: >{47}\n<3>packet_verify: Buffer will underflow....\n"
         "<3>packet_verify: frame start: 0x0x[0-9a-f]+, buffer start: 0x0x[0-9a-f]+\n<3>packet_verify: >{47}\n"
         "(.|\n)*<0>packet_verify: invalid buffer"},
    };
    for (const auto& c : cases) EXPECT_LOGGED_DEATH(c.run(), c.stop);
}

TEST(PacketClone, SharesTheFrameAndTheOriginalGoesBackAfterItsLastClone) {
    packet_t* original = frame_packet(60, 0x11);
    packet_stats_t before = packet_stats;
    packet_t* clone1 = packet_clone(original);
    packet_t* clone2 = packet_clone(clone1);  // a clone of a clone joins the same original
    ASSERT_TRUE(clone1 != nullptr && clone2 != nullptr);
    expect_counted(before, {.get_requests = 2, .get_successes = 2, .clone_requests = 2, .clone_successes = 2});
    EXPECT_EQ(
        std::tuple(clone1->sheaf, clone1->buffer, clone1->frame_start, clone1->length, original->buffer->refcount),
        std::tuple(packet_clone_sheaf, original->buffer, original->frame_start, 60, 3));
    EXPECT_EQ(std::tuple(original->clone_next, clone2->clone_next, clone1->clone_prev),
              std::tuple(clone2, clone1, clone2));
    before = packet_stats;
    packet_return(original);
    packet_return(clone1);
    EXPECT_EQ(std::tuple(original->buffer->refcount, original->clone_next, rests_in(chain_sheaf(128), original)),
              std::tuple(1, clone2, false)) << "still waiting for clone 2";
    packet_return(clone2);
    expect_counted(before, {.returns = 3, .clone_returns = 2});
    EXPECT_EQ(std::tuple(original->buffer->refcount, rests_in(chain_sheaf(128), original),
                         rests_in(packet_clone_sheaf, clone2)),
              std::tuple(0, true, true));
}

TEST(PacketFragments, CoalesceJoinsFramesInChainOrderAndReturnsTheChain) {
    packet_t* head = frame_packet(100, 0x01);
    packet_t* second = frame_packet(200, 0x02);
    packet_fragment_add(head, second);
    packet_fragment_add(head, frame_packet(50, 0x03));
    packet_fragment_add(head, second);  // already a member: nothing changes
    const packet_stats_t before = packet_stats;
    packet_t* whole = packet_fragment_coalesce(head);
    ASSERT_NE(whole, nullptr);
    expect_counted(before, {.get_requests = 1, .get_successes = 1, .returns = 3, .copy_requests = 1,
                            .copy_successes = 1, .coalesce_requests = 1, .coalesce_successes = 1});
    std::vector<u_int8_t> expected(350, 0x01);
    std::fill(expected.begin() + 100, expected.begin() + 300, 0x02);
    std::fill(expected.begin() + 300, expected.end(), 0x03);
    EXPECT_EQ(std::tuple(whole->sheaf, std::vector<u_int8_t>(whole->frame_start, whole->frame_start + whole->length)),
              std::tuple(chain_sheaf(512), expected));
    EXPECT_TRUE(rests_in(chain_sheaf(128), head) && rests_in(chain_sheaf(512), second))
        << "fragments go back with their head";
    packet_return(whole);
}

}  // namespace
