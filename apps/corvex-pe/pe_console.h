// corvex-pe's console: the library's diagnostic commands (its tree as it
// is) and beside them the host's own:
//   show pe counters    the counter table, as the end of the run prints it
//   clear pe counters   every counter of that table back to 0
//   show pe config      the ports and groups in force, each port's interface
// In live mode the console runs on a thread of its own while frames flow,
// as a switch's console does, and every command runs while the forwarding
// loop rests at a batch boundary (pe_control), so the displays and walks
// see the heaps and pools at rest.
#pragma once

#include <vector>

#include "cli_session.h"
#include "diag_call_sites.h"
#include "diag_commands.h"
#include "pe_control.h"
#include "pe_forward.h"

// What the host's commands act on (one set a process): the forwarder and
// each port's interface (null for a port without one).
void pe_console_attach(pe_forwarder_t* forwarder, const char* const* interfaces);

// A session on the library's tree, the programs' diagnostic commands
// (own) and the host's commands, its accounting reports naming the call
// sites of their PCs, its text on standard output. With a control, every
// command runs while the loop rests.
class PeSession {
public:
    PeSession(DiagCommands* own, pe_control_t* control);
    ~PeSession();
    PeSession(const PeSession&) = delete;
    PeSession& operator=(const PeSession&) = delete;
    // Null when memory is short.
    parser_config* get() const { return session_; }

private:
    DiagCallSites named_{cli_output_file_sink, stdout};  // outlives the session
    parser_config* session_;
};

struct pe_console_t;

// Starts the console thread, its commands pausing the loop through
// control: an interactive session on standard input and output (prompt
// "corvex-pe> "; quit or the end of input ends the traffic), or else
// commands run every `every` seconds, each round after a line "At N s:".
// Signals stay with the loop's thread. Null when no thread or session can
// be had (said on stderr).
pe_console_t* pe_console_start(DiagCommands* own, pe_control_t* control, bool interactive,
                               const std::vector<const char*>& commands, unsigned every);
// Ends the console (an interactive session as at the end of its input)
// and waits for its thread. Returns the commands that failed, as
// cli_session_run_interactive counts them.
int pe_console_stop(pe_console_t* console);
