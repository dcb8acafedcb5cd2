// In-place E-tag and VLAN tag editing. The payload never moves: a tag is
// inserted by moving the address bytes back into the headroom in front of
// the frame, and removed by moving them forward over the tag.
#include <arpa/inet.h>

#include <cstring>

#include "ethernet.h"

namespace {

constexpr u_int32_t kAddressBytes = 12; // destination and source MAC
constexpr u_int32_t kTagOffset = kAddressBytes;

u_int16_t read_be16(const packet_data_t* at) { return static_cast<u_int16_t>(at[0] << 8 | at[1]); }

void write_be16(packet_data_t* at, u_int16_t value) {
    at[0] = static_cast<packet_data_t>(value >> 8);
    at[1] = static_cast<packet_data_t>(value);
}

bool has_headroom(const packet_t* pkt, u_int32_t bytes) {
    return pkt != nullptr && pkt->buffer_start != nullptr && pkt->frame_start != nullptr &&
           pkt->frame_start >= pkt->buffer_start &&
           static_cast<u_int32_t>(pkt->frame_start - pkt->buffer_start) >= bytes;
}

bool frame_holds(const packet_t* pkt, u_int32_t bytes) {
    return pkt != nullptr && pkt->frame_start != nullptr && pkt->length >= bytes;
}

// Moves the first `kept` frame bytes `gap` bytes back and grows the frame
// by the gap, which then starts at offset `kept`.
packet_data_t* open_gap(packet_t* pkt, u_int32_t kept, u_int32_t gap) {
    std::memmove(pkt->frame_start - gap, pkt->frame_start, kept);
    pkt->frame_start -= gap;
    pkt->length = static_cast<packet_length_t>(pkt->length + gap);
    return pkt->frame_start + kept;
}

// Moves the address bytes forward over the `gap` bytes after them.
void close_gap(packet_t* pkt, u_int32_t gap) {
    std::memmove(pkt->frame_start + gap, pkt->frame_start, kAddressBytes);
    pkt->frame_start += gap;
    pkt->length = static_cast<packet_length_t>(pkt->length - gap);
}

// The tag as it goes on the wire. A TPID that reads the same in both byte
// orders marks a record the caller has already put in network order.
void etag_wire_image(const ether_802_etag_t* etag, packet_data_t* out) {
    if (htons(etag->etag_tpid) == etag->etag_tpid) {
        std::memcpy(out, etag, ETHER_802_ETAG_BYTES);
        return;
    }
    write_be16(out, etag->etag_tpid);
    write_be16(out + 2, etag->etag_pd_ig_ecid_base);
    write_be16(out + 4, etag->etag_grp_ecid_base);
    out[6] = etag->etag_igr_ecid_ext;
    out[7] = etag->etag_ecid_ext;
}

void vlan_wire_image(u_int16_t tpid, u_int16_t tci, packet_data_t* out) {
    write_be16(out, tpid);
    write_be16(out + 2, tci);
}

}  // namespace

extern "C" {

void packet_etag_remove(packet_t* pkt, ether_802_etag_t* etag_ret) {
    if (!frame_holds(pkt, kTagOffset + ETHER_802_ETAG_BYTES) ||
        read_be16(pkt->frame_start + kTagOffset) != ETHER_802_ETAG_TPID) {
        if (etag_ret != nullptr) etag_ret->etag_tpid = 0;
        return;
    }
    if (etag_ret != nullptr) {
        std::memcpy(etag_ret, pkt->frame_start + kTagOffset, ETHER_802_ETAG_BYTES);
        etag_ret->etag_tpid = ETHER_802_ETAG_TPID;
        etag_ret->etag_pd_ig_ecid_base = ntohs(etag_ret->etag_pd_ig_ecid_base);
        etag_ret->etag_grp_ecid_base = ntohs(etag_ret->etag_grp_ecid_base);
    }
    close_gap(pkt, ETHER_802_ETAG_BYTES);
}

void packet_vlan_tag_remove(packet_t* pkt, u_int16_t* vtag_tpid, u_int16_t* vtag_tci) {
    if (!frame_holds(pkt, kTagOffset + ETHER_VLAN_TAG_BYTES)) {
        if (vtag_tpid != nullptr) *vtag_tpid = 0;
        return;
    }
    // The caller has checked for a VLAN TPID: these 4 bytes are the tag.
    if (vtag_tpid != nullptr) *vtag_tpid = read_be16(pkt->frame_start + kTagOffset);
    if (vtag_tci != nullptr) *vtag_tci = read_be16(pkt->frame_start + kTagOffset + 2);
    close_gap(pkt, ETHER_VLAN_TAG_BYTES);
}

int packet_etag_insert(packet_t* pkt, ether_802_etag_t* etag) {
    if (etag == nullptr || !has_headroom(pkt, ETHER_802_ETAG_BYTES)) return -1;
    packet_data_t image[ETHER_802_ETAG_BYTES];
    etag_wire_image(etag, image);
    std::memcpy(open_gap(pkt, kAddressBytes, ETHER_802_ETAG_BYTES), image, sizeof image);
    return 0;
}

int packet_vlan_tag_insert(packet_t* pkt, u_int16_t vtag_tpid, u_int16_t vtag_tci) {
    if (!has_headroom(pkt, ETHER_VLAN_TAG_BYTES)) return -1;
    // An E-tag stays right after the addresses; the VLAN tag follows it.
    const bool etagged = read_be16(pkt->frame_start + kTagOffset) == ETHER_802_ETAG_TPID;
    const u_int32_t kept = etagged ? kAddressBytes + ETHER_802_ETAG_BYTES : kAddressBytes;
    vlan_wire_image(vtag_tpid, vtag_tci, open_gap(pkt, kept, ETHER_VLAN_TAG_BYTES));
    return 0;
}

int packet_etag_vlan_tag_insert(packet_t* pkt, ether_802_etag_t* etag, u_int16_t vtag_tpid, u_int16_t vtag_tci) {
    if (etag == nullptr || !has_headroom(pkt, ETHER_802_ETAG_BYTES + ETHER_VLAN_TAG_BYTES)) return -1;
    packet_data_t image[ETHER_802_ETAG_BYTES];
    etag_wire_image(etag, image);
    packet_data_t* tags = open_gap(pkt, kAddressBytes, ETHER_802_ETAG_BYTES + ETHER_VLAN_TAG_BYTES);
    std::memcpy(tags, image, sizeof image);
    vlan_wire_image(vtag_tpid, vtag_tci, tags + ETHER_802_ETAG_BYTES);
    return 0;
}

}  // extern "C"
