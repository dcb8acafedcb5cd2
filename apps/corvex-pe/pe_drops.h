// Why was this frame dropped: every dropped frame in a pcapng capture that
// Wireshark and tshark read. Each port is an interface of the capture,
// named for the port and described by where its frames came from; each
// frame is kept as it was received, at the time it was dropped, with the
// reason it was dropped and its number among the frames of its input as
// the packet's comment (tshark's frame.comment).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "diag_output.h"

class PeDrops {
public:
    PeDrops(const char* program, FILE* err) : output_(program, err) {}

    // Starts the capture at path (never an input) with one interface for
    // each port: its name and where its frames come from (may be empty).
    bool open(const std::string& path, const DiagInputs& inputs,
              const std::vector<std::pair<std::string, std::string>>& ports);
    // A frame dropped on port: the reason, its number in that port's
    // input (from 1), when it came (nanoseconds since the epoch), the
    // bytes captured and its length on the wire.
    void add(unsigned port, const char* reason, uint64_t number, uint64_t time_ns, const uint8_t* frame,
             uint32_t captured, uint32_t length);
    // The capture in place, whole; false after a line naming it.
    bool commit() { return output_.commit(); }

private:
    DiagOutput output_;
};
