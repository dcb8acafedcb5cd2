// Packet hand-out, return and verification over the pools of a pool table.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "packet_fixture.h"
#include "syslog_capture.h"

using namespace packet_test;

namespace {

heap_t* buffer_heap;

// Every test of this binary (and every death-test child) starts from the
// same pools, built before anything else creates a sheaf.
class PoolEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        buffer_heap = make_buffer_heap(1 << 20);
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
    std::vector<sheaf_t*> sheaves;
    for (sheaf_t* s = packet_common_sheaf; s != nullptr; s = s->next) sheaves.push_back(s);
    sheaves.push_back(packet_misfit_sheaf);
    sheaves.push_back(packet_clone_sheaf);
    const struct {
        const char* name;
        size_t size;
        u_int32_t id, max, total;
    } expected[] = {{"128", 128, 3, 16, 4},          {"512", 512, 2, 16, 4},           {"1518", 1518, 1, 16, 4},
                    {"packet(misfits)", 0, 4, 0, 0}, {"packet(clones)", 0, 5, 16, 4}};
    ASSERT_EQ(sheaves.size(), 5u);
    for (size_t i = 0; i < 5; ++i) {
        sheaf_t* sheaf = sheaves[i];
        ASSERT_NE(sheaf, nullptr) << i;
        EXPECT_STREQ(sheaf->name, expected[i].name);
        EXPECT_EQ(std::tuple(sheaf->size, sheaf->id, sheaf->max, sheaf->total, sheaf->free),
                  std::tuple(expected[i].size, expected[i].id, expected[i].max, expected[i].total, expected[i].total))
            << sheaf->name;
        EXPECT_EQ(std::tuple(sheaf->vector->alloc, sheaf->vector->free), std::tuple(&packet_alloc, &packet_free));
    }
    EXPECT_EQ(std::tuple(packet_encap_bytes, packet_trailer_bytes, packet_buffer_heap),
              std::tuple(64u, 32u, buffer_heap));

    // Descriptor, data area and guard word of a 1500-byte frame in one heap block.
    sheaf_vector_t vector = {packet_alloc, packet_free};
    sheaf_t* sheaf = sheaf_create("1500", 1500, 0, 2, 1, &vector, nullptr);
    packet_t* p = packet_get_from_sheaf(sheaf);
    ASSERT_NE(p->buffer, nullptr);
    EXPECT_EQ(std::tuple(p->buffer->maximum, p->buffer->magic, p->buffer->packet, p->frame_start - p->buffer_start),
              std::tuple(1596, PACKET_BUFFER_MAGIC, p, 64));
    EXPECT_EQ(reinterpret_cast<char*>(p->buffer_start) - reinterpret_cast<char*>(p->buffer), sizeof(packet_buffer_t));
    EXPECT_EQ(guard_word(p), PACKET_BUFFER_GUARD);
    EXPECT_GE(heap_block_size(p->buffer), sizeof(packet_buffer_t) + 1596 + 4);
    EXPECT_LT(heap_block_size(p->buffer), sizeof(packet_buffer_t) + 1596 + 4 + 40);
    packet_return(p);
    EXPECT_TRUE(sheaf_destroy(sheaf));
}

TEST(PacketGet, TakesTheFirstFittingSheafAndResetsOnlyTheHeader) {
    const struct {
        packet_length_t length;
        sheaf_t* sheaf;
        packet_length_t maximum;
    } cases[] = {{100, chain_sheaf(128), 224},         {128, chain_sheaf(128), 224},
                 {129, chain_sheaf(512), 608},         {0, chain_sheaf(128), 224},
                 {1518, chain_sheaf(1518), 1616},      {1519, packet_misfit_sheaf, 1616},
                 {2000, packet_misfit_sheaf, 2096},    {65436, packet_misfit_sheaf, 65532}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        const packet_stats_t before = packet_stats;
        const u_int32_t nalloc = c.sheaf->nalloc, nfree = c.sheaf->nfree;
        const size_t heap_free_bytes = heap_get_free_bytes(buffer_heap);
        packet_t* p = get_here(c.length);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->sheaf, c.sheaf);
        if (c.sheaf != packet_misfit_sheaf) {  // a resting packet: nothing is allocated
            EXPECT_EQ(c.sheaf->nalloc, nalloc);
            EXPECT_EQ(heap_get_free_bytes(buffer_heap), heap_free_bytes);
        }
        EXPECT_EQ(std::tuple(p->magic, p->refcount, p->length, p->sheaf_next, p->clone_next, p->fragment),
                  std::tuple(PACKET_MAGIC, 1, 0, nullptr, nullptr, nullptr));
        ASSERT_NE(p->buffer, nullptr);
        EXPECT_EQ(std::tuple(p->buffer->refcount, p->buffer->maximum), std::tuple(1, c.maximum));
        EXPECT_EQ(guard_word(p), PACKET_BUFFER_GUARD);
        EXPECT_EQ(p->buffer_start, p->buffer->data);
        EXPECT_EQ(p->frame_start - p->buffer_start, 64);
        EXPECT_GT(reinterpret_cast<uintptr_t>(p->pc), reinterpret_cast<uintptr_t>(&get_here));
        EXPECT_LT(reinterpret_cast<uintptr_t>(p->pc), reinterpret_cast<uintptr_t>(&get_here) + 256);
        packet_return(p);
        expect_counted(before, {.get_requests = 1, .get_successes = 1, .returns = 1});
        EXPECT_EQ(c.sheaf->nfree - nfree, c.sheaf == packet_misfit_sheaf ? 1u : 0u) << "only misfits are destroyed";
    }
    EXPECT_EQ(packet_glb_lock_filname, std::string("packet/packet"));
    EXPECT_GT(packet_glb_lock_line, 0);

    // A maximum of 16 bits cannot describe longer requests: they fail.
    const packet_stats_t before = packet_stats;
    EXPECT_EQ(packet_get(65437), nullptr);
    EXPECT_EQ(packet_get(65535), nullptr);
    expect_counted(before, {.get_requests = 2, .get_failures = 2});

    // Every carried field is cleared at hand-out; the data area is not.
    packet_t* p = frame_packet(60, 0xA5);
    p->ifd_input = 7;
    p->vrf_id = 9;
    p->packet_handle.cell_num = 11;
    p->timestamp.opaque_data[3] = 13;
    p->layer3_start = p->frame_start + 14;
    p->links.next = p;
    packet_return(p);
    ASSERT_EQ(packet_get(100), p) << "last returned, first reused";
    EXPECT_EQ(std::tuple(p->ifd_input, p->vrf_id, p->packet_handle.cell_num, p->timestamp.opaque_data[3],
                         p->layer3_start, p->links.next, p->length),
              std::tuple(0u, 0, 0u, 0u, nullptr, nullptr, 0));
    EXPECT_EQ(p->frame_start[59], 0xA5);
    packet_return(p);
}

TEST(PacketGet, AKeptMisfitBufferNeverServesALargerRequest) {
    sheaf_t* misfit = packet_misfit_sheaf;
    misfit->max = 2;
    packet_t* small = packet_get(1600);
    packet_return(small);
    EXPECT_EQ(misfit->free, 1u);
    packet_t* large = packet_get(4000);
    ASSERT_NE(large, small);
    EXPECT_EQ(large->buffer->maximum, 4096);
    std::memset(large->frame_start, 0x5A, 4000 + 32);
    packet_return(large);  // guard intact: no stop
    // A smaller request reuses a kept larger buffer, described for itself.
    packet_t* again = packet_get(1700);
    EXPECT_EQ(again->buffer->maximum, 1796);
    packet_return(again);
    under_packet_lock([&] {
        misfit->max = 0;
        while (packet_t* p = sheaf_packet_dequeue(misfit)) sheaf_free(misfit, p);
    });
}

TEST(PacketReturn, HolderCountsDecideWhenThePacketGoesBack) {
    sheaf_t* s128 = chain_sheaf(128);
    packet_t* p = packet_get(64);
    EXPECT_EQ(packet_verify(p, "here"), 1);
    p->refcount = 2;  // a second holder
    const packet_stats_t before = packet_stats;
    const u_int32_t resting = s128->free;
    packet_return(p);
    EXPECT_EQ(std::tuple(p->refcount, s128->free), std::tuple(1, resting));
    packet_return(p);
    expect_counted(before, {.returns = 1});
    EXPECT_EQ(std::tuple(s128->packets, p->refcount, p->buffer->refcount), std::tuple(p, 0, 0));
}

TEST(PacketReturn, TheLockMayBeHeldByTheCaller) {
    ASSERT_EQ(pthread_mutex_lock(&packet_glb_lock), 0);
    packet_t* p = packet_get(100);
    packet_t* clone = packet_clone(p);
    ASSERT_NE(clone, nullptr);
    packet_return(p);
    packet_return(clone);
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
        {[] { packet_t* p = packet_get(128); p->buffer->maximum = 0; packet_return(p); },
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
    for (const auto& c : cases) {
        EXPECT_EXIT(
            {
                corvex_test::syslog_echo_to_stderr(true);
                c.run();
            },
            ::testing::KilledBySignal(SIGABRT), c.stop);
    }
}

}  // namespace
