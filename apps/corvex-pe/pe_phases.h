// The phases of a corvex-pe run, marked in the library's event ring (a
// start and an end mark each) so that a trace (--trace) shows where the
// time went: "start-up", "configuration", "forwarding" and each
// "forwarding batch" in it, "commands", "heap check". Names are kept by
// the ring as pointers: give string literals.
#pragma once

#include "time_util.h"

class PePhase {
public:
    explicit PePhase(const char* name) : name_(name) { event_timestamp_record(name_, 1); }
    ~PePhase() { end(); }
    PePhase(const PePhase&) = delete;
    PePhase& operator=(const PePhase&) = delete;

    // Ends the phase before its scope does.
    void end() {
        if (name_ != nullptr) event_timestamp_record(name_, 0);
        name_ = nullptr;
    }

private:
    const char* name_;
};
