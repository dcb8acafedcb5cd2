// corvex-gen's command line: what to send, where, and for how long.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct gen_options_t {
    std::string interface;
    std::vector<unsigned> sizes{64};  // frame sizes on the wire (FCS included), sent in turn
    bool etag = false;                // E-tagged frames, as the controlling bridge sends them
    uint32_t ecid = 0;
    uint64_t frames = 0;    // 0: no limit
    unsigned seconds = 0;   // 0: no limit
};

// The sizes of --size imix: seven 64-byte frames, four of 576 bytes and one of 1518.
constexpr unsigned GEN_IMIX[] = {64, 576, 64, 1518, 64, 576, 64, 64, 576, 64, 576, 64};

// Reads argv into options. Returns -1 to go on, else the exit status to
// end with: 0 after --help or --version, 2 after a line on stderr naming
// the option that was refused.
int gen_options_parse(int argc, char** argv, gen_options_t* options);
