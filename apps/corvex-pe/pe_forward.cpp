// The forwarding loop's work on one frame.
#include "pe_forward.h"

#include <algorithm>
#include <cstring>

#include "ethernet.h"

namespace {

constexpr unsigned kAddresses = 12;
constexpr uint16_t kTypeVlan = 0x8100;
constexpr uint16_t kTypeLldp = 0x88CC;
// The longest frame that can still leave: one losing an E-tag and, at an
// access port, its VLAN tag.
constexpr unsigned kReceivedMax = PE_FRAME_MAX + ETHER_802_ETAG_BYTES + ETHER_VLAN_TAG_BYTES;

uint16_t be16(const uint8_t* bytes) { return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }

// Addresses, an E-tag and a VLAN tag where the bytes before say one
// follows, and the EtherType: the bytes a frame needs to be what it says.
unsigned headers_length(const uint8_t* frame, unsigned length) {
    unsigned end = kAddresses;
    if (length >= end + 2 && be16(frame + end) == ETHER_802_ETAG_TPID) end += ETHER_802_ETAG_BYTES;
    if (length >= end + 2 && be16(frame + end) == kTypeVlan) end += ETHER_VLAN_TAG_BYTES;
    return end + 2;
}

// Untagged or VLAN-tagged LLDP; the headers are known to be there.
bool lldp_is(const uint8_t* frame) {
    const uint16_t type = be16(frame + kAddresses);
    return type == kTypeLldp || (type == kTypeVlan && be16(frame + kAddresses + ETHER_VLAN_TAG_BYTES) == kTypeLldp);
}

constexpr const char* kReasons[PE_DROP_REASONS] = {
    "truncated capture",      "short frame",   "oversize frame", "no E-tag from upstream",
    "E-tag on extended port", "unknown E-CID", "no packet",      "no clone"};

void drop(pe_forwarder_t* forwarder, unsigned in_port, pe_drop_reason reason) {
    ++forwarder->drops[reason];
    pe_port_counters_t& counters = forwarder->ports[in_port];
    ++counters.dropped;
    if (forwarder->drop_watch != nullptr) {
        forwarder->drop_watch(forwarder->drop_context, in_port, reason, counters.rx_frames, forwarder->frame,
                              forwarder->captured, forwarder->length);
    }
}

// Pads the frame to PE_FRAME_MIN inside its buffer (every packet is taken
// with room for that) and hands it to emit; counted as sent only when the
// port took it.
void send(pe_forwarder_t* forwarder, unsigned port, packet_t* packet) {
    if (packet->length < PE_FRAME_MIN) {
        memset(packet->frame_start + packet->length, 0, PE_FRAME_MIN - packet->length);
        packet->length = PE_FRAME_MIN;
    }
    pe_port_counters_t& counters = forwarder->ports[port];
    if (!forwarder->emit(forwarder->context, port, packet)) {
        ++counters.tx_lost;
        return;
    }
    ++counters.tx_frames;
    counters.tx_bytes += packet->length;
}

// An access port sends the frames of its own VLAN untagged, as a bridge's
// access port does; other frames leave as they are.
bool egress_untags(const pe_port_t& port, const packet_t* packet) {
    const uint8_t* frame = packet->frame_start;
    return port.vlan == PE_VLAN_ADD && be16(frame + kAddresses) == kTypeVlan &&
           (be16(frame + kAddresses + 2) & ETHER_VLAN_VID) == (port.vlan_tci & ETHER_VLAN_VID);
}

// A copy for every member but the port the frame entered by: clones share
// the buffer, so the payload is never copied. The members that send the
// frame as it is go first; then its VLAN tag comes off once, in the shared
// buffer, for the access ports of its VLAN. The copies sent before are done
// with by then (emit keeps nothing), so none of them sees the change. A
// frame some member could not get is counted dropped once.
void replicate(pe_forwarder_t* forwarder, unsigned in_port, packet_t* packet, const pe_group_t* group,
               pe_ecid_t ingress_ecid) {
    const pe_config_t* config = forwarder->config;
    uint64_t as_is = 0, untagged = 0;
    for (uint64_t members = group->members; members != 0; members &= members - 1) {
        const unsigned port = static_cast<unsigned>(__builtin_ctzll(members));
        if (config->ports[port].ecid == ingress_ecid) ++forwarder->ports[port].pruned;
        else if (egress_untags(config->ports[port], packet)) untagged |= uint64_t{1} << port;
        else as_is |= uint64_t{1} << port;
    }
    pe_drop_reason failed = PE_DROP_REASONS;  // none yet
    auto fail = [&](pe_drop_reason reason) {
        if (failed == PE_DROP_REASONS) failed = reason;
    };
    auto copies_send = [&](uint64_t ports) {
        if (ports != 0 && packet->length > PE_FRAME_MAX) {
            fail(PE_DROP_OVERSIZE);
            return;
        }
        for (; ports != 0; ports &= ports - 1) {
            packet_t* clone = packet_clone(packet);
            if (clone == nullptr) {
                fail(PE_DROP_NO_CLONE);
                continue;
            }
            send(forwarder, static_cast<unsigned>(__builtin_ctzll(ports)), clone);
            packet_return(clone);
        }
    };
    copies_send(as_is);
    if (untagged != 0) {
        packet_vlan_tag_remove(packet, nullptr, nullptr);
        copies_send(untagged);
    }
    if (failed != PE_DROP_REASONS) drop(forwarder, in_port, failed);
}

void from_upstream(pe_forwarder_t* forwarder, unsigned in_port, packet_t* packet) {
    if (be16(packet->frame_start + kAddresses) != ETHER_802_ETAG_TPID)
        return drop(forwarder, in_port, PE_DROP_UNTAGGED);
    ether_802_etag_t etag;
    packet_etag_remove(packet, &etag);
    // The reserved bits are not looked at, as IEEE reserved fields are not.
    const pe_ecid_t ecid = ether_802_etag_ecid(&etag);
    if (ether_802_ecid_is_multicast(ecid)) {
        const pe_group_t* group = pe_config_group_by_ecid(forwarder->config, ecid);
        if (group == nullptr) return drop(forwarder, in_port, PE_DROP_UNKNOWN_ECID);
        return replicate(forwarder, in_port, packet, group, ether_802_etag_ingress_ecid(&etag));
    }
    const int port = pe_config_port_by_ecid(forwarder->config, ecid);
    if (port < 0) return drop(forwarder, in_port, PE_DROP_UNKNOWN_ECID);
    if (egress_untags(forwarder->config->ports[port], packet)) packet_vlan_tag_remove(packet, nullptr, nullptr);
    if (packet->length > PE_FRAME_MAX) return drop(forwarder, in_port, PE_DROP_OVERSIZE);
    send(forwarder, static_cast<unsigned>(port), packet);
}

void from_extended(pe_forwarder_t* forwarder, unsigned in_port, packet_t* packet) {
    const pe_port_t& port = forwarder->config->ports[in_port];
    const uint8_t* frame = packet->frame_start;
    const uint16_t type = be16(frame + kAddresses);
    if (type == ETHER_802_ETAG_TPID) return drop(forwarder, in_port, PE_DROP_TAGGED_EXTENDED);
    ether_802_etag_t etag{};  // Ingress_E-CID 0: the frame enters the bridge here
    etag.etag_tpid = ETHER_802_ETAG_TPID;
    ether_802_etag_ecid_set(&etag, port.ecid);
    // The frame's priority and drop eligibility, as a bridge port takes
    // them: from its 802.1Q tag (read before a strip takes it away, or the
    // one an access port gives it), else the port's default priority.
    const uint16_t tci = type == kTypeVlan              ? be16(frame + kAddresses + 2)
                         : port.vlan == PE_VLAN_ADD ? port.vlan_tci
                                                    : static_cast<uint16_t>(port.priority << ETHER_VLAN_PCP_SHIFT);
    ether_802_etag_priority_set(&etag, tci >> ETHER_VLAN_PCP_SHIFT, (tci & ETHER_VLAN_DEI) != 0);
    int inserted = 0;
    if (port.vlan == PE_VLAN_ADD && type != kTypeVlan) {
        inserted = packet_etag_vlan_tag_insert(packet, &etag, kTypeVlan, port.vlan_tci);
    } else {
        if (port.vlan == PE_VLAN_STRIP && type == kTypeVlan) packet_vlan_tag_remove(packet, nullptr, nullptr);
        inserted = packet_etag_insert(packet, &etag);
    }
    // A fresh packet has headroom for both tags; no packet of ours lacks it.
    if (inserted != 0) return drop(forwarder, in_port, PE_DROP_NO_PACKET);
    if (packet->length > PE_FRAME_MAX) return drop(forwarder, in_port, PE_DROP_OVERSIZE);
    send(forwarder, 0, packet);
}

}  // namespace

void pe_forwarder_init(pe_forwarder_t* forwarder, const pe_config_t* config, pe_emit_fn emit, void* context) {
    *forwarder = pe_forwarder_t{};
    forwarder->config = config;
    forwarder->emit = emit;
    forwarder->context = context;
}

void pe_forwarder_drops_watch(pe_forwarder_t* forwarder, pe_drop_fn watch, void* context) {
    forwarder->drop_watch = watch;
    forwarder->drop_context = context;
}

const char* pe_drop_reason_name(pe_drop_reason reason) { return kReasons[reason]; }

void pe_forward_frame(pe_forwarder_t* forwarder, unsigned in_port, const uint8_t* frame, unsigned captured,
                      unsigned length) {
    forwarder->frame = frame;
    forwarder->captured = captured;
    forwarder->length = length;
    pe_port_counters_t& counters = forwarder->ports[in_port];
    ++counters.rx_frames;
    counters.rx_bytes += length;
    if (captured < length) return drop(forwarder, in_port, PE_DROP_TRUNCATED);
    if (length < headers_length(frame, length)) return drop(forwarder, in_port, PE_DROP_SHORT);
    if (length > kReceivedMax) return drop(forwarder, in_port, PE_DROP_OVERSIZE);
    // Room for PE_FRAME_MIN bytes however the tags move the frame's start:
    // send pads there.
    packet_t* packet = packet_get(static_cast<packet_length_t>(std::max(length, PE_FRAME_MIN)));
    if (packet == nullptr) return drop(forwarder, in_port, PE_DROP_NO_PACKET);
    memcpy(packet->frame_start, frame, length);
    packet->length = static_cast<packet_length_t>(length);
    const bool lldp = lldp_is(packet->frame_start);
    if (lldp) {
        ++counters.lldp;
        if (lldp_cb_pe_tlv_present(packet->frame_start, static_cast<int>(length)) != 0) ++counters.lldp_pe;
    }
    // LLDP on the upstream port describes this port extender's own link and
    // ends here; on an extended port it is the controlling bridge's, whose
    // ports those are, and goes upstream like any frame.
    if (in_port != 0) from_extended(forwarder, in_port, packet);
    else if (!lldp) from_upstream(forwarder, in_port, packet);
    packet_return(packet);
}

void pe_counters_print(const pe_forwarder_t* forwarder, FILE* out) {
    const pe_config_t* config = forwarder->config;
    fprintf(out, "%-32s %8s %10s %12s %10s %12s %8s %8s %6s %8s %8s %7s\n", "Port", "E-CID", "Rx frames", "Rx bytes",
            "Tx frames", "Tx bytes", "Rx lost", "Tx lost", "LLDP", "LLDP-PE", "Dropped", "Pruned");
    for (unsigned i = 0; i < config->nports; ++i) {
        const pe_port_counters_t& c = forwarder->ports[i];
        char ecid[12] = "upstream";
        if (i > 0) snprintf(ecid, sizeof ecid, "0x%03x", static_cast<unsigned>(config->ports[i].ecid));
        fprintf(out, "%-32s %8s %10llu %12llu %10llu %12llu %8llu %8llu %6llu %8llu %8llu %7llu\n",
                config->ports[i].name, ecid, static_cast<unsigned long long>(c.rx_frames),
                static_cast<unsigned long long>(c.rx_bytes), static_cast<unsigned long long>(c.tx_frames),
                static_cast<unsigned long long>(c.tx_bytes), static_cast<unsigned long long>(c.rx_lost),
                static_cast<unsigned long long>(c.tx_lost), static_cast<unsigned long long>(c.lldp),
                static_cast<unsigned long long>(c.lldp_pe), static_cast<unsigned long long>(c.dropped),
                static_cast<unsigned long long>(c.pruned));
    }
    fprintf(out, "\nDropped by reason:\n");
    for (unsigned r = 0; r < PE_DROP_REASONS; ++r)
        fprintf(out, "  %-24s %10llu\n", kReasons[r], static_cast<unsigned long long>(forwarder->drops[r]));
}
