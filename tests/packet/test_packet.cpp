// Packets over the pools of a pool table: hand-out, return and verification,
// clones, copies and fragment chains.
#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "packet_pools.h"
#include "syslog_capture.h"

using namespace corvex_test;

namespace {

heap_t* buffer_heap;

// Every test of this binary (and every death-test child) starts from the
// same pools, built before anything else creates a sheaf.
class PoolEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        buffer_heap = make_heap(1 << 20, "packet buffers");
        packet_pool_init(nullptr, kPoolTable, buffer_heap);
    }
};
const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new PoolEnvironment);

// The packet and, in its pc, the address right after the call in here.
__attribute__((noinline)) packet_t* get_here(packet_length_t length) {
    packet_t* packet = packet_get(length);
    asm volatile("" ::: "memory");  // keeps the call from becoming a tail jump
    return packet;
}

u_int32_t guard_word(const packet_t* p) {
    u_int32_t guard;
    std::memcpy(&guard, p->buffer->data + p->buffer->maximum, 4);
    return guard;
}

TEST(PacketPools, ChainFollowsTheTableReversedWithIdsInTableOrder) {
    std::vector<std::tuple<std::string, size_t, u_int32_t, u_int32_t, u_int32_t>> seen;
    for (sheaf_t* s = packet_common_sheaf; s != nullptr; s = s->next) seen.emplace_back(s->name, s->size, s->id, s->max, s->free);
    for (sheaf_t* s : {packet_misfit_sheaf, packet_clone_sheaf}) seen.emplace_back(s->name, s->size, s->id, s->max, s->free);
    EXPECT_EQ(seen, (decltype(seen){{"128", 128, 3, 16, 4}, {"512", 512, 2, 16, 4}, {"1518", 1518, 1, 16, 4},
                                    {"packet(misfits)", 0, 4, 0, 0}, {"packet(clones)", 0, 5, 16, 4}}));
    EXPECT_EQ(std::tuple(packet_encap_bytes, packet_trailer_bytes, packet_buffer_heap), std::tuple(64u, 32u, buffer_heap));
}

TEST(PacketGet, TakesTheFirstFittingSheafAndResetsOnlyTheHeader) {
    const struct {
        packet_length_t length;
        sheaf_t* sheaf;
        packet_length_t maximum;
    } cases[] = {{0, chain_sheaf(128), 224},         {128, chain_sheaf(128), 224},     {129, chain_sheaf(512), 608},
                 {1518, chain_sheaf(1518), 1616},    {1519, packet_misfit_sheaf, 1616}, {65436, packet_misfit_sheaf, 65532}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        const packet_stats_t before = packet_stats;
        const u_int32_t nalloc = c.sheaf->nalloc, nfree = c.sheaf->nfree;
        packet_t* p = get_here(c.length);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(std::tuple(p->sheaf, p->magic, p->refcount, p->length, p->fragment, p->buffer->refcount, p->buffer->maximum),
                  std::tuple(c.sheaf, PACKET_MAGIC, 1, 0, nullptr, 1, c.maximum));
        EXPECT_EQ(std::tuple(guard_word(p), p->buffer_start, p->frame_start - p->buffer_start),
                  std::tuple(PACKET_BUFFER_GUARD, &p->buffer->data[0], 64));
        EXPECT_LT(reinterpret_cast<uintptr_t>(p->pc) - reinterpret_cast<uintptr_t>(&get_here), 256u);
        packet_return(p);
        expect_counted(before, {.get_requests = 1, .get_successes = 1, .returns = 1});
        const bool misfit = c.sheaf == packet_misfit_sheaf;  // made per request and destroyed on return
        EXPECT_EQ(std::tuple(c.sheaf->nalloc - nalloc, c.sheaf->nfree - nfree), std::tuple(misfit, misfit));
    }
    // A maximum of 16 bits cannot describe longer requests: they fail.
    const packet_stats_t before = packet_stats;
    EXPECT_EQ(packet_get(65437), nullptr);
    expect_counted(before, {.get_requests = 1, .get_failures = 1});

    // Every carried field is cleared at hand-out; the data area is not.
    packet_t* p = frame_packet(60, 0xA5);
    std::tie(p->ifd_input, p->vrf_id, p->layer3_start, p->links.next) = std::tuple(7, 9, p->frame_start + 14, p);
    packet_return(p);
    ASSERT_EQ(packet_get(100), p) << "last returned, first reused";
    EXPECT_EQ(std::tuple(p->ifd_input, p->vrf_id, p->layer3_start, p->links.next, p->length, p->frame_start[59]),
              std::tuple(0u, 0, nullptr, nullptr, 0, 0xA5));
    packet_return(p);
}

TEST(PacketReturn, HolderCountsDecideAndTheLockMayBeHeldByTheCaller) {
    sheaf_t* s128 = chain_sheaf(128);
    packet_t* p = packet_get(64);
    EXPECT_EQ(packet_verify(p, "here"), 1);
    p->refcount = 2;  // a second holder
    const packet_stats_t before = packet_stats;
    const u_int32_t resting = s128->free;
    packet_return(p);
    EXPECT_EQ(std::tuple(p->refcount, s128->free), std::tuple(1, resting));
    ASSERT_EQ(pthread_mutex_lock(&packet_glb_lock), 0);
    packet_return(p);
    expect_counted(before, {.returns = 1});
    EXPECT_EQ(std::tuple(s128->packets, p->refcount, p->buffer->refcount), std::tuple(p, 0, 0));
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
        {[] { packet_t* p = packet_get(128); p->buffer->maximum = 60000; packet_return(p); },
         "<0>packet_return: packet corruption"},
        {[] { packet_t* p = packet_get(128); p->buffer->magic = 0; packet_return(p); },
         "<0>packet_return: invalid packet \\(addr = 0x0x[0-9a-f]+\\)"},
        {[] { packet_return(nullptr); }, "<0>packet_return: invalid packet \\(addr = 0x\\(nil\\)\\)"},
        {[] { packet_t* p = packet_get(100); p->magic = 1; packet_verify(p, "test"); },
         "<3>packet_verify: >{47}\n<3>packet_verify: Buffer will underflow....\n"
         "<3>packet_verify: frame start: 0x0x[0-9a-f]+, buffer start: 0x0x[0-9a-f]+\n<3>packet_verify: >{47}\n"
         "(.|\n)*<0>packet_verify: invalid buffer"},
        {[] { packet_verify(nullptr, "test"); },
         "<3>packet_verify: >{47}\n<3>packet_verify: Buffer will underflow....\n<3>packet_verify: >{47}\n"},
    };
    for (const auto& c : cases) EXPECT_LOGGED_DEATH(c.run(), c.stop);
}


std::vector<packet_t*> clone_chain(packet_t* original) {
    std::vector<packet_t*> chain;
    for (packet_t* p = original; p != nullptr; p = p->clone_next) {
        EXPECT_EQ(p->clone_prev, chain.empty() ? nullptr : chain.back());
        chain.push_back(p);
    }
    return chain;
}

TEST(PacketClone, SharesTheFrameAndTheOriginalGoesBackAfterItsLastClone) {
    sheaf_t* s128 = chain_sheaf(128);
    packet_t* original = frame_packet(60, 0x11);
    std::tie(original->proto, original->layer3_start) = std::tuple(0x0800, original->frame_start + 14);
    packet_stats_t before = packet_stats;
    packet_t* clone1 = packet_clone(original);
    ASSERT_NE(clone1, nullptr);
    expect_counted(before, {.get_requests = 1, .get_successes = 1, .clone_requests = 1, .clone_successes = 1});
    EXPECT_EQ(std::tuple(clone1->sheaf, clone1->buffer, clone1->frame_start, clone1->layer3_start, clone1->pc),
              std::tuple(packet_clone_sheaf, original->buffer, original->frame_start, original->layer3_start, original->pc));
    EXPECT_EQ(std::tuple(clone1->length, clone1->proto, clone1->refcount), std::tuple(60, 0x0800, 1));
    packet_t* clone2 = packet_clone(clone1);  // a clone of a clone joins the same original
    ASSERT_NE(clone2, nullptr);
    EXPECT_EQ(clone_chain(original), (std::vector<packet_t*>{original, clone2, clone1}));
    packet_buffer_t* buffer = original->buffer;
    EXPECT_EQ(buffer->refcount, 3);

    before = packet_stats;
    packet_return(original);
    EXPECT_EQ(std::tuple(original->refcount, buffer->refcount), std::tuple(0, 2));
    packet_return(clone1);
    expect_counted(before, {.returns = 1, .clone_returns = 1});
    EXPECT_EQ(std::tuple(clone_chain(original), clone1->buffer, rests_in(packet_clone_sheaf, clone1), rests_in(s128, original)),
              std::tuple(std::vector<packet_t*>{original, clone2}, nullptr, true, false));
    before = packet_stats;
    packet_return(clone2);
    expect_counted(before, {.returns = 2, .clone_returns = 1});
    EXPECT_EQ(std::tuple(buffer->refcount, original->clone_next, s128->packets, original->buffer),
              std::tuple(0, nullptr, original, buffer));

    // Clones returned first leave the original held.
    original = frame_packet(60, 0x44);
    clone1 = packet_clone(original);
    packet_return(packet_clone(original));
    packet_return(clone1);
    EXPECT_EQ(std::tuple(clone_chain(original).size(), original->buffer->refcount, original->refcount), std::tuple(1u, 1, 1));
    packet_return(original);
    EXPECT_TRUE(rests_in(s128, original));
}

TEST(PacketCopy, DescriptiveFieldsAndTheSmallerSheafsDataWithMarkersShifted) {
    packet_t* src = packet_get(100);  // 128 sheaf
    packet_t* dst = packet_get(300);  // 512 sheaf
    for (int i = 0; i < 128 + 96; ++i) src->buffer_start[i] = static_cast<u_int8_t>(i);
    std::memset(dst->buffer_start, 0xEE, 512);
    std::tie(src->proto, src->length, src->ifd_input, src->ifd_output, src->cos, src->vrf_id) = std::tuple(0x86DD, 77, 1, 2, 7, 12);
    src->timestamp = {{8, 9, 10, 11}};
    src->frame_start += 8;
    src->layer3_start = src->frame_start + 14;
    const packet_stats_t before = packet_stats;
    EXPECT_TRUE(packet_copy(src, dst, TRUE));
    expect_counted(before, {.copy_requests = 1, .copy_successes = 1});
    // 128 + 64 bytes: the smaller sheaf's frame room and the headroom.
    EXPECT_EQ(std::tuple(std::memcmp(dst->buffer_start, src->buffer_start, 192), dst->buffer_start[192]), std::tuple(0, 0xEE));
    EXPECT_EQ(std::tuple(dst->proto, dst->length, dst->ifd_input, dst->ifd_output, dst->cos, dst->timestamp.opaque_data[3]),
              std::tuple(0x86DD, 77, 1u, 2u, 7, 11u));
    EXPECT_EQ(dst->vrf_id, 0) << "not copied";
    EXPECT_EQ(std::tuple(dst->frame_start - dst->buffer_start, dst->layer3_start - dst->buffer_start, dst->sheaf),
              std::tuple(72, 86, chain_sheaf(512)));
    src->frame_start -= 8;
    packet_return(src);
    packet_return(dst);
}

TEST(PacketFragments, AddRefusesLoopsAndCoalesceJoinsFramesInChainOrder) {
    packet_t* a = packet_get(10);
    packet_t* c = packet_get(10);
    packet_t* d = packet_get(10);
    packet_fragment_add(c, d);
    packet_fragment_add(a, c);  // c arrives alone: d is cut off
    packet_fragment_add(a, c);  // already a member: nothing changes
    packet_fragment_add(a, a);
    EXPECT_EQ(std::tuple(a->fragment, c->fragment), std::tuple(c, nullptr));
    packet_return(a);
    packet_return(d);
    EXPECT_TRUE(rests_in(chain_sheaf(128), c)) << "fragments go back with their head";

    packet_t* head = frame_packet(100, 0x01);
    packet_fragment_add(head, frame_packet(200, 0x02));
    packet_fragment_add(head, frame_packet(50, 0x03));
    std::tie(head->proto, head->layer3_start) = std::tuple(0x0800, head->frame_start + 14);
    const packet_stats_t before = packet_stats;
    packet_t* whole = packet_fragment_coalesce(head);
    ASSERT_NE(whole, nullptr);
    expect_counted(before, {.get_requests = 1, .get_successes = 1, .returns = 3, .copy_requests = 1,
                            .copy_successes = 1, .coalesce_requests = 1, .coalesce_successes = 1});
    EXPECT_EQ(std::tuple(whole->sheaf, whole->length, whole->fragment, whole->proto, whole->layer3_start - whole->frame_start),
              std::tuple(chain_sheaf(512), 350, nullptr, 0x0800, 14));
    std::vector<u_int8_t> expected(350, 0x01);
    std::fill(expected.begin() + 100, expected.begin() + 300, 0x02);
    std::fill(expected.begin() + 300, expected.end(), 0x03);
    EXPECT_EQ(std::vector<u_int8_t>(whole->frame_start, whole->frame_start + 350), expected);
    EXPECT_EQ(packet_fragment_coalesce(whole), whole) << "a single packet comes back as it is";
    packet_return(whole);
}

}  // namespace
