// What corvex-pe shows beyond its counter table, as its options ask
// (apps/diagnostics does the work):
//   --trace FILE        the run's phases (pe_phases.h) as a trace
//   --drops FILE        every dropped frame, with its reason (pe_drops.h)
//   --counters FILE     the counter table as JSON
//   --heap-map DIR      a map of every heap at exit
//   --leaks             what grew since start-up, by call site; also shown
//                       unasked when a heap did not come back
// Each output is written whole when the run ends well (and not at all
// otherwise), never over an input; one that cannot be is told on stderr.
#pragma once

#include <string>
#include <vector>

#include "diag_leaks.h"
#include "diag_output.h"
#include "pe_drops.h"
#include "pe_forward.h"
#include "pe_io.h"
#include "pe_options.h"

class PeDiagnostics {
public:
    explicit PeDiagnostics(const pe_options_t& options);

    // Before the host starts: the ring the phases are marked in, when a
    // trace is asked for, sized so that a run of the sample never wraps
    // (a longer run keeps its latest marks).
    void ring_start() const;
    // Notes every heap's blocks, to tell later what grew.
    void snapshot() { leaks_.snapshot(); }
    // Notes the run's inputs: the configuration and each port's capture.
    void inputs_note(const std::vector<pe_port_io_t>& ports);
    // Creates the trace and counters files (written at the end) and starts
    // the drops capture, told of forwarder's drops. False after a line on
    // stderr.
    bool open(const pe_config_t& config, const std::vector<pe_port_io_t>& ports, pe_forwarder_t* forwarder);
    // The run's inputs, which no output may overwrite.
    const DiagInputs* inputs() const { return &inputs_; }
    // The heap maps, as the heaps are now; false after a line on stderr.
    bool maps_write() const;
    // What grew since the snapshot, when asked for or when the heaps did
    // not come back.
    void leaks_report(bool heaps_came_back) const;
    // Notes the counter table as the run left it, for --counters.
    void counters_note(const pe_forwarder_t& forwarder);
    // The counters, the drops and the trace written out; false after a
    // line on stderr for each that could not be.
    bool finish();

private:
    static void drop_note(void* self, unsigned port, pe_drop_reason reason, uint64_t number, const uint8_t* frame,
                          unsigned captured, unsigned length);

    const pe_options_t& options_;
    DiagInputs inputs_;
    DiagLeaks leaks_;
    PeDrops drops_;
    DiagOutput trace_, counters_;
    std::string counters_text_;
};
