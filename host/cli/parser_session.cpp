// Sessions: one terminal's parser state, driven one line or one script at
// a time, and the messages it gives about lines that make no command.
#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <new>
#include <string>

#include "priv_parser.h"

namespace corvex_cli {
namespace {

struct WordsAndPartial {
    std::vector<std::string_view> words;
    std::string_view partial;
};

// The complete words of a line, and the word being typed when the line does
// not end in a blank ("show h" -> {show}, "h"; "show " -> {show}, "").
WordsAndPartial split_partial(std::string_view text) {
    WordsAndPartial split{split_words(text), {}};
    if (!split.words.empty() && text.end() == split.words.back().end()) {
        split.partial = split.words.back();
        split.words.pop_back();
    }
    return split;
}

thread_local parser_config* current_session = nullptr;

}  // namespace

SessionScope::SessionScope(parser_config& session)
    : hold_(session.lock), previous_session_(current_session) {
    cli_output_current(&previous_sink_, &previous_context_);
    current_session = &session;
    if (session.sink != nullptr) cli_output_redirect(session.sink, session.sink_context);
}

SessionScope::~SessionScope() {
    cli_output_redirect(previous_sink_, previous_context_);
    current_session = previous_session_;
}

void message_deliver(const parser_config& session, unsigned long number, const char* message) {
    if (session.message_sink != nullptr) {
        session.message_sink(session.message_context, number, message);
    } else {
        parser_printf("%% %s\n", message);
    }
}

void report(const parser_config& session, const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    std::string message(static_cast<size_t>(std::max(vsnprintf(nullptr, 0, format, args), 0)), '\0');
    va_end(args);
    vsnprintf(message.data(), message.size() + 1, format, again);
    va_end(again);
    message_deliver(session, session.line_number, message.c_str());
}

std::string printable(std::string_view word) {
    std::string shown;
    for (const char c : word) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == '\\') {
            shown += "\\\\";
        } else if (byte >= 0x20 && byte < 0x7f) {
            shown += c;
        } else {
            char escaped[5];
            snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            shown += escaped;
        }
    }
    return shown;
}

cli_status execute_line(parser_config& session, std::string_view text, unsigned long number) {
    SessionScope scope(session);
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || text[first] == '#') return CLI_OK;
    session.line_number = number;
    const size_t last = text.find_last_not_of(" \t\r\n");
    cli_status status;
    if (text[last] == '?') {
        // "show ?" lists what follows show; "show h?" the words starting with h.
        text = text.substr(0, last);
        auto [words, partial] = split_partial(text);
        status = list_help(session, words, partial);
    } else {
        status = execute_words(session, split_words(text));
        if (status == CLI_OK) ++session.executed;
    }
    if (status != CLI_OK && status != CLI_END) ++session.failed;
    session.line_number = 0;
    return status;
}

}  // namespace corvex_cli

using namespace corvex_cli;

extern "C" parser_config* cli_session_create(const parser_tree_info* tree) {
    if (tree == nullptr) return nullptr;
    auto* session = new (std::nothrow) parser_config;
    if (session != nullptr) session->trees.push_back(tree);
    return session;
}

extern "C" int cli_session_tree_add(parser_config* session, const parser_tree_info* tree) {
    if (session == nullptr || tree == nullptr) return -1;
    std::lock_guard guard(session->lock);
    if (session->trees.size() == CLI_TREES_MAX) return -1;
    session->trees.push_back(tree);
    return 0;
}

extern "C" void cli_session_command_hook_set(parser_config* session, cli_command_hook_t hook, void* context) {
    std::lock_guard guard(session->lock);
    session->hook = hook;
    session->hook_context = context;
}

extern "C" void cli_session_destroy(parser_config* session) { delete session; }

extern "C" void cli_session_output_set(parser_config* session, cli_output_sink_t sink, void* context) {
    std::lock_guard guard(session->lock);
    session->sink = sink;
    session->sink_context = context;
}

extern "C" void cli_session_messages_set(parser_config* session, cli_message_sink_t sink, void* context) {
    std::lock_guard guard(session->lock);
    session->message_sink = sink;
    session->message_context = context;
}

extern "C" int cli_session_security_level(const parser_config* session) {
    std::lock_guard guard(session->lock);
    return session->security_level;
}

extern "C" void cli_session_security_level_set(parser_config* session, int level) {
    std::lock_guard guard(session->lock);
    session->security_level = level;
}

extern "C" int cli_session_debugging(const parser_config* session) {
    std::lock_guard guard(session->lock);
    return session->debugging;
}

extern "C" int cli_session_single_line_mode(const parser_config* session) {
    std::lock_guard guard(session->lock);
    return session->single_line;
}

extern "C" cli_status cli_session_execute(parser_config* session, const char* line) {
    if (session == nullptr || line == nullptr) return CLI_INVALID;
    return execute_line(*session, line, 0);
}

extern "C" int cli_session_complete(parser_config* session, const char* line,
                                    void (*each)(void* context, const char* word), void* context) {
    if (session == nullptr || line == nullptr || each == nullptr) return 0;
    std::vector<std::string> found;
    {
        std::lock_guard guard(session->lock);
        std::string_view text = line;
        auto [words, partial] = split_partial(text);
        found = completions(*session, words, partial);
    }
    for (const auto& word : found) each(context, word.c_str());
    return static_cast<int>(found.size());
}

extern "C" int cli_session_run_script(parser_config* session, FILE* in) {
    if (session == nullptr || in == nullptr) return -1;
    return lines_run(*session, in, nullptr, nullptr);
}

extern "C" const char* cli_session_history(const parser_config* session, int index) {
    std::lock_guard guard(session->lock);
    if (index < 0 || static_cast<size_t>(index) >= session->history.size()) return nullptr;
    return session->history[static_cast<size_t>(index)].c_str();
}

extern "C" parser_config* cli_session_current(void) { return current_session; }
