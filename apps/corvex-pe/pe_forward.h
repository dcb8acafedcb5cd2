// The data path of the port extender, free of any I/O: a received frame
// goes into a packet of the library's pools, LLDP frames are checked for
// the port-extender TLV, frames from the upstream port lose their E-tag and
// go to the extended port (or, for a multicast E-CID, to every member port
// but the one they entered by) named by it, frames from an extended port
// gain an E-tag naming that port and carrying their priority and go
// upstream. LLDP on the upstream port is the port extender's own and ends
// there. Every frame, delivered or not, is counted.
#pragma once

#include <cstdint>
#include <cstdio>

#include "packet_var.h"
#include "pe_config.h"

// Why a frame was dropped; a dropped frame is counted under one reason.
enum pe_drop_reason : unsigned {
    PE_DROP_TRUNCATED,        // the capture holds less than the frame
    PE_DROP_SHORT,            // shorter than its own headers
    PE_DROP_OVERSIZE,         // longer than PE_FRAME_MAX as it would leave
    PE_DROP_UNTAGGED,         // from the upstream port without an E-tag
    PE_DROP_TAGGED_EXTENDED,  // an E-tag received on an extended port
    PE_DROP_UNKNOWN_ECID,     // names no extended port and no group
    PE_DROP_NO_PACKET,        // the pools gave no packet
    PE_DROP_NO_CLONE,         // a multicast copy for a member could not be made
    PE_DROP_REASONS
};

// Longest frame sent, tags included.
constexpr unsigned PE_FRAME_MAX = 9216;
// Shortest frame sent: shorter ones get zero bytes appended, as a bridge
// port pads them.
constexpr unsigned PE_FRAME_MIN = 60;

struct pe_port_counters_t {
    uint64_t rx_frames, rx_bytes, tx_frames, tx_bytes;
    // Frames the interface received that never reached the forwarder (the
    // I/O layer counts them), frames emit did not take.
    uint64_t rx_lost, tx_lost;
    uint64_t lldp, lldp_pe;  // LLDP frames received, those with the PE TLV
    uint64_t dropped;        // received frames dropped
    uint64_t pruned;         // multicast copies not sent back to this port
};

// Sends the frame of packet (packet->length bytes from frame_start, padded
// already) out of port; true when the port took it. The packet stays the
// caller's: emit keeps no reference to it or to its bytes.
using pe_emit_fn = bool (*)(void* context, unsigned port, const packet_t* packet);

// Told of every dropped frame once, as it was received: the port it came
// in by, why it was dropped, its number among the frames that port
// received (from 1), the bytes captured and its length on the wire.
using pe_drop_fn = void (*)(void* context, unsigned port, pe_drop_reason reason, uint64_t number,
                            const uint8_t* frame, unsigned captured, unsigned length);

struct pe_forwarder_t {
    const pe_config_t* config;
    pe_emit_fn emit;
    void* context;
    pe_port_counters_t ports[PE_PORTS_MAX];
    uint64_t drops[PE_DROP_REASONS];
    pe_drop_fn drop_watch;  // may be null
    void* drop_context;
    // The frame being forwarded, for drop_watch.
    const uint8_t* frame;
    unsigned captured, length;
};

void pe_forwarder_init(pe_forwarder_t* forwarder, const pe_config_t* config, pe_emit_fn emit, void* context);
// Tells watch (with context) of every frame dropped from now on.
void pe_forwarder_drops_watch(pe_forwarder_t* forwarder, pe_drop_fn watch, void* context);

// Forwards one frame received on port in_port: captured holds the bytes
// the capture kept, length the frame's length on the wire.
void pe_forward_frame(pe_forwarder_t* forwarder, unsigned in_port, const uint8_t* frame, unsigned captured,
                      unsigned length);

// A drop reason as the counter table names it ("short frame").
const char* pe_drop_reason_name(pe_drop_reason reason);

// The per-port and per-reason counter table.
void pe_counters_print(const pe_forwarder_t* forwarder, FILE* out);
// The same table as one JSON object, for scripts (pe_counters.cpp):
// {"ports": [{"name", "ecid" (null upstream), "rx_frames", "rx_bytes",
// "tx_frames", "tx_bytes", "rx_lost", "tx_lost", "lldp", "lldp_pe",
// "dropped", "pruned"}...], "dropped_by_reason": {REASON: frames...},
// "lost": {"rx", "tx"}}, ports in the table's order.
void pe_counters_write_json(const pe_forwarder_t* forwarder, FILE* out);
