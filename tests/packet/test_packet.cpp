// Packet hand-out, return and verification over the pools of a pool table.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

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

packet_stats_t stats() { return packet_stats; }

// Returns the packet and the address the library should record for it:
// the point right after the call inside this function.
__attribute__((noinline)) packet_t* get_here(packet_length_t length) {
    packet_t* packet = packet_get(length);
    asm volatile("" ::: "memory");  // keeps the call from becoming a tail jump
    return packet;
}

TEST(PacketPools, ChainFollowsTheTableReversedWithIdsInTableOrder) {
    ASSERT_NE(packet_common_sheaf, nullptr);
    sheaf_t* s128 = packet_common_sheaf;
    sheaf_t* s512 = s128->next;
    ASSERT_NE(s512, nullptr);
    sheaf_t* s1518 = s512->next;
    ASSERT_NE(s1518, nullptr);
    EXPECT_EQ(s1518->next, nullptr);
    EXPECT_STREQ(s128->name, "128");
    EXPECT_EQ(s128->size, 128u);
    EXPECT_EQ(s512->size, 512u);
    EXPECT_EQ(s1518->size, 1518u);
    EXPECT_EQ(s1518->id, 1u);
    EXPECT_EQ(s512->id, 2u);
    EXPECT_EQ(s128->id, 3u);
    ASSERT_NE(packet_misfit_sheaf, nullptr);
    EXPECT_STREQ(packet_misfit_sheaf->name, "packet(misfits)");
    EXPECT_EQ(packet_misfit_sheaf->id, 4u);
    EXPECT_EQ(packet_misfit_sheaf->size, 0u);
    EXPECT_EQ(packet_misfit_sheaf->max, 0u);
    ASSERT_NE(packet_clone_sheaf, nullptr);
    EXPECT_STREQ(packet_clone_sheaf->name, "packet(clones)");
    EXPECT_EQ(packet_clone_sheaf->id, 5u);
    EXPECT_EQ(packet_clone_sheaf->size, 0u);
    EXPECT_EQ(packet_clone_sheaf->max, 16u);
    EXPECT_EQ(packet_encap_bytes, 64u);
    EXPECT_EQ(packet_trailer_bytes, 32u);
    EXPECT_EQ(packet_buffer_heap, buffer_heap);
    for (sheaf_t* sheaf : {s128, s512, s1518, packet_clone_sheaf}) {
        EXPECT_EQ(sheaf->vector->alloc, packet_alloc) << sheaf->name;
        EXPECT_EQ(sheaf->vector->free, packet_free) << sheaf->name;
        EXPECT_EQ(sheaf->total, 4u) << sheaf->name;
        EXPECT_EQ(sheaf->free, 4u) << sheaf->name;
    }
    // Clone headers are header-only: they take their source's buffer.
    for (packet_t* p = packet_clone_sheaf->packets; p != nullptr; p = p->sheaf_next) EXPECT_EQ(p->buffer, nullptr);
    // A resting 1518 packet: descriptor, 1518 + 64 + 32 data bytes, guard.
    packet_t* resting = s1518->packets;
    ASSERT_NE(resting, nullptr);
    ASSERT_NE(resting->buffer, nullptr);
    EXPECT_EQ(resting->buffer->maximum, 1616);
    EXPECT_EQ(resting->buffer->magic, PACKET_BUFFER_MAGIC);
    EXPECT_EQ(resting->buffer->packet, resting);
    u_int32_t guard;
    std::memcpy(&guard, resting->buffer->data + 1616, 4);
    EXPECT_EQ(guard, PACKET_BUFFER_GUARD);
    EXPECT_GE(heap_block_size(resting->buffer), sizeof(packet_buffer_t) + 1616 + 4);
}

TEST(PacketPools, BufferLayoutForA1500ByteFrame) {
    sheaf_vector_t vector = {packet_alloc, packet_free};
    sheaf_t* sheaf = sheaf_create("1500", 1500, 0, 2, 1, &vector, nullptr);
    ASSERT_NE(sheaf, nullptr);
    packet_t* p = sheaf->packets;
    ASSERT_NE(p, nullptr);
    ASSERT_NE(p->buffer, nullptr);
    EXPECT_EQ(p->buffer->maximum, 1596);
    EXPECT_EQ(p->buffer->refcount, 0);
    EXPECT_EQ(p->buffer_start, p->buffer->data);
    EXPECT_EQ(p->frame_start, nullptr) << "set at hand-out";
    EXPECT_EQ(reinterpret_cast<char*>(p->buffer->data) - reinterpret_cast<char*>(p->buffer), sizeof(packet_buffer_t));
    u_int32_t guard;
    std::memcpy(&guard, p->buffer->data + 1596, 4);
    EXPECT_EQ(guard, PACKET_BUFFER_GUARD);
    // Descriptor, data area and guard word in one block of the buffer heap.
    EXPECT_GE(heap_block_size(p->buffer), sizeof(packet_buffer_t) + 1596 + 4);
    EXPECT_LT(heap_block_size(p->buffer), sizeof(packet_buffer_t) + 1596 + 4 + 40);
    // Taken by sheaf, the buffer keeps the size it was made for.
    packet_t* taken = packet_get_from_sheaf(sheaf);
    ASSERT_EQ(taken, p);
    EXPECT_EQ(taken->buffer->maximum, 1596);
    EXPECT_EQ(taken->frame_start - taken->buffer_start, 64);
    packet_return(taken);
    EXPECT_TRUE(sheaf_destroy(sheaf));
}

TEST(PacketGet, TakesTheFirstFittingSheafAndResetsOnlyTheHeader) {
    struct Case {
        packet_length_t length;
        sheaf_t* sheaf;
    } cases[] = {{100, chain_sheaf(128)},  {128, chain_sheaf(128)},   {129, chain_sheaf(512)},
                 {0, chain_sheaf(128)},    {1518, chain_sheaf(1518)}, {1519, packet_misfit_sheaf},
                 {2000, packet_misfit_sheaf}};
    for (const Case& c : cases) {
        const packet_stats_t before = stats();
        packet_t* p = get_here(c.length);
        ASSERT_NE(p, nullptr) << c.length;
        EXPECT_EQ(p->sheaf, c.sheaf) << c.length;
        EXPECT_EQ(p->magic, PACKET_MAGIC);
        EXPECT_EQ(p->refcount, 1);
        EXPECT_EQ(p->length, 0);
        EXPECT_EQ(p->sheaf_next, nullptr);
        EXPECT_EQ(p->clone_next, nullptr);
        EXPECT_EQ(p->fragment, nullptr);
        ASSERT_NE(p->buffer, nullptr);
        EXPECT_EQ(p->buffer->refcount, 1);
        EXPECT_EQ(p->buffer_start, p->buffer->data);
        EXPECT_EQ(p->frame_start - p->buffer_start, 64);
        const u_int32_t frame = c.sheaf == packet_misfit_sheaf ? c.length : static_cast<u_int32_t>(c.sheaf->size);
        EXPECT_EQ(p->buffer->maximum, (frame + 96 + 3) / 4 * 4) << c.length;
        // The recorded caller is the call site inside get_here.
        EXPECT_GT(reinterpret_cast<uintptr_t>(p->pc), reinterpret_cast<uintptr_t>(&get_here));
        EXPECT_LT(reinterpret_cast<uintptr_t>(p->pc), reinterpret_cast<uintptr_t>(&get_here) + 256);
        EXPECT_EQ(packet_stats.get_requests - before.get_requests, 1u);
        EXPECT_EQ(packet_stats.get_successes - before.get_successes, 1u);
        packet_return(p);
        EXPECT_EQ(packet_stats.returns - before.returns, 1u);
    }
    EXPECT_EQ(packet_glb_lock_filname, std::string("packet/packet"));
    EXPECT_GT(packet_glb_lock_line, 0);

    // The misfit of 2000 bytes from the table's own edge case.
    packet_t* misfit = packet_get(2000);
    ASSERT_NE(misfit, nullptr);
    EXPECT_EQ(misfit->buffer->maximum, 2096);
    const u_int32_t misfit_frees = packet_misfit_sheaf->nfree;
    packet_return(misfit);
    EXPECT_EQ(packet_misfit_sheaf->nfree, misfit_frees + 1) << "the misfit pool keeps nothing";

    // Every carried field is cleared at hand-out; the data area is not.
    packet_t* p = packet_get(100);
    ASSERT_NE(p, nullptr);
    p->ifd_input = 7;
    p->vrf_id = 9;
    p->packet_handle.cell_num = 11;
    p->timestamp.opaque_data[3] = 13;
    p->layer3_start = p->frame_start + 14;
    p->links.next = p;
    p->length = 60;
    std::memset(p->frame_start, 0xA5, 60);
    packet_t* const same = p;
    packet_return(p);
    p = packet_get(100);
    ASSERT_EQ(p, same) << "last returned, first reused";
    EXPECT_EQ(p->ifd_input, 0u);
    EXPECT_EQ(p->vrf_id, 0);
    EXPECT_EQ(p->packet_handle.cell_num, 0u);
    EXPECT_EQ(p->timestamp.opaque_data[3], 0u);
    EXPECT_EQ(p->layer3_start, nullptr);
    EXPECT_EQ(p->links.next, nullptr);
    EXPECT_EQ(p->length, 0);
    EXPECT_EQ(p->frame_start[0], 0xA5);
    EXPECT_EQ(p->frame_start[59], 0xA5);
    packet_return(p);
}

TEST(PacketGet, ResolvesFromAPoolWithoutAllocating) {
    sheaf_t* s512 = chain_sheaf(512);
    const u_int32_t nalloc = s512->nalloc;
    const size_t heap_free_bytes = heap_get_free_bytes(buffer_heap);
    packet_t* p = packet_get(300);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(s512->nalloc, nalloc);
    EXPECT_EQ(heap_get_free_bytes(buffer_heap), heap_free_bytes);
    packet_return(p);
}

TEST(PacketGet, AKeptMisfitBufferNeverServesALargerRequest) {
    // A misfit pool allowed to keep packets could hand a small buffer to a
    // larger request; a fresh one is made instead.
    sheaf_t* misfit = packet_misfit_sheaf;
    misfit->max = 2;
    packet_t* small = packet_get(1600);
    ASSERT_NE(small, nullptr);
    packet_return(small);
    EXPECT_EQ(misfit->free, 1u);
    packet_t* large = packet_get(4000);
    ASSERT_NE(large, nullptr);
    EXPECT_NE(large, small);
    EXPECT_EQ(large->buffer->maximum, 4096);
    std::memset(large->frame_start, 0x5A, 4000 + 32);
    large->length = 4000;
    packet_return(large);  // guard intact: no stop
    // A smaller request reuses a kept larger buffer, described for itself.
    packet_t* again = packet_get(1700);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->buffer->maximum, 1796);
    packet_return(again);
    under_packet_lock([&] {
        misfit->max = 0;
        while (packet_t* p = sheaf_packet_dequeue(misfit)) sheaf_free(misfit, p);
    });
    EXPECT_EQ(misfit->free, 0u);
}

TEST(PacketGet, EveryRequestLengthFitsA16BitMaximum) {
    const packet_stats_t before = stats();
    packet_t* p = packet_get(65436);
    ASSERT_NE(p, nullptr) << "round-up-to-4(65436 + 96) = 65532 still fits";
    EXPECT_EQ(p->buffer->maximum, 65532);
    packet_return(p);
    EXPECT_EQ(packet_get(65437), nullptr);
    EXPECT_EQ(packet_get(65535), nullptr);
    EXPECT_EQ(packet_stats.get_failures - before.get_failures, 2u);
    EXPECT_EQ(packet_stats.get_requests - before.get_requests, 3u);
}

TEST(PacketReturn, HolderCountsDecideWhenThePacketGoesBack) {
    sheaf_t* s128 = chain_sheaf(128);
    packet_t* p = packet_get(64);
    ASSERT_NE(p, nullptr);
    p->refcount = 2;  // a second holder
    const packet_stats_t before = stats();
    const u_int32_t resting = s128->free;
    packet_return(p);
    EXPECT_EQ(p->refcount, 1);
    EXPECT_EQ(packet_stats.returns, before.returns);
    EXPECT_EQ(s128->free, resting);
    packet_return(p);
    EXPECT_EQ(packet_stats.returns - before.returns, 1u);
    EXPECT_EQ(s128->free, resting + 1);
    EXPECT_EQ(s128->packets, p);
    EXPECT_EQ(p->refcount, 0);
    EXPECT_EQ(p->buffer->refcount, 0);
}

TEST(PacketReturn, FragmentsGoBackWithTheirHead) {
    packet_t* head = packet_get(100);
    packet_t* second = packet_get(400);
    packet_t* third = packet_get(1000);
    packet_fragment_add(head, second);
    packet_fragment_add(head, third);
    EXPECT_EQ(head->fragment, second);
    EXPECT_EQ(second->fragment, third);
    const packet_stats_t before = stats();
    packet_return(head);
    EXPECT_EQ(packet_stats.returns - before.returns, 3u);
    EXPECT_TRUE(rests_in(chain_sheaf(128), head));
    EXPECT_TRUE(rests_in(chain_sheaf(512), second));
    EXPECT_TRUE(rests_in(chain_sheaf(1518), third));
    EXPECT_EQ(second->fragment, nullptr);
    EXPECT_EQ(third->fragment, nullptr);
}

TEST(PacketReturn, HeaderOnlyPacketIsCountedAndKeptOut) {
    const packet_stats_t before = stats();
    packet_t* header = packet_get_from_sheaf(packet_clone_sheaf);
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(header->buffer, nullptr);
    EXPECT_EQ(header->buffer_start, nullptr);
    EXPECT_EQ(header->frame_start, nullptr);
    const u_int32_t resting = packet_clone_sheaf->free;
    packet_return(header);
    EXPECT_EQ(packet_stats.error_null_buffer - before.error_null_buffer, 1u);
    EXPECT_NE(packet_stats.caller_pc_error_null_buffer, 0u);
    EXPECT_EQ(packet_stats.returns, before.returns);
    EXPECT_EQ(packet_clone_sheaf->free, resting);
    EXPECT_FALSE(rests_in(packet_clone_sheaf, header));
    under_packet_lock([&] { sheaf_free(packet_clone_sheaf, header); });
}

TEST(PacketReturn, TheLockMayBeHeldByTheCaller) {
    ASSERT_EQ(pthread_mutex_lock(&packet_glb_lock), 0);
    packet_t* p = packet_get(100);
    ASSERT_NE(p, nullptr);
    packet_t* clone = packet_clone(p);
    ASSERT_NE(clone, nullptr);
    packet_return(p);
    packet_return(clone);
    EXPECT_EQ(pthread_mutex_unlock(&packet_glb_lock), 0) << "still held by this thread";
    EXPECT_EQ(pthread_mutex_unlock(&packet_glb_lock), EPERM) << "and not taken twice";
}

using PacketReturnDeathTest = ::testing::Test;

TEST_F(PacketReturnDeathTest, DoubleReturnLogsThePacketAndStops) {
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            packet_t* p = packet_get(100);
            packet_return(p);
            packet_return(p);
        },
        ::testing::KilledBySignal(SIGABRT),
        "<3>packet_return\\(\\): 0x[0-9a-f]+ \\(sheaf 128\\) has a packet refcount of 0\n.*"
        "packet/packet:[0-9]+: packet_return: Assertion `0' failed");
}

TEST_F(PacketReturnDeathTest, LostBufferShareLogsTheBufferCount) {
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            packet_t* p = packet_get(300);
            p->buffer->refcount = -1;
            packet_return(p);
        },
        ::testing::KilledBySignal(SIGABRT),
        "<3>packet_return\\(\\): 0x[0-9a-f]+ \\(sheaf 512\\) has a buffer refcount of -1\n.*Assertion `0' failed");
}

TEST_F(PacketReturnDeathTest, OverwrittenGuardWordIsCaught) {
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            packet_t* p = packet_get(128);
            // 128 frame bytes plus the 32 of tail room fill the data area;
            // one more byte lands on the guard word.
            std::memset(p->frame_start, 0, 128 + 32 + 1);
            packet_return(p);
        },
        ::testing::KilledBySignal(SIGABRT), "<0>packet_return: packet corruption \\(addr = 0x0x[0-9a-f]+\\)");
}

TEST_F(PacketReturnDeathTest, DamagedMaximumIsCaughtWithoutReadingOutside) {
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            packet_t* p = packet_get(128);
            p->buffer->maximum = 60000;
            packet_return(p);
        },
        ::testing::KilledBySignal(SIGABRT), "<0>packet_return: packet corruption");
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            packet_t* p = packet_get(128);
            p->buffer->maximum = 0;
            packet_return(p);
        },
        ::testing::KilledBySignal(SIGABRT), "<0>packet_return: packet corruption");
}

TEST_F(PacketReturnDeathTest, InvalidPacketStops) {
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            packet_return(nullptr);
        },
        ::testing::KilledBySignal(SIGABRT), "<0>packet_return: invalid packet \\(addr = 0x\\(nil\\)\\)");
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            packet_t* p = packet_get(128);
            p->buffer->magic = 0;
            packet_return(p);
        },
        ::testing::KilledBySignal(SIGABRT), "<0>packet_return: invalid packet \\(addr = 0x0x[0-9a-f]+\\)");
}

TEST(PacketVerify, ValidPacketsPass) {
    packet_t* p = packet_get(100);
    EXPECT_EQ(packet_verify(p, "here"), 1);
    packet_t* header = packet_get_from_sheaf(packet_clone_sheaf);
    EXPECT_EQ(packet_verify(header, "there"), 1);
    packet_return(p);
    under_packet_lock([&] { sheaf_free(packet_clone_sheaf, header); });
}

using PacketVerifyDeathTest = ::testing::Test;

TEST_F(PacketVerifyDeathTest, InvalidPacketLogsFourLinesAndStops) {
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            packet_t* p = packet_get(100);
            p->magic = 1;
            packet_verify(p, "test");
        },
        ::testing::KilledBySignal(SIGABRT),
        "<3>packet_verify: >{47}\n<3>packet_verify: Buffer will underflow....\n"
        "<3>packet_verify: frame start: 0x0x[0-9a-f]+, buffer start: 0x0x[0-9a-f]+\n<3>packet_verify: >{47}\n"
        "(.|\n)*<0>packet_verify: invalid buffer");
    EXPECT_EXIT(
        {
            corvex_test::syslog_echo_to_stderr(true);
            packet_verify(nullptr, "test");
        },
        ::testing::KilledBySignal(SIGABRT),
        "<3>packet_verify: >{47}\n<3>packet_verify: Buffer will underflow....\n<3>packet_verify: >{47}\n");
}

}  // namespace
