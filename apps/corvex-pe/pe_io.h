// Frames in and out of corvex-pe: capture files read in timestamp order
// across ports and written one per port (pe_capture), or live interfaces
// on packet-socket rings (pe_live), all polled from one loop.
//
// Live, the loop works in batches: a ring block from every port that has
// one ready, each frame forwarded as it is read, then every port's send
// batch flushed. Between batches no frame is in flight and every counter
// is settled, so that is where the loop looks at the clock, the stop flag
// and the progress line, and where it rests while the console's commands
// run (pe_control). With nothing to read it sleeps in ppoll.
#pragma once

#include <csignal>
#include <cstdint>
#include <cstdio>

#include "diag_output.h"
#include "pe_control.h"
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

// Opens every port's inputs first, then its interfaces, then its outputs
// (under temporary names), none over one of inputs or a folder. Returns
// null after one line on err naming what could not be opened; later
// faults are told there too.
pe_io_t* pe_io_open(const pe_port_io_t* ports, unsigned nports, const DiagInputs& inputs, FILE* err);
// Ends the I/O. With publish the outputs are written out and renamed into
// place: 0, or 2 after one line on err naming the output that could not
// be. Without, they are removed.
int pe_io_close(pe_io_t* io, bool publish);

// The emit function of the forwarder for these ports (context: the
// pe_io_t). A live port takes the frame into its send batch; frames the
// kernel then refuses move from Tx to Tx lost at the end of the batch.
bool pe_io_emit(void* context, unsigned port, const packet_t* packet);

// Runs frames through forwarder until the files end, seconds pass in live
// mode (0: no limit), or *stop is set (SIGINT and SIGTERM wake the live
// loop). Live, adds the frames each interface lost to its port's Rx lost,
// and serves control (may be null) between batches: pauses, and the end of
// the traffic; control is finished when the loop ends. Prints a progress
// line every second on stderr when progress is set. Returns 0, or 2 after
// one line on err when an input turns out damaged or an output cannot be
// written.
int pe_io_run(pe_io_t* io, pe_forwarder_t* forwarder, unsigned seconds, volatile sig_atomic_t* stop, bool progress,
              pe_control_t* control);
