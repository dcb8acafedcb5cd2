// Call sites named in the library's accounting reports as they are
// printed. The reports by PC, by PC and size, and the allocation rates
// list each allocating PC as a row; on its way to the terminal every such
// row gains a column naming the PC's function, offset and source line
// (diag_symbol_describe), and the report's header and rules a column to
// match. Everything else passes unchanged, the library's fixed formats
// included.
#pragma once

#include <string>

#include "cli_output.h"

class DiagCallSites {
public:
    // Text goes on to sink (with its context) once named.
    DiagCallSites(cli_output_sink_t sink, void* context) : sink_(sink), context_(context) {}
    ~DiagCallSites() { flush(); }
    DiagCallSites(const DiagCallSites&) = delete;
    DiagCallSites& operator=(const DiagCallSites&) = delete;

    // A cli_output_sink_t; its context is the DiagCallSites.
    static void pass(void* self, const char* text, size_t length);
    // Sends on a line begun and not yet ended.
    void flush();

private:
    void take(const char* text, size_t length);
    void line_pass(std::string line);

    cli_output_sink_t sink_;
    void* context_;
    bool in_report_ = false;
    bool mid_line_ = false;  // a line's start went on unexamined: so does its rest
    std::string pending_;  // the start of a line of a report
};
