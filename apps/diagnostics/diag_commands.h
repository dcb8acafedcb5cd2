// The programs' own commands, a tree a session offers beside the library's
// (cli_session_tree_add), which stays exactly as it is.
//
//   heap-map [FOLDER]   writes the map of every heap (diag_heap_maps_write)
//                       into FOLDER, by default the folder the program was
//                       given for its maps
#pragma once

#include <cstdio>
#include <string>

#include "diag_output.h"
#include "host_cli.h"

struct DiagCommands {
    const char* program;
    FILE* err;                // where a map that could not be written is told
    const DiagInputs* inputs;
    std::string map_folder;   // the default FOLDER; empty: none
    unsigned failures = 0;    // maps that could not be written, or asked for without a folder
};

// The tree of the programs' commands, acting for commands. One program has one such tree: a later call replaces the
// first one's commands.
const parser_tree_info* diag_commands_tree(DiagCommands* commands);
