// Interactive sessions: a terminal reading one command after the other,
// with GNU readline's editing, history, '?' help and completion when the
// build has it, and plain line reading otherwise.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "priv_parser.h"

#if CORVEX_CLI_READLINE
#include <readline/history.h>
#include <readline/readline.h>
#endif

namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr size_t kHistoryMax = 1000;

std::string_view trimmed(std::string_view line) {
    const size_t first = line.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return line.substr(first, line.find_last_not_of(kBlanks) + 1 - first);
}

void remember(parser_config& session, std::string_view line) {
    std::lock_guard guard(session.lock);
    if (session.single_line || line.empty()) return;
    if (!session.history.empty() && session.history.back() == line) return;
    if (session.history.size() == kHistoryMax) session.history.erase(session.history.begin());
    session.history.emplace_back(line);
}

bool read_plain(FILE* in, FILE* out, const char* prompt, bool terminal, std::string& line) {
    if (terminal) {
        fputs(prompt, out);
        fflush(out);
    }
    char* text = nullptr;
    size_t capacity = 0;
    const bool got = getline(&text, &capacity, in) >= 0;
    if (got) line = text;
    free(text);
    return got;
}

#if CORVEX_CLI_READLINE

// Readline is one per process: one edited session at a time.
std::mutex readline_lock;
parser_config* readline_session = nullptr;

char* next_completion(const char* /* text */, int state) {
    static std::vector<std::string> words;
    static size_t next = 0;
    if (state == 0) {
        words.clear();
        next = 0;
        const std::string before_cursor(rl_line_buffer, static_cast<size_t>(rl_point));
        cli_session_complete(
            readline_session, before_cursor.c_str(),
            [](void* found, const char* word) { static_cast<std::vector<std::string>*>(found)->emplace_back(word); },
            &words);
    }
    return next < words.size() ? strdup(words[next++].c_str()) : nullptr;
}

char** complete_line(const char* text, int, int) {
    rl_attempted_completion_over = 1;  // never fall back to file names
    return rl_completion_matches(text, next_completion);
}

// '?' lists help for the line so far at once and leaves the line as it was.
int help_key(int, int) {
    fputc('\n', rl_outstream);
    const std::string query = std::string(rl_line_buffer, static_cast<size_t>(rl_point)) + "?";
    cli_session_execute(readline_session, query.c_str());
    rl_on_new_line();
    return 0;
}

bool read_edited(parser_config& session, FILE* in, FILE* out, const char* prompt, std::string& line) {
    rl_instream = in;
    rl_outstream = out;
    rl_attempted_completion_function = complete_line;
    rl_bind_key('?', help_key);
    readline_session = &session;
    clear_history();
    {
        std::lock_guard guard(session.lock);
        for (const auto& past : session.history) add_history(past.c_str());
    }
    char* text = readline(prompt);
    if (text == nullptr) return false;
    line = text;
    free(text);
    return true;
}

#endif

}  // namespace

extern "C" int cli_session_run_interactive(parser_config* session, FILE* in, FILE* out, const char* prompt) {
    if (session == nullptr || in == nullptr || out == nullptr) return -1;
    if (prompt == nullptr) prompt = "";
    const bool terminal = isatty(fileno(in)) != 0;
    cli_output_sink_t previous_sink;
    void* previous_context;
    cli_output_current(&previous_sink, &previous_context);
    cli_output_redirect(cli_output_file_sink, out);
#if CORVEX_CLI_READLINE
    std::unique_lock edited(readline_lock, std::defer_lock);
    if (terminal) edited.lock();
#endif
    int failures = 0;
    for (std::string line;;) {
#if CORVEX_CLI_READLINE
        const bool got = terminal && !cli_session_single_line_mode(session)
                             ? read_edited(*session, in, out, prompt, line)
                             : read_plain(in, out, prompt, terminal, line);
#else
        const bool got = read_plain(in, out, prompt, terminal, line);
#endif
        if (!got) {
            if (terminal) fputc('\n', out);
            break;
        }
        const std::string_view command = trimmed(line);
        if (command == "exit" || command == "quit") break;
        remember(*session, command);
        if (cli_session_execute(session, line.c_str()) != CLI_OK) ++failures;
        fflush(out);
    }
    cli_output_redirect(previous_sink, previous_context);
    return failures;
}
