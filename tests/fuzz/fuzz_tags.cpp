// Any frame in any headroom, edited by any sequence of tag insertions and
// removals. The frame sits in a buffer of exactly headroom + frame + the
// pools' 32 bytes of tail room, so a byte read or written outside it is
// caught; after every operation the whole buffer, frame_start and length
// must be what the operation promises: the addresses (and an E-tag the
// VLAN tag goes behind) moved by the tag's size, the tag written behind
// them, and not one other byte changed.
//
// Input: headroom, number of operations n (at most 16), n records of an
// operation byte and 8 parameter bytes, then the frame.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ethernet.h"

namespace {

constexpr size_t kTailRoom = 32;
constexpr size_t kAddresses = 12;
constexpr size_t kRecord = 9;

u_int16_t be16(const u_int8_t* at) { return static_cast<u_int16_t>(at[0] << 8 | at[1]); }
void put_be16(u_int8_t* at, u_int16_t value) {
    at[0] = static_cast<u_int8_t>(value >> 8);
    at[1] = static_cast<u_int8_t>(value);
}

void require(bool holds) {
    if (!holds) abort();
}

// The E-tag's wire image: a TPID that reads alike in both byte orders marks
// a record already in network order, taken as it is.
void etag_image(const ether_802_etag_t& etag, u_int8_t* out) {
    if (etag.etag_tpid >> 8 == (etag.etag_tpid & 0xFF)) {
        memcpy(out, &etag, ETHER_802_ETAG_BYTES);
        return;
    }
    put_be16(out, etag.etag_tpid);
    put_be16(out + 2, etag.etag_pd_ig_ecid_base);
    put_be16(out + 4, etag.etag_grp_ecid_base);
    out[6] = etag.etag_igr_ecid_ext;
    out[7] = etag.etag_ecid_ext;
}

// One operation on the packet, checked against the buffer it must leave.
void apply(packet_t& pkt, std::vector<u_int8_t>& buffer, const u_int8_t* record) {
    const std::vector<u_int8_t> before = buffer;
    std::vector<u_int8_t> expected = before;
    const size_t at = static_cast<size_t>(pkt.frame_start - pkt.buffer_start);
    const size_t length = pkt.length;
    const u_int8_t* p = record + 1;
    const ether_802_etag_t etag = {be16(p), be16(p + 2), be16(p + 4), p[6], p[7]};
    const u_int16_t tpid = be16(p + 4), tci = be16(p + 6);
    long moved = 0;  // bytes the frame start moves by: < 0 back, > 0 forward
    int result = 0, expected_result = 0;
    switch (record[0] % 5) {
        case 0:
        case 1:
        case 2: {
            const bool with_etag = record[0] % 5 != 1, with_vlan = record[0] % 5 != 0;
            const size_t gap = (with_etag ? ETHER_802_ETAG_BYTES : 0) + (with_vlan ? ETHER_VLAN_TAG_BYTES : 0);
            // A lone VLAN tag goes behind an E-tag the frame carries.
            const size_t kept = !with_etag && be16(&before[at + kAddresses]) == ETHER_802_ETAG_TPID
                                    ? kAddresses + ETHER_802_ETAG_BYTES : kAddresses;
            ether_802_etag_t given = etag;
            result = with_etag && with_vlan ? packet_etag_vlan_tag_insert(&pkt, &given, tpid, tci)
                     : with_etag            ? packet_etag_insert(&pkt, &given)
                                            : packet_vlan_tag_insert(&pkt, tpid, tci);
            if (at < gap) {
                expected_result = -1;
                break;
            }
            moved = -static_cast<long>(gap);
            memcpy(&expected[at - gap], &before[at], kept);
            u_int8_t* tags = &expected[at - gap + kept];
            if (with_etag) etag_image(etag, tags);
            if (with_vlan) {
                put_be16(tags + gap - ETHER_VLAN_TAG_BYTES, tpid);
                put_be16(tags + gap - 2, tci);
            }
            break;
        }
        case 3: {
            ether_802_etag_t got{};
            got.etag_tpid = 1;
            packet_etag_remove(&pkt, &got);
            if (length < kAddresses + ETHER_802_ETAG_BYTES || be16(&before[at + kAddresses]) != ETHER_802_ETAG_TPID) {
                require(got.etag_tpid == 0);
                break;
            }
            const u_int8_t* tag = &before[at + kAddresses];
            require(got.etag_tpid == ETHER_802_ETAG_TPID && got.etag_pd_ig_ecid_base == be16(tag + 2) &&
                    got.etag_grp_ecid_base == be16(tag + 4) && got.etag_igr_ecid_ext == tag[6] &&
                    got.etag_ecid_ext == tag[7]);
            moved = ETHER_802_ETAG_BYTES;
            break;
        }
        default: {
            u_int16_t got_tpid = 1, got_tci = 0;
            packet_vlan_tag_remove(&pkt, &got_tpid, &got_tci);
            if (length < kAddresses + ETHER_VLAN_TAG_BYTES) {
                require(got_tpid == 0);
                break;
            }
            require(got_tpid == be16(&before[at + kAddresses]) && got_tci == be16(&before[at + kAddresses + 2]));
            moved = ETHER_VLAN_TAG_BYTES;
            break;
        }
    }
    if (moved > 0) memmove(&expected[at + static_cast<size_t>(moved)], &before[at], kAddresses);
    require(result == expected_result && buffer == expected);
    require(pkt.frame_start == pkt.buffer_start + static_cast<long>(at) + moved &&
            pkt.length == static_cast<packet_length_t>(static_cast<long>(length) - moved));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t headroom = data[0];
    const size_t operations = data[1] % 17;
    if (size < 2 + operations * kRecord) return 0;
    const uint8_t* records = data + 2;
    const uint8_t* frame = records + operations * kRecord;
    const size_t frame_bytes = size - 2 - operations * kRecord;
    const size_t length = frame_bytes < 4096 ? frame_bytes : 4096;

    std::vector<u_int8_t> buffer(headroom + length + kTailRoom, 0x5A);
    memcpy(buffer.data() + headroom, frame, length);
    packet_t pkt{};
    pkt.buffer_start = buffer.data();
    pkt.frame_start = buffer.data() + headroom;
    pkt.length = static_cast<packet_length_t>(length);
    for (size_t i = 0; i < operations; ++i) apply(pkt, buffer, records + i * kRecord);
    return 0;
}
