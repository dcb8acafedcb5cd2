// A live port of corvex-pe: one AF_PACKET socket bound to the interface,
// taking every frame the interface receives (promiscuous, its own sends
// left out) through a TPACKET_V3 receive ring, a block of frames at a
// time, and sending frames in sendmmsg batches, each frame's result known.
//
// Receive ring: kLiveBlocks blocks of kLiveBlockBytes (4 MiB); a block is
// handed over when full or kLiveRetireMs after its first frame. Send batch: up to
// kLiveBatch frames or kLiveBatchBytes, sent when full or when flushed.
//
// Frames the interface received that never reach the program are counted
// as lost: the ring's drops (PACKET_STATISTICS) and the interface's own
// receive drops (rx_dropped and rx_missed_errors of its statistics) since
// the port was opened. Sends the kernel refuses are counted as refused.
#pragma once

#include <cstdint>
#include <cstdio>

constexpr unsigned kLiveBlockBytes = 256 * 1024;
constexpr unsigned kLiveBlocks = 16;
constexpr unsigned kLiveBatch = 64;
constexpr unsigned kLiveBatchBytes = 128 * 1024;
constexpr unsigned kLiveRetireMs = 2;

struct pe_live_port_t;

// Opens interface. Returns null after one line on err naming it and the
// system's reason.
pe_live_port_t* pe_live_open(const char* interface, FILE* err);
void pe_live_close(pe_live_port_t* port);
// The socket, for poll(): readable when a block is ready.
int pe_live_fd(const pe_live_port_t* port);
// The interface's index, to tell two names of one interface apart.
int pe_live_ifindex(const pe_live_port_t* port);

// Calls deliver for every frame of the next ready block, with the bytes
// the ring holds and the frame's wire length (a VLAN tag the kernel took
// out is put back in place), then gives the block back. Returns the number
// of frames, 0 when no block is ready.
using pe_live_deliver_fn = void (*)(void* context, const uint8_t* frame, unsigned captured, unsigned length);
unsigned pe_live_receive(pe_live_port_t* port, pe_live_deliver_fn deliver, void* context);

// Adds a copy of frame to the send batch, sending the batch first when it
// is full. False (nothing queued) when the frame is longer than a batch.
bool pe_live_queue(pe_live_port_t* port, const uint8_t* frame, unsigned length);
// Sends the batch.
void pe_live_flush(pe_live_port_t* port);

// The frames (and their bytes) of the batches sent since the last call
// that the kernel refused.
void pe_live_refused_take(pe_live_port_t* port, uint64_t* frames, uint64_t* bytes);
// The change of the frames lost since the last call (see above). The
// interface counts a VLAN-tagged frame that no protocol of the host takes
// among its drops although the port received it; received frames are set
// against those drops, so a frame counted by the interface but not yet
// read from the ring is lost for a moment (the change is then negative).
int64_t pe_live_lost_take(pe_live_port_t* port);

// Takes no more frames from the interface; the block being filled is
// handed over within the ring's retire time (kLiveRetireMs).
void pe_live_input_stop(pe_live_port_t* port);

// Reports a pending socket error (the interface went down or away) as one
// line on err; true if there was one.
bool pe_live_error_report(pe_live_port_t* port, FILE* err);
