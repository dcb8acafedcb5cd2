// Clones, copies and fragment chains (pools built by test_packet.cpp's
// environment).
#include <cstring>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "packet_fixture.h"

using namespace packet_test;

namespace {

std::vector<packet_t*> clone_chain(packet_t* original) {
    std::vector<packet_t*> chain;
    for (packet_t* p = original; p != nullptr; p = p->clone_next) {
        EXPECT_EQ(p->clone_prev, chain.empty() ? nullptr : chain.back());
        chain.push_back(p);
    }
    return chain;
}

TEST(PacketClone, SharesTheFrameAndReturnsOriginalThenClones) {
    sheaf_t* s128 = chain_sheaf(128);
    packet_t* original = frame_packet(60, 0x11);
    std::tie(original->proto, original->ifd_input, original->layer3_start) =
        std::tuple(0x0800, 3, original->frame_start + 14);
    packet_stats_t before = packet_stats;
    packet_t* clone1 = packet_clone(original);
    ASSERT_NE(clone1, nullptr);
    expect_counted(before, {.get_requests = 1, .get_successes = 1, .clone_requests = 1, .clone_successes = 1});
    EXPECT_EQ(std::tuple(clone1->sheaf, clone1->buffer, clone1->buffer->packet, original->buffer->refcount),
              std::tuple(packet_clone_sheaf, original->buffer, original, 2));
    EXPECT_EQ(std::tuple(clone1->frame_start, clone1->buffer_start, clone1->layer3_start, clone1->pc),
              std::tuple(original->frame_start, original->buffer_start, original->layer3_start, original->pc));
    EXPECT_EQ(std::tuple(clone1->length, clone1->proto, clone1->ifd_input, clone1->refcount),
              std::tuple(60, 0x0800, 3u, 1));
    clone1->frame_start[0] = 0x22;
    EXPECT_EQ(original->frame_start[0], 0x22);

    packet_t* clone2 = packet_clone(clone1);  // a clone of a clone joins the same original
    ASSERT_NE(clone2, nullptr);
    EXPECT_EQ(clone_chain(original), (std::vector<packet_t*>{original, clone2, clone1}));
    packet_buffer_t* buffer = original->buffer;
    EXPECT_EQ(buffer->refcount, 3);

    before = packet_stats;
    packet_return(original);
    expect_counted(before, {});
    EXPECT_EQ(std::tuple(original->refcount, buffer->refcount), std::tuple(0, 2));
    before = packet_stats;
    packet_return(clone1);
    expect_counted(before, {.returns = 1, .clone_returns = 1});
    EXPECT_EQ(clone_chain(original), (std::vector<packet_t*>{original, clone2}));
    EXPECT_EQ(clone1->buffer, nullptr);
    EXPECT_TRUE(rests_in(packet_clone_sheaf, clone1));
    EXPECT_FALSE(rests_in(s128, original)) << "still waiting for clone 2";
    before = packet_stats;
    packet_return(clone2);
    expect_counted(before, {.returns = 2, .clone_returns = 1});
    EXPECT_EQ(std::tuple(buffer->refcount, original->clone_next, s128->packets, original->buffer),
              std::tuple(0, nullptr, original, buffer));

    // Clones returned first leave the original held.
    original = frame_packet(60, 0x44);
    clone1 = packet_clone(original);
    clone2 = packet_clone(original);
    packet_return(clone2);
    EXPECT_EQ(clone_chain(original), (std::vector<packet_t*>{original, clone1}));
    packet_return(clone1);
    EXPECT_EQ(std::tuple(original->buffer->refcount, original->refcount), std::tuple(1, 1));
    before = packet_stats;
    packet_return(original);
    expect_counted(before, {.returns = 1});
    EXPECT_TRUE(rests_in(s128, original));
}

TEST(PacketCopy, CopiesDescriptiveFieldsAndTheSheafSizedData) {
    packet_t* src = packet_get(100);  // 128 sheaf
    packet_t* dst = packet_get(300);  // 512 sheaf
    for (int i = 0; i < 128 + 96; ++i) src->buffer_start[i] = static_cast<u_int8_t>(i);
    std::memset(dst->buffer_start, 0xEE, 512);
    std::tie(src->proto, src->length, src->ifd_input, src->ifd_output, src->hint, src->sample, src->priority,
             src->notif_type, src->cos) = std::tuple(0x86DD, 77, 1, 2, 3, 4, 5, 6, 7);
    src->timestamp = {{8, 9, 10, 11}};
    src->vrf_id = src->hw_port = src->queue = src->code_point = 12;
    src->packet_flags = 13;
    src->frame_start += 8;
    src->layer3_start = src->frame_start + 14;
    src->l2_start = src->frame_start;
    const packet_stats_t before = packet_stats;
    EXPECT_TRUE(packet_copy(src, dst, TRUE));
    expect_counted(before, {.copy_requests = 1, .copy_successes = 1});
    // 128 + 64 bytes: the smaller sheaf's frame room and the headroom.
    EXPECT_EQ(std::memcmp(dst->buffer_start, src->buffer_start, 192), 0);
    EXPECT_EQ(dst->buffer_start[192], 0xEE);
    EXPECT_EQ(std::tuple(dst->proto, dst->length, dst->ifd_input, dst->ifd_output, dst->hint, dst->sample,
                         dst->priority, dst->notif_type, dst->cos, dst->timestamp.opaque_data[3]),
              std::tuple(0x86DD, 77, 1u, 2u, 3u, 4, 5, 6, 7, 11u));
    EXPECT_EQ(std::tuple(dst->vrf_id, dst->hw_port, dst->queue, dst->packet_flags, dst->code_point, dst->l2_start,
                         dst->layer4_start),
              std::tuple(0, 0, 0, 0u, 0, nullptr, nullptr))
        << "fields that are not copied";
    EXPECT_EQ(std::tuple(dst->frame_start - dst->buffer_start, dst->layer3_start - dst->buffer_start, dst->sheaf,
                         dst->refcount),
              std::tuple(72, 86, chain_sheaf(512), 1));
    src->frame_start -= 8;
    packet_return(src);
    packet_return(dst);

    // Misfits (sheaf size 0) copy only the headroom.
    src = packet_get(2000);
    dst = packet_get(3000);
    std::memset(src->buffer_start, 0x12, 200);
    std::memset(dst->buffer_start, 0xEE, 200);
    EXPECT_TRUE(packet_copy(src, dst, TRUE));
    EXPECT_EQ(std::tuple(dst->buffer_start[63], dst->buffer_start[64]), std::tuple(0x12, 0xEE));
    packet_return(src);
    packet_return(dst);
}

TEST(PacketCopy, HeaderOnlyPacketsCannotBeClonedNorTakeData) {
    packet_t* src = packet_get(100);
    packet_t* header = packet_get_from_sheaf(packet_clone_sheaf);
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(std::tuple(header->buffer, header->buffer_start, header->frame_start),
              std::tuple(nullptr, nullptr, nullptr));
    EXPECT_EQ(packet_verify(header, "here"), 1);
    src->proto = 0x88CC;
    packet_stats_t before = packet_stats;
    EXPECT_EQ(packet_clone(header), nullptr);
    EXPECT_EQ(packet_clone(nullptr), nullptr);
    EXPECT_FALSE(packet_copy(src, header, TRUE));
    EXPECT_EQ(header->proto, 0) << "a refused copy changes nothing";
    EXPECT_FALSE(packet_copy(header, src, TRUE));
    EXPECT_FALSE(packet_copy(nullptr, src, FALSE));
    EXPECT_FALSE(packet_copy(src, nullptr, FALSE));
    EXPECT_TRUE(packet_copy(src, header, FALSE));
    expect_counted(before, {.copy_requests = 5, .copy_successes = 1, .copy_failures = 4, .clone_requests = 2,
                            .clone_failures = 2});
    EXPECT_EQ(std::tuple(header->proto, header->frame_start), std::tuple(0x88CC, nullptr)) << "no buffer for markers";
    packet_return(src);

    // Returned, a header-only packet is counted and kept out of its pool.
    before = packet_stats;
    const u_int32_t resting = packet_clone_sheaf->free;
    packet_return(header);
    expect_counted(before, {.error_null_buffer = 1});
    EXPECT_NE(packet_stats.caller_pc_error_null_buffer, 0u);
    EXPECT_EQ(std::tuple(packet_clone_sheaf->free, rests_in(packet_clone_sheaf, header)), std::tuple(resting, false));
    give_back(header);
}

TEST(PacketFragments, AddCutsTheAddedPacketsOwnChainAndRefusesLoops) {
    packet_t* a = packet_get(10);
    packet_t* b = packet_get(10);
    packet_t* c = packet_get(10);
    packet_t* d = packet_get(10);
    packet_fragment_add(c, d);
    packet_fragment_add(a, b);
    packet_fragment_add(a, c);  // c arrives alone: d is cut off
    packet_fragment_add(a, b);  // already a member: nothing changes
    packet_fragment_add(a, a);
    EXPECT_EQ(std::tuple(a->fragment, b->fragment, c->fragment), std::tuple(b, c, nullptr));
    packet_return(a);
    packet_return(d);
    EXPECT_TRUE(rests_in(chain_sheaf(128), c)) << "fragments go back with their head";
}

TEST(PacketFragments, CoalesceJoinsFramesInChainOrder) {
    packet_t* head = frame_packet(100, 0x01);
    packet_t* second = frame_packet(200, 0x02);
    packet_t* third = frame_packet(50, 0x03);
    std::memset(head->buffer_start, 0x77, 64);
    std::tie(head->proto, head->ifd_input, head->ifd_output, head->layer3_start) =
        std::tuple(0x0800, 21, 22, head->frame_start + 14);
    head->timestamp = {{1, 2, 3, 4}};
    packet_fragment_add(head, second);
    packet_fragment_add(head, third);
    packet_stats_t before = packet_stats;
    packet_t* whole = packet_fragment_coalesce(head);
    ASSERT_NE(whole, nullptr);
    expect_counted(before, {.get_requests = 1, .get_successes = 1, .returns = 3, .copy_requests = 1,
                            .copy_successes = 1, .coalesce_requests = 1, .coalesce_successes = 1});
    EXPECT_EQ(std::tuple(whole->sheaf, whole->length, whole->fragment, whole->frame_start - whole->buffer_start,
                         whole->layer3_start - whole->buffer_start),
              std::tuple(chain_sheaf(512), 350, nullptr, 64, 78));
    std::vector<u_int8_t> expected(350, 0x01);
    std::fill(expected.begin() + 100, expected.begin() + 300, 0x02);
    std::fill(expected.begin() + 300, expected.end(), 0x03);
    EXPECT_EQ(std::vector<u_int8_t>(whole->frame_start, whole->frame_start + 350), expected);
    EXPECT_EQ(std::vector<u_int8_t>(whole->buffer_start, whole->buffer_start + 64), std::vector<u_int8_t>(64, 0x77));
    EXPECT_EQ(std::tuple(whole->proto, whole->ifd_input, whole->ifd_output, whole->timestamp.opaque_data[0]),
              std::tuple(0x0800, 21u, 22u, 1u));
    EXPECT_TRUE(rests_in(chain_sheaf(128), head) && rests_in(chain_sheaf(512), second) &&
                rests_in(chain_sheaf(128), third));

    // A single packet comes back as it is.
    before = packet_stats;
    EXPECT_EQ(packet_fragment_coalesce(whole), whole);
    EXPECT_EQ(packet_fragment_coalesce(nullptr), nullptr);
    expect_counted(before, {});
    packet_return(whole);
}

TEST(PacketFragments, ChainsNoPacketCanHoldAreConsumed) {
    const struct {
        std::vector<packet_length_t> lengths;
        packet_counter_t gets;
    } chains[] = {
        {{30000, 30000, 30000}, 0},  // more than a frame length holds: the pools are not asked
        {{40000, 25500}, 1},         // a frame length, but more than a buffer maximum describes
    };
    for (const auto& chain : chains) {
        packet_t* head = nullptr;
        for (packet_length_t length : chain.lengths) {
            packet_t* p = packet_get(10);
            p->length = length;
            if (head == nullptr) head = p;
            else packet_fragment_add(head, p);
        }
        const packet_stats_t before = packet_stats;
        EXPECT_EQ(packet_fragment_coalesce(head), nullptr);
        expect_counted(before, {.get_requests = chain.gets, .get_failures = chain.gets,
                                .returns = static_cast<packet_counter_t>(chain.lengths.size()),
                                .coalesce_requests = 1, .coalesce_failures = 1});
    }
}

}  // namespace
