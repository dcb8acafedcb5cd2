// corvex-shell: the library's diagnostic commands on a demonstration host.
//
//   corvex-shell                         interactive on a terminal: line
//                                        editing, history, '?' help, tab
//                                        completion; Ctrl-C clears the line
//   corvex-shell < script                the same lines, one a line
//   corvex-shell -c "show heap" [-c ...] the given commands, in order
//   --heap-map DIR                       also a map of every heap at exit
//
// Beside the library's commands the shell has its own (diag_commands.h):
// heap-map [FOLDER] writes the heap maps on demand. The accounting reports
// name the call sites of their PCs (diag_call_sites.h).
//
// Command output goes to standard output; the shell's own messages (a line
// that makes no command, input that cannot be read, an output that could
// not be written) to standard error, naming the command, line or file.
// Exit status: 0 when every line ran, 1 when one was refused, 2 for a
// usage error, unreadable input or a write error (standard output, a heap
// map, heap-map without a folder), 3 when the host could not start.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "cli_session.h"
#include "diag_call_sites.h"
#include "diag_commands.h"
#include "diag_heap_map.h"
#include "host_cli.h"
#include "host_options.h"
#include "host_setup.h"

namespace {

constexpr char kName[] = "corvex-shell";
constexpr int kInputError = 2;  // also a usage error's (HOST_OPTIONS_USAGE)
constexpr int kHostError = 3;

enum : int { kVersion = 256, kHeapMap };

const option kLongs[] = {
    {"command", required_argument, nullptr, 'c'},
    {"heap-map", required_argument, nullptr, kHeapMap},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, kVersion},
    {nullptr, 0, nullptr, 0},
};

int usage() {
    printf("usage: %s [-c COMMAND]... [--heap-map DIR]\n"
           "Runs the diagnostic commands of libcorvex on a demonstration host: the given\n"
           "commands, else the lines of standard input: a script, or on a terminal an\n"
           "interactive session. '#' starts a comment, \"exit\" or \"quit\" ends, '?' lists\n"
           "what may come next; a line holds at most %d bytes and no NUL byte. The shell's\n"
           "own command heap-map [FOLDER] writes an SVG map of every heap (into DIR when\n"
           "no FOLDER is given).\n\n"
           "  -c, --command COMMAND  a command to run (repeatable, in order; default: read\n"
           "                         standard input)\n"
           "      --heap-map DIR     at exit, write an SVG map of every heap into DIR\n"
           "                         (DIR/heap-ID-NAME.svg; folders made as needed)\n"
           "  -h, --help             print this help and exit\n"
           "      --version          print the version and exit\n\n"
           "Exit status: 0 every line ran; 1 a line was refused (unknown, ambiguous,\n"
           "incomplete, out of range, above the security level); 2 a usage error, standard\n"
           "input unreadable (a directory, a read error, a line too long or holding a NUL\n"
           "byte: the script stops there) or a write error (standard output, a heap map,\n"
           "heap-map without a folder); 3 the host could not start.\n",
           kName, CLI_LINE_MAX);
    return 0;
}

// Where the line being executed came from, for the session's messages.
struct Source {
    bool terminal;
    int command;  // the -c count, 0 for standard input
};

void message_print(void* context, unsigned long line, const char* message) {
    const auto& source = *static_cast<const Source*>(context);
    if (source.terminal) {
        fprintf(stderr, "%% %s\n", message);
    } else if (source.command > 0) {
        fprintf(stderr, "%s: command %d: %s\n", kName, source.command, message);
    } else {
        fprintf(stderr, "%s: standard input, line %lu: %s\n", kName, line, message);
    }
}

// Standard input must be something lines can be read from.
bool input_check() {
    struct stat status {};
    const char* problem = nullptr;
    if (fstat(STDIN_FILENO, &status) != 0) {
        problem = strerror(errno);
    } else if (S_ISDIR(status.st_mode)) {
        problem = strerror(EISDIR);
    }
    if (problem != nullptr) fprintf(stderr, "%s: standard input: %s\n", kName, problem);
    return problem == nullptr;
}

// Everything written must have reached standard output.
bool output_check() {
    errno = 0;
    if (fflush(stdout) == 0 && !ferror(stdout)) return true;
    fprintf(stderr, "%s: standard output: %s\n", kName, errno != 0 ? strerror(errno) : "write error");
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<const char*> commands;
    DiagInputs inputs;
    DiagCommands own{kName, stderr, &inputs, {}};
    for (int code; (code = host_options_next(kName, argc, argv, "c:h", kLongs)) != -1;) {
        switch (code) {
        case 'c': commands.push_back(optarg); break;
        case kHeapMap: own.map_folder = optarg; break;
        case 'h': return usage();
        case kVersion: host_options_version(kName); return 0;
        default: return HOST_OPTIONS_USAGE;  // refused, and said why
        }
    }
    if (commands.empty() && !input_check()) return kInputError;
    inputs.add_descriptor(STDIN_FILENO);
    if (host_setup_start(kName) != 0) return kHostError;
    host_setup_traffic();
    parser_config* session = cli_session_create(&libcorvex_vty_tree);
    if (session == nullptr) {
        fprintf(stderr, "%s: no memory for a session\n", kName);
        return kHostError;
    }
    cli_session_tree_add(session, diag_commands_tree(&own));
    Source source{commands.empty() && isatty(STDIN_FILENO) != 0, 0};
    cli_session_messages_set(session, message_print, &source);
    DiagCallSites named(cli_output_file_sink, stdout);
    cli_session_output_set(session, DiagCallSites::pass, &named);
    int failures = 0;
    if (!commands.empty()) {
        for (const char* command : commands) {
            ++source.command;
            const cli_status status = cli_session_execute(session, command);
            if (status == CLI_END) break;
            if (status != CLI_OK) ++failures;
        }
    } else if (source.terminal) {
        failures = cli_session_run_interactive(session, stdin, stdout, "corvex> ");
    } else {
        failures = cli_session_run_script(session, stdin);
    }
    cli_session_destroy(session);
    named.flush();
    if (!own.map_folder.empty() && !diag_heap_maps_write(own.map_folder, inputs, kName, stderr)) ++own.failures;
    if (!output_check() || failures == CLI_INPUT_UNREADABLE || own.failures > 0) return kInputError;
    return failures == 0 ? 0 : 1;
}
