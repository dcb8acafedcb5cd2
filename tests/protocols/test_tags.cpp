// E-tag and VLAN tag insertion and removal, byte for byte, on pool packets.
#include <cstring>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ethernet.h"
#include "packet_pools.h"

using namespace corvex_test;

namespace {

using Bytes = std::vector<u_int8_t>;

class TagTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        packet_pool_init(nullptr, kPoolTable, make_heap(1 << 20));
    }
    // Addresses 01..0c, EtherType 0x0800, payload 0xd0 0xd1 ...
    static packet_t* untagged_frame() {
        packet_t* p = packet_get(60);
        for (int i = 0; i < 60; ++i) p->frame_start[i] = static_cast<u_int8_t>(i < 12 ? i + 1 : 0xd0 + i - 14);
        std::memcpy(p->frame_start + 12, "\x08\x00", 2);
        p->length = 60;
        p->layer3_start = p->frame_start + 14;
        return p;
    }
    void SetUp() override {
        pkt_ = untagged_frame();
        payload_ = pkt_->layer3_start;
    }
    void TearDown() override { packet_return(pkt_); }
    Bytes frame() const { return {pkt_->frame_start, pkt_->frame_start + pkt_->length}; }
    Bytes bytes(int from, int to) const { return {pkt_->frame_start + from, pkt_->frame_start + to}; }
    void expect_addresses_and_payload() const {
        EXPECT_EQ(std::tuple(bytes(0, 12), payload_[0], pkt_->layer3_start),
                  std::tuple(Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, 0xd0, payload_)) << "the payload never moves";
    }

    packet_t* pkt_ = nullptr;
    packet_data_t* payload_ = nullptr;
    // Static: the tag ends in a flexible array, which clang allows in no base
    // class, and every test is a class derived from this one.
    static inline ether_802_etag_t etag_ = {0x893F, 0x2005, 0x1064, 0x01, 0x02};
};

TEST_F(TagTest, ETagThenVlanTagGoAfterTheAddressesAndComeOffAgain) {
    ASSERT_EQ(packet_etag_insert(pkt_, &etag_), 0);
    ASSERT_EQ(packet_vlan_tag_insert(pkt_, 0x8100, 0x0064), 0);
    EXPECT_EQ(std::tuple(pkt_->length, pkt_->frame_start - pkt_->buffer_start, bytes(12, 26)),
              std::tuple(72, 64 - 12,
                         Bytes{0x89, 0x3F, 0x20, 0x05, 0x10, 0x64, 0x01, 0x02, 0x81, 0x00, 0x00, 0x64, 0x08, 0x00}));
    expect_addresses_and_payload();
    packet_t* other = untagged_frame();  // both tags in one step give the same frame
    ASSERT_EQ(packet_etag_vlan_tag_insert(other, &etag_, 0x8100, 0x0064), 0);
    EXPECT_EQ(Bytes(other->frame_start, other->frame_start + other->length), frame());
    packet_return(other);
    // The E-tag comes back in host order and leaves the VLAN tag after the addresses.
    ether_802_etag_t out{};
    packet_etag_remove(pkt_, &out);
    EXPECT_EQ(std::tuple(out.etag_tpid, out.etag_pd_ig_ecid_base, out.etag_grp_ecid_base, out.etag_igr_ecid_ext,
                         out.etag_ecid_ext),
              std::tuple(0x893F, 0x2005, 0x1064, 0x01, 0x02));
    packet_etag_remove(pkt_, nullptr);  // no E-tag now: nothing happens
    u_int16_t tpid = 1, tci = 1;
    packet_vlan_tag_remove(pkt_, &tpid, &tci);
    EXPECT_EQ(std::tuple(tpid, tci, pkt_->length, pkt_->frame_start - pkt_->buffer_start),
              std::tuple(0x8100, 0x64, 60, 64));
    expect_addresses_and_payload();
}

TEST_F(TagTest, HeadroomTakesEightETagsOrSixteenVlanTags) {
    for (int i = 0; i < 8; ++i) ASSERT_EQ(packet_etag_insert(pkt_, &etag_), 0) << i;
    const Bytes full = frame();
    EXPECT_EQ(pkt_->frame_start, pkt_->buffer_start);
    EXPECT_EQ(std::tuple(packet_etag_insert(pkt_, &etag_), packet_vlan_tag_insert(pkt_, 0x8100, 1)),
              std::tuple(-1, -1));
    EXPECT_EQ(frame(), full) << "a refused insertion changes nothing";
    for (int i = 0; i < 8; ++i) packet_etag_remove(pkt_, nullptr);
    for (int i = 0; i < 15; ++i) ASSERT_EQ(packet_vlan_tag_insert(pkt_, 0x8100, static_cast<u_int16_t>(i)), 0);
    EXPECT_EQ(packet_etag_vlan_tag_insert(pkt_, &etag_, 0x8100, 1), -1) << "four bytes are not enough for both tags";
    EXPECT_EQ(packet_vlan_tag_insert(pkt_, 0x8100, 15), 0) << "the sixteenth tag takes the last four bytes";
    EXPECT_EQ(std::tuple(pkt_->frame_start, pkt_->length, bytes(12, 16), bytes(72, 76)),
              std::tuple(pkt_->buffer_start, 60 + 64, Bytes{0x81, 0x00, 0x00, 0x0F}, Bytes{0x81, 0x00, 0x00, 0x00}))
        << "newest first";
    expect_addresses_and_payload();
    const Bytes sixteen = frame();
    EXPECT_EQ(packet_vlan_tag_insert(pkt_, 0x8100, 16), -1) << "no seventeenth";
    EXPECT_EQ(std::tuple(frame(), pkt_->frame_start), std::tuple(sixteen, pkt_->buffer_start));
}

TEST_F(TagTest, SymmetricTpidMeansARecordAlreadyInNetworkOrder) {
    ether_802_etag_t wire = {0x8888, 0x0520, 0x6410, 0x01, 0x02};
    ASSERT_EQ(packet_etag_insert(pkt_, &wire), 0);
    u_int8_t image[8];  // copied as it lies in memory
    std::memcpy(image, &wire, 8);
    EXPECT_EQ(bytes(12, 20), Bytes(image, image + 8));
}

}  // namespace
