// Sessions: one terminal's parser state, driven one line or one script at a time.
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

}  // namespace corvex_cli

using namespace corvex_cli;

extern "C" parser_config* cli_session_create(const parser_tree_info* tree) {
    if (tree == nullptr) return nullptr;
    auto* session = new (std::nothrow) parser_config;
    if (session != nullptr) session->tree = tree;
    return session;
}

extern "C" void cli_session_destroy(parser_config* session) { delete session; }

extern "C" void cli_session_output_set(parser_config* session, cli_output_sink_t sink, void* context) {
    std::lock_guard guard(session->lock);
    session->sink = sink;
    session->sink_context = context;
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
    SessionScope scope(*session);
    std::string_view text = line;
    const size_t last = text.find_last_not_of(" \t\r\n");
    cli_status status;
    if (last != std::string_view::npos && text[last] == '?') {
        // "show ?" lists what follows show; "show h?" the words starting with h.
        text = text.substr(0, last);
        auto [words, partial] = split_partial(text);
        status = list_help(*session, words, partial);
    } else {
        status = execute_words(*session, split_words(text));
        if (status == CLI_OK) ++session->executed;
    }
    if (status != CLI_OK) ++session->failed;
    return status;
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
    int failures = 0;
    char* line = nullptr;
    size_t capacity = 0;
    for (int number = 1; getline(&line, &capacity, in) >= 0; ++number) {
        const std::string_view text = line;
        const size_t first = text.find_first_not_of(" \t\r\n");
        if (first == std::string_view::npos || text[first] == '#') continue;
        if (cli_session_execute(session, line) != CLI_OK) {
            ++failures;
            const std::string_view command = text.substr(first, text.find_last_not_of(" \t\r\n") + 1 - first);
            SessionScope scope(*session);
            parser_printf("%% Script line %d: %.*s\n", number, static_cast<int>(command.size()), command.data());
        }
    }
    free(line);
    return failures;
}

extern "C" const char* cli_session_history(const parser_config* session, int index) {
    std::lock_guard guard(session->lock);
    if (index < 0 || static_cast<size_t>(index) >= session->history.size()) return nullptr;
    return session->history[static_cast<size_t>(index)].c_str();
}

extern "C" parser_config* cli_session_current(void) { return current_session; }
