// corvex-shell: the library's diagnostic commands on a demonstration host.
//
//   corvex-shell                         interactive on a terminal: line
//                                        editing, history, '?' help, tab
//                                        completion; "exit" or end of input
//   corvex-shell < script                one command a line, '#' comments
//   corvex-shell -c "show heap" [-c ...] the given commands, in order
//
// Exit status: 0 when every command line ran, 1 when one was unknown,
// ambiguous, incomplete, out of range or refused, 2 for a usage error and
// 3 when the host could not start.
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "cli_session.h"
#include "host_cli.h"
#include "host_options.h"
#include "host_setup.h"

namespace {

constexpr char kName[] = "corvex-shell";

enum : int { kVersion = 256 };

const option kLongs[] = {
    {"command", required_argument, nullptr, 'c'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, kVersion},
    {nullptr, 0, nullptr, 0},
};

int usage() {
    printf("usage: %s [-c COMMAND]...\n"
           "Runs the diagnostic commands of libcorvex on a demonstration host: the given\n"
           "commands, else a script on standard input (one command a line, '#' comments),\n"
           "else, on a terminal, an interactive session.\n\n"
           "  -c, --command COMMAND  a command to run (repeatable, in order; default: read\n"
           "                         standard input)\n"
           "  -h, --help             print this help and exit\n"
           "      --version          print the version and exit\n\n"
           "Exit status: 0 every command line ran; 1 one was unknown, ambiguous, incomplete,\n"
           "out of range or refused; 2 a usage error; 3 the host could not start.\n",
           kName);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<const char*> commands;
    for (int code; (code = host_options_next(kName, argc, argv, "c:h", kLongs)) != -1;) {
        switch (code) {
        case 'c': commands.push_back(optarg); break;
        case 'h': return usage();
        case kVersion: host_options_version(kName); return 0;
        default: return HOST_OPTIONS_USAGE;  // refused, and said why
        }
    }
    if (host_setup_start(kName) != 0) {
        return 3;
    }
    host_setup_traffic();
    parser_config* session = cli_session_create(&libcorvex_vty_tree);
    if (session == nullptr) {
        fprintf(stderr, "%s: no memory for a session\n", kName);
        return 3;
    }
    int failures = 0;
    if (!commands.empty()) {
        for (const char* command : commands) {
            if (cli_session_execute(session, command) != CLI_OK) ++failures;
        }
    } else if (isatty(STDIN_FILENO)) {
        failures = cli_session_run_interactive(session, stdin, stdout, "corvex> ");
    } else {
        failures = cli_session_run_script(session, stdin);
    }
    cli_session_destroy(session);
    fflush(stdout);
    return failures == 0 ? 0 : 1;
}
