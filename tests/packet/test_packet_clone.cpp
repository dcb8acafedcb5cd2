// Clones, copies and fragment chains (pools built by test_packet.cpp's
// environment).
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "packet_fixture.h"

using namespace packet_test;

namespace {

packet_stats_t stats() { return packet_stats; }

packet_t* frame_packet(packet_length_t length, u_int8_t fill) {
    packet_t* p = packet_get(length);
    EXPECT_NE(p, nullptr);
    if (p == nullptr) return nullptr;
    std::memset(p->frame_start, fill, length);
    p->length = length;
    return p;
}

std::vector<packet_t*> clone_chain(packet_t* original) {
    std::vector<packet_t*> chain;
    for (packet_t* p = original; p != nullptr; p = p->clone_next) {
        if (!chain.empty()) {
            EXPECT_EQ(p->clone_prev, chain.back());
        }
        chain.push_back(p);
    }
    return chain;
}

TEST(PacketClone, SharesTheFrameAndCountsItsHeader) {
    packet_t* original = frame_packet(60, 0x11);
    original->proto = 0x0800;
    original->ifd_input = 3;
    original->layer3_start = original->frame_start + 14;
    const packet_stats_t before = stats();
    packet_t* clone = packet_clone(original);
    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->sheaf, packet_clone_sheaf);
    EXPECT_EQ(clone->buffer, original->buffer);
    EXPECT_EQ(clone->buffer->packet, original);
    EXPECT_EQ(clone->frame_start, original->frame_start);
    EXPECT_EQ(clone->buffer_start, original->buffer_start);
    EXPECT_EQ(clone->layer3_start, original->layer3_start);
    EXPECT_EQ(clone->length, 60);
    EXPECT_EQ(clone->proto, 0x0800);
    EXPECT_EQ(clone->ifd_input, 3u);
    EXPECT_EQ(clone->pc, original->pc);
    EXPECT_EQ(clone->refcount, 1);
    EXPECT_EQ(original->buffer->refcount, 2);
    EXPECT_EQ(packet_stats.clone_requests - before.clone_requests, 1u);
    EXPECT_EQ(packet_stats.clone_successes - before.clone_successes, 1u);
    EXPECT_EQ(packet_stats.get_requests - before.get_requests, 1u);
    EXPECT_EQ(packet_stats.get_successes - before.get_successes, 1u);
    clone->frame_start[0] = 0x22;
    EXPECT_EQ(original->frame_start[0], 0x22);
    packet_return(clone);
    packet_return(original);
}

TEST(PacketClone, OriginalThenClonesReturnInOrder) {
    sheaf_t* s128 = chain_sheaf(128);
    packet_t* original = frame_packet(60, 0x33);
    packet_t* clone1 = packet_clone(original);
    packet_t* clone2 = packet_clone(clone1);  // a clone of a clone joins the same original
    ASSERT_NE(clone1, nullptr);
    ASSERT_NE(clone2, nullptr);
    EXPECT_EQ(clone_chain(original), (std::vector<packet_t*>{original, clone2, clone1}));
    EXPECT_EQ(original->clone_prev, nullptr);
    EXPECT_EQ(original->buffer->refcount, 3);
    packet_buffer_t* buffer = original->buffer;

    packet_stats_t before = stats();
    packet_return(original);
    EXPECT_EQ(packet_stats.returns - before.returns, 0u);
    EXPECT_EQ(packet_stats.clone_returns - before.clone_returns, 0u);
    EXPECT_EQ(original->refcount, 0);
    EXPECT_EQ(buffer->refcount, 2);
    EXPECT_FALSE(rests_in(s128, original));

    before = stats();
    packet_return(clone1);
    EXPECT_EQ(packet_stats.returns - before.returns, 1u);
    EXPECT_EQ(packet_stats.clone_returns - before.clone_returns, 1u);
    EXPECT_EQ(clone_chain(original), (std::vector<packet_t*>{original, clone2}));
    EXPECT_EQ(clone1->buffer, nullptr);
    EXPECT_TRUE(rests_in(packet_clone_sheaf, clone1));
    EXPECT_FALSE(rests_in(s128, original)) << "still waiting for clone 2";

    before = stats();
    packet_return(clone2);
    EXPECT_EQ(packet_stats.returns - before.returns, 2u);
    EXPECT_EQ(packet_stats.clone_returns - before.clone_returns, 1u);
    EXPECT_EQ(buffer->refcount, 0);
    EXPECT_EQ(original->clone_next, nullptr);
    EXPECT_EQ(s128->packets, original);
    EXPECT_EQ(original->buffer, buffer) << "the buffer rests with its original";
}

TEST(PacketClone, ClonesReturnedFirstLeaveTheOriginalHeld) {
    packet_t* original = frame_packet(60, 0x44);
    packet_t* clone1 = packet_clone(original);
    packet_t* clone2 = packet_clone(original);
    EXPECT_EQ(clone_chain(original), (std::vector<packet_t*>{original, clone2, clone1}));
    packet_return(clone2);
    EXPECT_EQ(clone_chain(original), (std::vector<packet_t*>{original, clone1}));
    packet_return(clone1);
    EXPECT_EQ(original->buffer->refcount, 1);
    EXPECT_EQ(original->refcount, 1);
    const packet_stats_t before = stats();
    packet_return(original);
    EXPECT_EQ(packet_stats.returns - before.returns, 1u);
    EXPECT_TRUE(rests_in(chain_sheaf(128), original));
}

TEST(PacketClone, RefusedWithoutABufferToShare) {
    packet_t* header = packet_get_from_sheaf(packet_clone_sheaf);
    ASSERT_NE(header, nullptr);
    const packet_stats_t before = stats();
    EXPECT_EQ(packet_clone(header), nullptr);
    EXPECT_EQ(packet_clone(nullptr), nullptr);
    EXPECT_EQ(packet_stats.clone_requests - before.clone_requests, 2u);
    EXPECT_EQ(packet_stats.clone_failures - before.clone_failures, 2u);
    EXPECT_EQ(packet_stats.get_requests, before.get_requests) << "no header taken";
    under_packet_lock([&] { sheaf_free(packet_clone_sheaf, header); });
}

TEST(PacketCopy, CopiesDescriptiveFieldsAndTheSheafSizedData) {
    packet_t* src = packet_get(100);  // 128 sheaf
    packet_t* dst = packet_get(300);  // 512 sheaf
    ASSERT_NE(src, nullptr);
    ASSERT_NE(dst, nullptr);
    for (int i = 0; i < 128 + 96; ++i) src->buffer_start[i] = static_cast<u_int8_t>(i);
    std::memset(dst->buffer_start, 0xEE, 512);
    src->proto = 0x86DD;
    src->length = 77;
    src->ifd_input = 1;
    src->ifd_output = 2;
    src->hint = 3;
    src->sample = 4;
    src->priority = 5;
    src->notif_type = 6;
    src->cos = 7;
    src->timestamp = {{8, 9, 10, 11}};
    src->vrf_id = 12;
    src->hw_port = 13;
    src->queue = 14;
    src->packet_flags = 15;
    src->code_point = 16;
    src->frame_start += 8;
    src->layer3_start = src->frame_start + 14;
    src->l2_start = src->frame_start;
    const packet_stats_t before = stats();
    EXPECT_TRUE(packet_copy(src, dst, TRUE));
    EXPECT_EQ(packet_stats.copy_requests - before.copy_requests, 1u);
    EXPECT_EQ(packet_stats.copy_successes - before.copy_successes, 1u);
    // 128 + 64 bytes: the smaller sheaf's frame room and the headroom.
    EXPECT_EQ(std::memcmp(dst->buffer_start, src->buffer_start, 192), 0);
    EXPECT_EQ(dst->buffer_start[192], 0xEE);
    EXPECT_EQ(dst->proto, 0x86DD);
    EXPECT_EQ(dst->length, 77);
    EXPECT_EQ(dst->ifd_input, 1u);
    EXPECT_EQ(dst->ifd_output, 2u);
    EXPECT_EQ(dst->hint, 3u);
    EXPECT_EQ(dst->sample, 4);
    EXPECT_EQ(dst->priority, 5);
    EXPECT_EQ(dst->notif_type, 6);
    EXPECT_EQ(dst->cos, 7);
    EXPECT_EQ(dst->timestamp.opaque_data[3], 11u);
    EXPECT_EQ(dst->vrf_id, 0);
    EXPECT_EQ(dst->hw_port, 0);
    EXPECT_EQ(dst->queue, 0);
    EXPECT_EQ(dst->packet_flags, 0u);
    EXPECT_EQ(dst->code_point, 0);
    EXPECT_EQ(dst->l2_start, nullptr);
    EXPECT_EQ(dst->frame_start - dst->buffer_start, 72);
    EXPECT_EQ(dst->layer3_start - dst->buffer_start, 86);
    EXPECT_EQ(dst->layer4_start, nullptr);
    EXPECT_EQ(dst->sheaf, chain_sheaf(512));
    EXPECT_EQ(dst->refcount, 1);
    src->frame_start -= 8;
    packet_return(src);
    packet_return(dst);
}

TEST(PacketCopy, MisfitsCopyOnlyTheHeadroom) {
    packet_t* src = packet_get(2000);
    packet_t* dst = packet_get(3000);
    std::memset(src->buffer_start, 0x12, 200);
    std::memset(dst->buffer_start, 0xEE, 200);
    EXPECT_TRUE(packet_copy(src, dst, TRUE));
    EXPECT_EQ(dst->buffer_start[63], 0x12);
    EXPECT_EQ(dst->buffer_start[64], 0xEE);
    packet_return(src);
    packet_return(dst);
}

TEST(PacketCopy, HeaderOnlyPacketsTakeFieldsButNoData) {
    packet_t* src = packet_get(100);
    packet_t* header = packet_get_from_sheaf(packet_clone_sheaf);
    src->proto = 0x88CC;
    const packet_stats_t before = stats();
    EXPECT_FALSE(packet_copy(src, header, TRUE));
    EXPECT_EQ(header->proto, 0) << "a refused copy changes nothing";
    EXPECT_FALSE(packet_copy(header, src, TRUE));
    EXPECT_FALSE(packet_copy(nullptr, src, FALSE));
    EXPECT_FALSE(packet_copy(src, nullptr, FALSE));
    EXPECT_EQ(packet_stats.copy_failures - before.copy_failures, 4u);
    EXPECT_TRUE(packet_copy(src, header, FALSE));
    EXPECT_EQ(header->proto, 0x88CC);
    EXPECT_EQ(header->frame_start, nullptr) << "no buffer to place markers in";
    EXPECT_EQ(packet_stats.copy_requests - before.copy_requests, 5u);
    packet_return(src);
    under_packet_lock([&] { sheaf_free(packet_clone_sheaf, header); });
}

TEST(PacketFragments, AddCutsTheAddedPacketsOwnChainAndRefusesLoops) {
    packet_t* a = packet_get(10);
    packet_t* b = packet_get(10);
    packet_t* c = packet_get(10);
    packet_t* d = packet_get(10);
    packet_fragment_add(c, d);
    packet_fragment_add(a, b);
    packet_fragment_add(a, c);  // c arrives alone: d is cut off
    EXPECT_EQ(a->fragment, b);
    EXPECT_EQ(b->fragment, c);
    EXPECT_EQ(c->fragment, nullptr);
    packet_fragment_add(a, b);  // already a member: nothing changes
    packet_fragment_add(a, a);
    EXPECT_EQ(a->fragment, b);
    EXPECT_EQ(b->fragment, c);
    EXPECT_EQ(c->fragment, nullptr);
    packet_return(a);
    packet_return(d);
}

TEST(PacketFragments, CoalesceJoinsFramesInChainOrder) {
    packet_t* head = frame_packet(100, 0x01);
    packet_t* second = frame_packet(200, 0x02);
    packet_t* third = frame_packet(50, 0x03);
    std::memset(head->buffer_start, 0x77, 64);
    head->proto = 0x0800;
    head->ifd_input = 21;
    head->ifd_output = 22;
    head->timestamp = {{1, 2, 3, 4}};
    head->layer3_start = head->frame_start + 14;
    packet_fragment_add(head, second);
    packet_fragment_add(head, third);
    const packet_stats_t before = stats();
    packet_t* whole = packet_fragment_coalesce(head);
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(whole->sheaf, chain_sheaf(512));
    EXPECT_EQ(whole->length, 350);
    EXPECT_EQ(whole->fragment, nullptr);
    EXPECT_EQ(whole->frame_start - whole->buffer_start, 64);
    EXPECT_EQ(whole->layer3_start - whole->buffer_start, 78);
    std::vector<u_int8_t> expected(350, 0x01);
    std::fill(expected.begin() + 100, expected.begin() + 300, 0x02);
    std::fill(expected.begin() + 300, expected.end(), 0x03);
    EXPECT_EQ(std::vector<u_int8_t>(whole->frame_start, whole->frame_start + 350), expected);
    EXPECT_EQ(whole->buffer_start[0], 0x77);
    EXPECT_EQ(whole->buffer_start[63], 0x77);
    EXPECT_EQ(whole->proto, 0x0800);
    EXPECT_EQ(whole->ifd_input, 21u);
    EXPECT_EQ(whole->ifd_output, 22u);
    EXPECT_EQ(whole->timestamp.opaque_data[0], 1u);
    EXPECT_EQ(packet_stats.coalesce_requests - before.coalesce_requests, 1u);
    EXPECT_EQ(packet_stats.coalesce_successes - before.coalesce_successes, 1u);
    EXPECT_EQ(packet_stats.copy_requests - before.copy_requests, 1u);
    EXPECT_EQ(packet_stats.copy_successes - before.copy_successes, 1u);
    EXPECT_EQ(packet_stats.get_requests - before.get_requests, 1u);
    EXPECT_EQ(packet_stats.get_successes - before.get_successes, 1u);
    EXPECT_EQ(packet_stats.returns - before.returns, 3u);
    EXPECT_TRUE(rests_in(chain_sheaf(128), head));
    EXPECT_TRUE(rests_in(chain_sheaf(512), second));
    EXPECT_TRUE(rests_in(chain_sheaf(128), third));
    packet_return(whole);
}

TEST(PacketFragments, SinglePacketIsReturnedAsItIs) {
    packet_t* p = frame_packet(40, 0x09);
    const packet_stats_t before = stats();
    EXPECT_EQ(packet_fragment_coalesce(p), p);
    EXPECT_EQ(packet_fragment_coalesce(nullptr), nullptr);
    EXPECT_EQ(std::memcmp(&packet_stats, &before, sizeof before), 0);
    packet_return(p);
}

TEST(PacketFragments, ChainLongerThanASixteenBitFrameIsRefused) {
    packet_t* head = packet_get(10);
    packet_t* second = packet_get(10);
    packet_t* third = packet_get(10);
    head->length = second->length = third->length = 30000;  // 90000 in all
    packet_fragment_add(head, second);
    packet_fragment_add(head, third);
    const packet_stats_t before = stats();
    EXPECT_EQ(packet_fragment_coalesce(head), nullptr);
    EXPECT_EQ(packet_stats.coalesce_requests - before.coalesce_requests, 1u);
    EXPECT_EQ(packet_stats.coalesce_failures - before.coalesce_failures, 1u);
    EXPECT_EQ(packet_stats.get_requests, before.get_requests) << "nothing asked of the pools";
    EXPECT_EQ(packet_stats.returns - before.returns, 3u) << "the chain is consumed";
}

TEST(PacketFragments, FailedGetConsumesTheChain) {
    packet_t* head = packet_get(10);
    packet_t* second = packet_get(10);
    head->length = 40000;  // 65500 in all: more than a 16-bit maximum describes
    second->length = 25500;
    packet_fragment_add(head, second);
    const packet_stats_t before = stats();
    EXPECT_EQ(packet_fragment_coalesce(head), nullptr);
    EXPECT_EQ(packet_stats.coalesce_failures - before.coalesce_failures, 1u);
    EXPECT_EQ(packet_stats.get_failures - before.get_failures, 1u);
    EXPECT_EQ(packet_stats.returns - before.returns, 2u);
}

}  // namespace
