// Frames in and out of corvex-pe through libpcap: capture files read in
// timestamp order across ports and written one per port, or live
// interfaces read and written through the same loop.
#pragma once

#include <csignal>
#include <cstdint>
#include <cstdio>

#include "pe_forward.h"

struct pe_io_t;

// Where each port's frames come from and go to: a capture file to read
// (input, may be null) and one to write (output, may be null), or a live
// interface (both).
struct pe_port_io_t {
    const char* input;
    const char* output;
    const char* interface;
};

// Opens every port's files or interfaces. Returns null after one line on
// err naming what could not be opened; later faults are told there too.
pe_io_t* pe_io_open(const pe_port_io_t* ports, unsigned nports, FILE* err);
void pe_io_close(pe_io_t* io);

// The emit function of the forwarder for these ports (context: the pe_io_t).
bool pe_io_emit(void* context, unsigned port, const packet_t* packet);

// Runs frames through forwarder until the files end, seconds pass in live
// mode (0: no limit), or *stop is set. Prints a progress line every second
// on stderr when progress is set. Returns 0, or 2 after one line on the
// error stream when an input file turns out truncated or damaged.
int pe_io_run(pe_io_t* io, pe_forwarder_t* forwarder, unsigned seconds, volatile sig_atomic_t* stop, bool progress);
