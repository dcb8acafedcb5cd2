// corvex-pe's command line: what it asks for, with every default filled in.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct pe_options_t {
    std::string config;  // the forwarding configuration
    std::string in_dir;  // DIR/PORT.pcap for every port that has one; empty: none
    std::vector<std::pair<std::string, std::string>> in_files;    // port, capture file
    std::vector<std::pair<std::string, std::string>> interfaces;  // port, interface: live mode
    std::string out_dir;        // DIR/PORT.pcap for every port; empty in live mode
    bool out_default = false;   // out_dir is the default folder, not the user's
    unsigned duration = 0;      // live mode: seconds; 0: until SIGINT or SIGTERM
    std::vector<const char*> commands;
    unsigned every = 0;         // live mode: seconds between rounds of the commands; 0: at the end only
    bool quiet = false;
    // Diagnostics (pe_diagnostics.h); empty: not written.
    std::string heap_map_dir;  // DIR/heap-ID-NAME.svg for every heap, at exit
    std::string trace;         // the run's phases as trace-event JSON
    std::string drops;         // every dropped frame, pcapng
    std::string counters;      // the counter table as JSON
    bool leaks = false;        // what grew since start-up, even when the heaps came back
};

// Reads argv into options. Returns -1 to go on, else the exit status to
// end with: 0 after --help or --version, 2 after a line on stderr naming
// the option that was refused.
int pe_options_parse(int argc, char** argv, pe_options_t* options);
