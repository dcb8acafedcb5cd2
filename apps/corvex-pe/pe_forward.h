// The data path of the port extender, free of any I/O: a received frame
// goes into a packet of the library's pools, LLDP frames are checked for
// the port-extender TLV, frames from the upstream port lose their E-tag and
// go to the extended port (or, for a multicast E-CID, to every member port
// but the one they entered by) named by it, frames from an extended port
// gain an E-tag naming that port and go upstream. Every frame, delivered or
// not, is counted.
#pragma once

#include <cstdint>
#include <cstdio>

#include "packet_var.h"
#include "pe_config.h"

// Why a frame was dropped.
enum pe_drop_reason : unsigned {
    PE_DROP_TRUNCATED,        // the capture holds less than the frame
    PE_DROP_SHORT,            // too short for its headers
    PE_DROP_OVERSIZE,         // longer than any frame the ports carry
    PE_DROP_MALFORMED,        // an E-tag with reserved bits set
    PE_DROP_UNTAGGED,         // from the upstream port without an E-tag
    PE_DROP_TAGGED_EXTENDED,  // an E-tag received on an extended port
    PE_DROP_UNKNOWN_ECID,     // names no extended port and no group
    PE_DROP_NO_PACKET,        // the pools gave no packet or clone
    PE_DROP_REASONS
};

// Longest frame taken in, tags included.
constexpr unsigned PE_FRAME_MAX = 9216;

struct pe_port_counters_t {
    uint64_t rx_frames, rx_bytes, tx_frames, tx_bytes;
    uint64_t lldp, lldp_pe;  // LLDP frames received, those with the PE TLV
    uint64_t dropped;        // received frames dropped
    uint64_t pruned;         // multicast copies not sent back to this port
    uint64_t rx_lost, tx_lost;
};

// Sends the frame of packet out of port; the packet stays the caller's.
// True when the port took the frame.
using pe_emit_fn = bool (*)(void* context, unsigned port, const packet_t* packet);

struct pe_forwarder_t {
    const pe_config_t* config;
    pe_emit_fn emit;
    void* context;
    pe_port_counters_t ports[PE_PORTS_MAX];
    uint64_t drops[PE_DROP_REASONS];
};

void pe_forwarder_init(pe_forwarder_t* forwarder, const pe_config_t* config, pe_emit_fn emit, void* context);

// Forwards one frame received on port in_port: captured holds the bytes
// the capture kept, length the frame's length on the wire.
void pe_forward_frame(pe_forwarder_t* forwarder, unsigned in_port, const uint8_t* frame, unsigned captured,
                      unsigned length);

// The per-port and per-reason counter table.
void pe_counters_print(const pe_forwarder_t* forwarder, FILE* out);
