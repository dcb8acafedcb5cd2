// The session record and the parser engine shared by the CLI library's files.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "cli_session.h"
#include "host_cli.h"

struct _parser_config {
    const parser_tree_info* tree = nullptr;
    int security_level = 0;
    bool debugging = false;
    bool single_line = false;
    cli_output_sink_t sink = nullptr;
    void* sink_context = nullptr;
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
