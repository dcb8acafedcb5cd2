// lldp_cb_pe_tlv_present on well-formed, altered and truncated frames. Each
// frame is handed over in a heap block of exactly its length, so
// AddressSanitizer reports any read past the end.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "ethernet.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes tlv(unsigned int type, const Bytes& value, int claimed_length = -1) {
    const unsigned int length = claimed_length >= 0 ? static_cast<unsigned int>(claimed_length) : value.size();
    Bytes bytes = {static_cast<uint8_t>(type << 1 | length >> 8), static_cast<uint8_t>(length & 0xFF)};
    bytes.insert(bytes.end(), value.begin(), value.end());
    return bytes;
}

// An organizationally specific TLV: OUI, subtype, then body_length bytes.
Bytes org_tlv(uint32_t oui, uint8_t subtype, size_t body_length) {
    Bytes value = {static_cast<uint8_t>(oui >> 16), static_cast<uint8_t>(oui >> 8), static_cast<uint8_t>(oui), subtype};
    for (size_t i = 0; i < body_length; ++i) value.push_back(static_cast<uint8_t>(0xA0 + i));
    return tlv(127, value);
}

Bytes pe_tlv() { return org_tlv(0x0080C2, 15, 13); }

const Bytes kChassisId = tlv(1, {4, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55});
const Bytes kPortId = tlv(2, {7, 'p', 'o', 'r', 't', '1'});
const Bytes kTtl = tlv(3, {0x00, 0x78});
const Bytes kEnd = tlv(0, {});

// Addresses, optional tag (TPID and TCI), EtherType 0x88CC, then the TLVs.
Bytes frame(const std::vector<Bytes>& tlvs, uint16_t tpid = 0, uint16_t ether_type = 0x88CC) {
    Bytes bytes = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    if (tpid != 0) {
        bytes.insert(bytes.end(), {static_cast<uint8_t>(tpid >> 8), static_cast<uint8_t>(tpid), 0x00, 0x64});
    }
    bytes.insert(bytes.end(), {static_cast<uint8_t>(ether_type >> 8), static_cast<uint8_t>(ether_type)});
    for (const auto& t : tlvs) bytes.insert(bytes.end(), t.begin(), t.end());
    return bytes;
}

Bytes standard(const Bytes& extra, uint16_t tpid = 0) { return frame({kChassisId, kPortId, kTtl, extra, kEnd}, tpid); }

// The first length bytes of bytes, in a block of exactly that size.
int present(const Bytes& bytes, size_t length = SIZE_MAX) {
    length = std::min(length, bytes.size());
    std::unique_ptr<unsigned char[]> exact(new unsigned char[length > 0 ? length : 1]);
    std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length), exact.get());
    return lldp_cb_pe_tlv_present(exact.get(), static_cast<int>(length));
}

TEST(LldpPeTlv, FoundOnlyWhereEveryPartMatches) {
    const Bytes pe = pe_tlv();
    const struct {
        Bytes frame;
        int present;
    } cases[] = {
        {standard(pe), 1},
        {standard(pe, 0x8100), 1},
        {frame({pe, kEnd}), 1},  // first TLV
        {frame({kChassisId, org_tlv(0x00120F, 1, 5), org_tlv(0x0080C2, 14, 13), pe, kEnd}), 1},
        {frame({kChassisId, pe}), 1},  // the value may end exactly at the end of the frame
        {standard(org_tlv(0x0080C2, 15, 12)), 0},  // length 16, not 17
        {standard(org_tlv(0x0080C2, 15, 14)), 0},  // length 18
        {standard(org_tlv(0x0080C2, 14, 13)), 0},
        {standard(org_tlv(0x00120F, 15, 13)), 0},
        {standard(tlv(126, Bytes(pe.begin() + 2, pe.end()))), 0},  // the same value in another type
        {frame({kChassisId, kPortId, kTtl, kEnd, pe}), 0},         // nothing after End of LLDPDU
        {standard(pe, 0x88A8), 0},
        // Org TLVs claiming more than is there, or less than their OUI and subtype.
        {frame({kChassisId, Bytes(pe.begin(), pe.end() - 1)}), 0},
        {frame({tlv(127, {0x00, 0x80, 0xC2, 15}, 3), kEnd}), 0},
        {frame({tlv(5, {1, 2, 3}, 511), pe}), 0},  // a TLV of the largest length stepping far beyond the frame
        {frame({kChassisId, kPortId, kTtl, {0xFE}}), 0},  // half a TLV header at the end
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(present(cases[i].frame), cases[i].present) << i;
    unsigned char byte = 0;
    EXPECT_EQ(std::tuple(lldp_cb_pe_tlv_present(&byte, -1), lldp_cb_pe_tlv_present(nullptr, 100)), std::tuple(0, 0));
}

TEST(LldpPeTlv, EveryTruncationReadsOnlyWhatWasReceived) {
    for (uint16_t tpid : {uint16_t{0}, uint16_t{0x8100}}) {
        const Bytes whole = standard(pe_tlv(), tpid);
        const size_t pe_end = whole.size() - kEnd.size();  // the PE value's last byte is just before End
        for (size_t length = 0; length <= whole.size(); ++length) {
            EXPECT_EQ(present(whole, length), length >= pe_end ? 1 : 0) << "tpid " << tpid << " length " << length;
        }
    }
}

}  // namespace
