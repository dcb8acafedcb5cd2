// Names for code addresses: the function that holds one, the offset into
// it and, where the build has debug information, the source file and line
// of the call that ends there. The addresses are those the library keeps
// for its blocks (the caller's return address), in the program, in
// libcorvex or in any other object the process has loaded.
#pragma once

#include <cstdint>
#include <string>

struct diag_symbol_t {
    std::string function;  // demangled, without its parameter list; empty when unknown
    uintptr_t offset = 0;  // from the start of the function
    std::string object;    // file name (no folder) of the object holding the address; empty when none does
    uintptr_t object_offset = 0;
    std::string file;      // source file, from the top of the source tree when it lies there
    int line = 0;          // 0 without line information
};

// The hex digits of a code address in the library's reports.
constexpr int kDiagPcDigits = 2 * sizeof(void*);

// What is known of pc; false when no object of the process holds it.
bool diag_symbol_find(uintptr_t pc, diag_symbol_t* symbol);

// pc as a call site is read: "pe_config_read+0x5c  apps/corvex-pe/pe_config.cpp:88"
// (in a column of a report), or "pe_config_read+0x5c (apps/corvex-pe/pe_config.cpp:88)"
// with `inline_line`, for running text; "malloc+0x1a" without line
// information, "libfoo.so.1+0x1234" when no symbol covers it, empty when no
// object holds it.
std::string diag_symbol_describe(uintptr_t pc, bool inline_line = false);
