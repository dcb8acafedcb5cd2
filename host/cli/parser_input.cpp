// Reading a session's lines: a script from a stream, or a terminal with GNU
// readline's editing, history, '?' help and completion when the build has
// it and plain line reading otherwise. A line holds at most CLI_LINE_MAX
// bytes and no NUL byte; at a terminal an interrupt (Ctrl-C) clears the
// line being typed and prompts again.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "priv_parser.h"

#if CORVEX_CLI_READLINE
#include <readline/history.h>
#include <readline/readline.h>
#endif

namespace corvex_cli {
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

enum class Got { line, end, too_long, binary, failed, interrupted };

// What reading a byte came to when it gave no byte (kEnded: cli_session_end).
constexpr int kEnd = -1, kFailed = -2, kInterrupted = -3, kEnded = -4;

// One line from next() (a byte, or one of the values above), newline
// dropped; a last line without a newline is still a line.
template <class NextByte>
Got line_read(NextByte&& next, std::string& line) {
    line.clear();
    for (;;) {
        const int c = next();
        if (c == '\n' || (c == kEnd && !line.empty())) return Got::line;
        if (c == kEnd || c == kEnded) return Got::end;
        if (c == kFailed) return Got::failed;
        if (c == kInterrupted) return Got::interrupted;
        if (c == '\0') return Got::binary;
        if (line.size() == CLI_LINE_MAX) return Got::too_long;
        line += static_cast<char>(c);
    }
}

// One terminal session at a time: the SIGINT action and readline's state
// belong to the process.
std::mutex terminal_lock;

// While a terminal session reads, SIGINT writes a byte into a pipe that the
// reader polls beside the terminal, whichever thread the signal lands on;
// cli_session_end writes one too. The pipe is made once and kept: a
// handler still running on another thread when a session ends never
// writes into a closed descriptor.
std::atomic<int> interrupt_pipe{-1};
// The session reading the terminal now: cli_session_end wakes only it.
std::atomic<const parser_config*> terminal_reader{nullptr};
static_assert(std::atomic<int>::is_always_lock_free, "read in a signal handler");

void interrupt_note(int) {
    const int saved = errno;
    (void)!write(interrupt_pipe.load(std::memory_order_relaxed), "", 1);
    errno = saved;
}

enum class Wait { input, interrupted, ended };

class InterruptCatch {
public:
    // Called with terminal_lock held. A process that ignores SIGINT (started
    // in the background) goes on ignoring it.
    InterruptCatch() {
        static int fds[2] = {-1, -1};
        if (fds[0] < 0 && pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return;
        read_fd_ = fds[0];
        interrupt_pipe = fds[1];
        if (sigaction(SIGINT, nullptr, &previous_) != 0 || previous_.sa_handler == SIG_IGN) return;
        catching_ = true;
        struct sigaction action {};
        action.sa_handler = interrupt_note;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, nullptr);
    }
    ~InterruptCatch() {
        if (catching_) sigaction(SIGINT, &previous_, nullptr);
    }
    InterruptCatch(const InterruptCatch&) = delete;
    InterruptCatch& operator=(const InterruptCatch&) = delete;

    // Forgets the interrupts that came while no line was being read.
    void forget() const {
        char bytes[64];
        while (read_fd_ >= 0 && read(read_fd_, bytes, sizeof bytes) > 0) {
        }
    }

    // Waits until fd has input (or an error to read), an interrupt, or
    // the end the session was asked for (end).
    Wait input_wait(int fd, const std::atomic<bool>& end) const {
        pollfd fds[2] = {{fd, POLLIN, 0}, {read_fd_, POLLIN, 0}};
        for (;;) {
            if (end) return Wait::ended;
            const int ready = poll(fds, read_fd_ >= 0 ? 2 : 1, -1);
            if (ready < 0 && errno == EINTR) continue;
            if (ready > 0 && read_fd_ >= 0 && (fds[1].revents & POLLIN) != 0) {
                forget();
                return end ? Wait::ended : Wait::interrupted;
            }
            return Wait::input;
        }
    }

private:
    struct sigaction previous_ {};
    bool catching_ = false;  // false: interrupts keep the process's own action
    int read_fd_ = -1;
};

#if CORVEX_CLI_READLINE

parser_config* readline_session = nullptr;
std::string* edited_line = nullptr;
bool edited_done = false;
bool edited_got = false;

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

void line_accept(char* text) {
    rl_callback_handler_remove();  // no prompt until the line has run
    edited_got = text != nullptr;
    if (text != nullptr) *edited_line = text;
    free(text);
    edited_done = true;
}

#endif

// The lines of one input, read as a script or at a terminal.
class Input {
public:
    Input(parser_config& session, FILE* in, FILE* out, const char* prompt)
        : session_(session), in_(in), out_(out), prompt_(prompt),
          terminal_(prompt != nullptr && isatty(fileno(in)) != 0) {
        if (terminal_) {
            hold_ = std::unique_lock(terminal_lock);
            interrupts_.emplace();
            terminal_reader = &session;
        }
    }
    ~Input() {
        if (terminal_) terminal_reader = nullptr;
    }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    bool terminal() const { return terminal_; }
    int read_errno() const { return read_errno_; }

    Got read(std::string& line) {
        Got got;
        if (!terminal_) {
            got = line_read([this] { return stream_byte(); }, line);
        } else {
            interrupts_->forget();
#if CORVEX_CLI_READLINE
            got = cli_session_single_line_mode(&session_) ? plain_read(line) : edited_read(line);
#else
            got = plain_read(line);
#endif
            if (got == Got::end) fputc('\n', out_);
        }
        return got;
    }

private:
    int stream_byte() {
        const int c = getc(in_);
        if (c != EOF) return c;
        if (!ferror(in_)) return kEnd;
        read_errno_ = errno;
        return kFailed;
    }

    int terminal_byte() {
        if (next_ == end_) {
            const Wait wait = interrupts_->input_wait(fileno(in_), session_.end_asked);
            if (wait != Wait::input) return wait == Wait::ended ? kEnded : kInterrupted;
            ssize_t got;
            do {
                got = ::read(fileno(in_), buffer_, sizeof buffer_);
            } while (got < 0 && errno == EINTR);
            if (got <= 0) {
                read_errno_ = errno;
                return got == 0 ? kEnd : kFailed;
            }
            next_ = 0;
            end_ = static_cast<size_t>(got);
        }
        return static_cast<unsigned char>(buffer_[next_++]);
    }

    Got plain_read(std::string& line) {
        fputs(prompt_, out_);
        fflush(out_);
        const Got got = line_read([this] { return terminal_byte(); }, line);
        if (got == Got::interrupted) {
            next_ = end_;  // the terminal dropped what was typed and echoed ^C
            fputc('\n', out_);
        } else if (got == Got::too_long || got == Got::binary) {
            for (int c = 0; c != '\n' && c >= 0;) c = terminal_byte();  // the rest of the refused line
        }
        return got;
    }

#if CORVEX_CLI_READLINE
    Got edited_read(std::string& line) {
        rl_instream = in_;
        rl_outstream = out_;
        rl_attempted_completion_function = complete_line;
        rl_bind_key('?', help_key);
        rl_catch_signals = 0;  // an interrupt comes through the pipe
        readline_session = &session_;
        clear_history();
        {
            std::lock_guard guard(session_.lock);
            for (const auto& past : session_.history) add_history(past.c_str());
        }
        edited_line = &line;
        edited_done = false;
        rl_callback_handler_install(prompt_, line_accept);
        while (!edited_done) {
            const Wait wait = interrupts_->input_wait(fileno(in_), session_.end_asked);
            if (wait != Wait::input) {
                // As bash does: any search or half-typed key ended, ^C shown,
                // the line forgotten.
                rl_free_line_state();
                rl_callback_sigcleanup();
                rl_point = rl_end;
                rl_redisplay();
                if (wait == Wait::ended) {
                    rl_callback_handler_remove();
                    return Got::end;
                }
                rl_echo_signal_char(SIGINT);
                rl_callback_handler_remove();
                fputc('\n', out_);
                return Got::interrupted;
            }
            rl_callback_read_char();
        }
        if (!edited_got) return Got::end;
        return line.size() > CLI_LINE_MAX ? Got::too_long : Got::line;
    }
#endif

    parser_config& session_;
    FILE* in_;
    FILE* out_;
    const char* prompt_;
    const bool terminal_;
    std::unique_lock<std::mutex> hold_;
    std::optional<InterruptCatch> interrupts_;
    char buffer_[1024];
    size_t next_ = 0;
    size_t end_ = 0;
    int read_errno_ = 0;
};

// Why a line was not taken.
std::string input_problem(Got got, int read_errno) {
    if (got == Got::too_long) return "Line longer than " + std::to_string(CLI_LINE_MAX) + " bytes";
    if (got == Got::binary) return "Binary data (a NUL byte)";
    return std::string("Cannot read: ") + strerror(read_errno);
}

}  // namespace

int lines_run(parser_config& session, FILE* in, FILE* out, const char* prompt) {
    cli_output_sink_t previous_sink;
    void* previous_context;
    cli_output_current(&previous_sink, &previous_context);
    if (out != nullptr) cli_output_redirect(cli_output_file_sink, out);
    Input input(session, in, out, prompt);
    int failures = 0;
    std::string line;
    // cli_session_end ends a terminal's reading only; a script is read on.
    for (unsigned long number = 1; !(input.terminal() && session.end_asked); ++number) {
        const Got got = input.read(line);
        if (got == Got::end) break;
        if (got == Got::interrupted) {
            --number;  // nothing was entered
            continue;
        }
        if (got != Got::line) {
            {
                SessionScope scope(session);
                message_deliver(session, number, input_problem(got, input.read_errno()).c_str());
            }
            if (got == Got::failed || !input.terminal()) {
                failures = CLI_INPUT_UNREADABLE;
                break;
            }
            ++failures;
            continue;
        }
        if (input.terminal()) remember(session, trimmed(line));
        const cli_status status = execute_line(session, line, number);
        if (out != nullptr) fflush(out);
        if (status == CLI_END) break;
        if (status != CLI_OK) ++failures;
    }
    cli_output_redirect(previous_sink, previous_context);
    return failures;
}

}  // namespace corvex_cli

extern "C" void cli_session_end(parser_config* session) {
    if (session == nullptr) return;
    session->end_asked = true;
    // Wakes the session if it reads the terminal now; one that starts
    // reading later sees the flag first.
    const int fd = corvex_cli::interrupt_pipe.load();
    if (fd >= 0 && corvex_cli::terminal_reader.load() == session) (void)!write(fd, "", 1);
}

extern "C" int cli_session_run_interactive(parser_config* session, FILE* in, FILE* out, const char* prompt) {
    if (session == nullptr || in == nullptr || out == nullptr) return -1;
    return corvex_cli::lines_run(*session, in, out, prompt != nullptr ? prompt : "");
}
