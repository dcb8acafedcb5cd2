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
#include <cstring>
#include <vector>

#include "cli_session.h"
#include "host_cli.h"
#include "host_setup.h"

namespace {

constexpr char kName[] = "corvex-shell";

int usage(FILE* out, int status) {
    fprintf(out,
            "usage: %s [-c COMMAND]...\n"
            "Runs the diagnostic commands of libcorvex on a demonstration host: the given\n"
            "commands, else a script on standard input, else an interactive session.\n",
            kName);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<const char*> commands;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-c") == 0 && i + 1 < argc) {
            commands.push_back(argv[++i]);
        } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            return usage(stdout, 0);
        } else {
            return usage(stderr, 2);
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
