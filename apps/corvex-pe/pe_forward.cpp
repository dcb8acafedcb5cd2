// The forwarding loop's work on one frame.
#include "pe_forward.h"

#include <cstring>

#include "ethernet.h"

namespace {

constexpr unsigned kEtherHeader = 14;
constexpr uint16_t kTypeVlan = 0x8100;
constexpr uint16_t kTypeLldp = 0x88CC;

uint16_t be16(const uint8_t* bytes) { return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }

bool lldp_is(const uint8_t* frame, unsigned length) {
    const uint16_t type = be16(frame + 12);
    return type == kTypeLldp || (type == kTypeVlan && length >= 18 && be16(frame + 16) == kTypeLldp);
}

void drop(pe_forwarder_t* forwarder, unsigned in_port, pe_drop_reason reason) {
    ++forwarder->drops[reason];
    ++forwarder->ports[in_port].dropped;
}

void send(pe_forwarder_t* forwarder, unsigned port, const packet_t* packet) {
    forwarder->emit(forwarder->context, port, packet);
    ++forwarder->ports[port].tx_frames;
    forwarder->ports[port].tx_bytes += packet->length;
}

// A copy for every member but the port the frame entered by: clones share
// the buffer, so the payload is never copied.
void replicate(pe_forwarder_t* forwarder, unsigned in_port, packet_t* packet, const pe_group_t* group,
               pe_ecid_t ingress_ecid) {
    const pe_config_t* config = forwarder->config;
    for (uint64_t members = group->members; members != 0; members &= members - 1) {
        const unsigned port = static_cast<unsigned>(__builtin_ctzll(members));
        if (config->ports[port].ecid == ingress_ecid) {
            ++forwarder->ports[port].pruned;
            continue;
        }
        packet_t* clone = packet_clone(packet);
        if (clone == nullptr) {
            drop(forwarder, in_port, PE_DROP_NO_PACKET);
            continue;
        }
        send(forwarder, port, clone);
        packet_return(clone);
    }
}

void from_upstream(pe_forwarder_t* forwarder, unsigned in_port, packet_t* packet) {
    const uint8_t* frame = packet->frame_start;
    if (be16(frame + 12) != ETHER_802_ETAG_TPID) return drop(forwarder, in_port, PE_DROP_UNTAGGED);
    if (packet->length < kEtherHeader + ETHER_802_ETAG_BYTES) return drop(forwarder, in_port, PE_DROP_SHORT);
    ether_802_etag_t etag;
    packet_etag_remove(packet, &etag);
    if ((etag.etag_grp_ecid_base & ETHER_802_ETAG_RESERVED) != 0) return drop(forwarder, in_port, PE_DROP_MALFORMED);
    const pe_ecid_t ecid = ether_802_etag_ecid(&etag);
    if (ether_802_ecid_is_multicast(ecid)) {
        const pe_group_t* group = pe_config_group_by_ecid(forwarder->config, ecid);
        if (group == nullptr) return drop(forwarder, in_port, PE_DROP_UNKNOWN_ECID);
        return replicate(forwarder, in_port, packet, group, ether_802_etag_ingress_ecid(&etag));
    }
    const int port = pe_config_port_by_ecid(forwarder->config, ecid);
    if (port < 0) return drop(forwarder, in_port, PE_DROP_UNKNOWN_ECID);
    send(forwarder, static_cast<unsigned>(port), packet);
}

void from_extended(pe_forwarder_t* forwarder, unsigned in_port, packet_t* packet) {
    const pe_port_t& port = forwarder->config->ports[in_port];
    const uint16_t type = be16(packet->frame_start + 12);
    if (type == ETHER_802_ETAG_TPID) return drop(forwarder, in_port, PE_DROP_TAGGED_EXTENDED);
    ether_802_etag_t etag{};  // Ingress_E-CID 0: the frame enters the bridge here
    etag.etag_tpid = ETHER_802_ETAG_TPID;
    ether_802_etag_ecid_set(&etag, port.ecid);
    int inserted = 0;
    if (port.vlan == PE_VLAN_ADD && type != kTypeVlan) {
        inserted = packet_etag_vlan_tag_insert(packet, &etag, kTypeVlan, port.vlan_tci);
    } else {
        if (port.vlan == PE_VLAN_STRIP && type == kTypeVlan) {
            if (packet->length < kEtherHeader + ETHER_VLAN_TAG_BYTES) return drop(forwarder, in_port, PE_DROP_SHORT);
            packet_vlan_tag_remove(packet, nullptr, nullptr);
        }
        inserted = packet_etag_insert(packet, &etag);
    }
    // A fresh packet has headroom for both tags; no packet of ours lacks it.
    if (inserted != 0) return drop(forwarder, in_port, PE_DROP_NO_PACKET);
    send(forwarder, 0, packet);
}

}  // namespace

void pe_forwarder_init(pe_forwarder_t* forwarder, const pe_config_t* config, pe_emit_fn emit, void* context) {
    *forwarder = pe_forwarder_t{};
    forwarder->config = config;
    forwarder->emit = emit;
    forwarder->context = context;
}

void pe_forward_frame(pe_forwarder_t* forwarder, unsigned in_port, const uint8_t* frame, unsigned captured,
                      unsigned length) {
    pe_port_counters_t& counters = forwarder->ports[in_port];
    ++counters.rx_frames;
    counters.rx_bytes += length;
    if (captured < length) return drop(forwarder, in_port, PE_DROP_TRUNCATED);
    if (length < kEtherHeader) return drop(forwarder, in_port, PE_DROP_SHORT);
    if (length > PE_FRAME_MAX) return drop(forwarder, in_port, PE_DROP_OVERSIZE);
    packet_t* packet = packet_get(static_cast<packet_length_t>(length));
    if (packet == nullptr) return drop(forwarder, in_port, PE_DROP_NO_PACKET);
    memcpy(packet->frame_start, frame, length);
    packet->length = static_cast<packet_length_t>(length);
    if (lldp_is(packet->frame_start, length)) {
        // LLDP ends here: it describes the link, the control plane reads it.
        ++counters.lldp;
        if (lldp_cb_pe_tlv_present(packet->frame_start, static_cast<int>(length)) != 0) ++counters.lldp_pe;
    } else if (in_port == 0) {
        from_upstream(forwarder, in_port, packet);
    } else {
        from_extended(forwarder, in_port, packet);
    }
    packet_return(packet);
}

void pe_counters_print(const pe_forwarder_t* forwarder, FILE* out) {
    static const char* const kReasons[PE_DROP_REASONS] = {
        "truncated capture", "short frame", "oversize frame", "malformed E-tag", "no E-tag from upstream",
        "E-tag on extended port", "unknown E-CID", "no packet"};
    const pe_config_t* config = forwarder->config;
    fprintf(out, "%-15s %8s %10s %12s %10s %12s %6s %8s %8s %7s\n", "Port", "E-CID", "Rx frames", "Rx bytes",
            "Tx frames", "Tx bytes", "LLDP", "LLDP-PE", "Dropped", "Pruned");
    for (unsigned i = 0; i < config->nports; ++i) {
        const pe_port_counters_t& c = forwarder->ports[i];
        char ecid[12] = "upstream";
        if (i > 0) snprintf(ecid, sizeof ecid, "0x%03x", static_cast<unsigned>(config->ports[i].ecid));
        fprintf(out, "%-15s %8s %10llu %12llu %10llu %12llu %6llu %8llu %8llu %7llu\n", config->ports[i].name, ecid,
                static_cast<unsigned long long>(c.rx_frames), static_cast<unsigned long long>(c.rx_bytes),
                static_cast<unsigned long long>(c.tx_frames), static_cast<unsigned long long>(c.tx_bytes),
                static_cast<unsigned long long>(c.lldp), static_cast<unsigned long long>(c.lldp_pe),
                static_cast<unsigned long long>(c.dropped), static_cast<unsigned long long>(c.pruned));
    }
    fprintf(out, "\nDropped by reason:\n");
    for (unsigned r = 0; r < PE_DROP_REASONS; ++r)
        fprintf(out, "  %-24s %10llu\n", kReasons[r], static_cast<unsigned long long>(forwarder->drops[r]));
}
