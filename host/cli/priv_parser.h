// The session record and the parser engine shared by the CLI library's files.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "cli_session.h"
#include "host_cli.h"

struct _parser_config {
    std::vector<const parser_tree_info*> trees;  // the first, then the host's own
    cli_command_hook_t hook = nullptr;
    void* hook_context = nullptr;
    std::atomic<bool> end_asked{false};  // cli_session_end
    int security_level = 0;
    bool debugging = false;
    bool single_line = false;
    cli_output_sink_t sink = nullptr;
    void* sink_context = nullptr;
    cli_message_sink_t message_sink = nullptr;
    void* message_context = nullptr;
    unsigned long line_number = 0;  // of the line executing, for its messages
    std::vector<std::string> history;
    unsigned long executed = 0;
    unsigned long failed = 0;
    // Held while a line executes; recursive so a callback may run a line
    // on its own session.
    mutable std::recursive_mutex lock;
};

namespace corvex_cli {

// Splits a line into words at blanks.
std::vector<std::string_view> split_words(std::string_view line);

// The session's own words ("exit", "quit"), offered after the tree's
// top-level words, and whether an end node is theirs.
const parser_node_info* session_words();
bool session_ends_at(const parser_node_info* end);

// One of the session's own messages (without "% " and newline), about
// input line `number`, to its message sink or its output.
void message_deliver(const parser_config& session, unsigned long number, const char* message);

// Formats a message about the line executing and delivers it.
void report(const parser_config& session, const char* format, ...) __attribute__((format(printf, 2, 3)));

// A word from the input as messages show it: bytes that are not printable
// ASCII as \xHH, a backslash doubled.
std::string printable(std::string_view word);

// Executes a line of input numbered `number` (0: not from an input):
// comments, '?' help, the session's words and commands.
cli_status execute_line(parser_config& session, std::string_view line, unsigned long number);

// Reads the lines of in (prompting on a terminal) and executes them until
// the end, "exit" or "quit"; the cli_session_run_* result.
int lines_run(parser_config& session, FILE* in, FILE* out, const char* prompt);

// Parses words against the session's tree and calls the command's
// callback, printing a message when the line does not make a command.
cli_status execute_words(parser_config& session, const std::vector<std::string_view>& words);

// Lists what may follow words; a non-empty partial lists only the words
// starting with it.
cli_status list_help(const parser_config& session, const std::vector<std::string_view>& words,
                     std::string_view partial);

// The words that complete partial after words, in the tree's order.
std::vector<std::string> completions(const parser_config& session, const std::vector<std::string_view>& words,
                                     std::string_view partial);

// Prints a command's selector and values, one line each; extras (may be
// null) are the tree's parsers that made the items.
void print_command(const char* who, const parser_result& result, u_int32_t magic,
                   const parser_cmd_info* const* extras);

// Makes session the calling thread's current one (and its output the
// thread's destination) for the guard's lifetime.
class SessionScope {
public:
    explicit SessionScope(parser_config& session);
    ~SessionScope();
    SessionScope(const SessionScope&) = delete;
    SessionScope& operator=(const SessionScope&) = delete;

private:
    std::lock_guard<std::recursive_mutex> hold_;
    parser_config* previous_session_;
    cli_output_sink_t previous_sink_;
    void* previous_context_;
};

}  // namespace corvex_cli
