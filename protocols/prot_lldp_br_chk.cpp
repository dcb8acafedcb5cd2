// Does a received LLDP frame carry the IEEE 802.1 port-extender TLV?
//
// The frame comes from the network: every length in it is a claim to be
// checked against the bytes actually received. Positions are kept as
// offsets into the frame, and a byte is read only after the count of bytes
// left from that offset has been checked to cover it.
#include <cstddef>
#include <cstdint>

#include "ethernet.h"

namespace {

constexpr unsigned int kEtherTypeLldp = 0x88CC;
constexpr unsigned int kTpidVlan = 0x8100;
constexpr int kUntaggedLldpduOffset = 14;
constexpr int kTaggedLldpduOffset = 18;

constexpr unsigned int kTlvHeaderSize = 2;
constexpr unsigned int kTlvTypeEnd = 0;
constexpr unsigned int kTlvTypeOrgSpecific = 127;
constexpr unsigned int kOrgHeaderSize = 4;  // OUI and subtype
constexpr unsigned int kOuiIeee8021 = 0x0080C2;
constexpr unsigned int kSubtypePortExtender = 15;

static_assert(sizeof(ether_header_t) == kUntaggedLldpduOffset);
static_assert(sizeof(ether_header_vlan_t) == kTaggedLldpduOffset);
static_assert(offsetof(ether_header_t, type) == 12 && offsetof(ether_header_vlan_t, ether_type) == 16);
static_assert(sizeof(lldp_tlv_port_extender_t) == 13);

inline unsigned int read_be16(const unsigned char* p) { return static_cast<unsigned int>(p[0] << 8 | p[1]); }

// The value of a port-extender TLV, after its OUI and subtype.
int lldp_parse_port_extender(unsigned char* /*ptr*/, unsigned int buffer_len, unsigned int tlv_len) {
    if (buffer_len < tlv_len) {
        return 0;
    }
    return tlv_len == sizeof(lldp_tlv_port_extender_t) ? 1 : 0;
}

int lldp_parse_ieee_tlv(unsigned int sub_type, unsigned char* cp, unsigned int buffer_len, unsigned int tlv_len) {
    return sub_type == kSubtypePortExtender ? lldp_parse_port_extender(cp, buffer_len, tlv_len) : 0;
}

// cp: the value of a type-127 TLV; buffer_len: bytes received from cp on.
int lldp_parse_org_tlv(unsigned char* cp, unsigned int buffer_len, unsigned int tlv_len) {
    if (buffer_len < kOrgHeaderSize || buffer_len < tlv_len) {
        return 0;
    }
    const unsigned int oui = static_cast<unsigned int>(cp[0] << 16 | cp[1] << 8 | cp[2]);
    if (oui != kOuiIeee8021) {
        return 0;
    }
    // A TLV shorter than its OUI and subtype leaves a length that no value
    // can match: it wraps around and exceeds every buffer length.
    return lldp_parse_ieee_tlv(cp[3], cp + kOrgHeaderSize, buffer_len - kOrgHeaderSize, tlv_len - kOrgHeaderSize);
}

// Where the LLDPDU starts, or 0 when the frame is not LLDP.
int lldpdu_offset(const unsigned char* frame, int frame_len) {
    if (frame_len < kUntaggedLldpduOffset) {
        return 0;
    }
    const unsigned int type = read_be16(frame + 12);
    if (type == kEtherTypeLldp) {
        return kUntaggedLldpduOffset;
    }
    if (type == kTpidVlan && frame_len >= kTaggedLldpduOffset && read_be16(frame + 16) == kEtherTypeLldp) {
        return kTaggedLldpduOffset;
    }
    return 0;
}

}  // namespace

extern "C" int lldp_cb_pe_tlv_present(unsigned char* rx_buf, int rx_buf_len) {
    if (rx_buf == nullptr) {
        return 0;
    }
    const int start = lldpdu_offset(rx_buf, rx_buf_len);
    if (start == 0) {
        return 0;
    }
    // Bytes left from `at` to the end of the frame; 32-bit signed like the
    // frame length, and a TLV length is at most 511, so it cannot overflow.
    int remaining = rx_buf_len - start;
    size_t at = static_cast<size_t>(start);
    while (remaining > 0) {
        if (remaining < static_cast<int>(kTlvHeaderSize)) {
            return 0;
        }
        const unsigned int header = read_be16(rx_buf + at);
        const unsigned int type = header >> 9;
        const unsigned int length = header & 0x1FF;
        remaining -= kTlvHeaderSize;
        at += kTlvHeaderSize;
        if (type == kTlvTypeEnd) {
            return 0;
        }
        if (type == kTlvTypeOrgSpecific &&
            lldp_parse_org_tlv(rx_buf + at, static_cast<unsigned int>(remaining), length) != 0) {
            return 1;
        }
        remaining -= static_cast<int>(length);
        at += length;
    }
    return 0;
}
