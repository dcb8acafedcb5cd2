// corvex-shell as a user runs it: what it prints on each stream and its exit
// status for commands given with -c, scripts on standard input (comments,
// "exit", refused lines, binary and overlong input) and refused options,
// compared with one golden transcript; and Ctrl-C at the interactive
// prompt of corvex-shell and corvex-pe, on a pseudo-terminal.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "golden.h"

namespace {

using namespace std::string_literals;

// An exit status as a shell shows it: 128 plus the signal that ended the process.
int exit_code(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

std::string file_text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// One run of the program: its arguments, and what stands for standard
// input and output (a path, or the input's bytes through a file).
struct Invocation {
    const char* what;
    std::vector<std::string> args;
    std::string input = {};
    const char* input_path = nullptr;
    const char* output_path = nullptr;
};

// The run as a transcript entry: standard output, standard error, status.
std::string transcript_entry(const Invocation& run) {
    const std::string files = testing::TempDir() + "corvex_shell." + std::to_string(getpid());
    const std::string in = files + ".in", out = files + ".out", err = files + ".err";
    std::ofstream(in, std::ios::binary) << run.input;
    const pid_t child = fork();
    if (child == 0) {
        dup2(open(run.input_path != nullptr ? run.input_path : in.c_str(), O_RDONLY), 0);
        dup2(open(run.output_path != nullptr ? run.output_path : out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
        std::vector<char*> argv{const_cast<char*>(CORVEX_SHELL)};
        for (const std::string& arg : run.args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    std::string entry = std::string(run.what) + "\n$ corvex-shell";
    for (const std::string& arg : run.args) entry += " '" + arg + "'";
    const std::string output = (run.output_path != nullptr ? "" : file_text(out)) + "-- standard error\n" +
                               file_text(err) + "-- exit status " + std::to_string(exit_code(status)) + "\n";
    for (const std::string& file : {in, out, err}) unlink(file.c_str());
    return corvex_test::golden_entry(entry, output);
}

TEST(Shell, PrintsWhatItRanAndWhatItRefused) {
    const std::string blanks(4096 - 11, ' ');
    const Invocation runs[] = {
        {"commands in order: a comment, a command's own complaint, quit ends",
         {"-c", "show packet statistics", "-c", "  # a comment", "-c", "show heap 9", "-c", "quit", "-c", "show heap"}},
        {"every kind of refused line, then one that runs",
         {"-c", "show heapz", "-c", "s", "-c", "set security 21", "-c", "show heap 0 sanity active", "-c",
          "show heap 0 accounting", "-c", "show packet"}},
        {"what may come first", {"-c", "?"}},
        {"the shell's own command; maps that cannot be written", {"-c", "heap-map ?", "--heap-map", "/dev/null/maps"}},
        {"the shell's own command without a folder", {"-c", "heap-map", "-c", "show heap 9"}},
        {"a script: comments, blank lines, control bytes shown escaped, help, exit",
         {},
         "show packet statistics\n\n   # a comment\nbogus\n\x1b[31mred\x7f\\x01 heap\nshow ?\nexit\nshow packet\n"},
        {"a line of 4096 bytes, the last without a newline", {}, blanks + "show heap 9"},
        {"a line of 4097 bytes ends the script", {}, blanks + " show heap 9\nshow packet\n"},
        {"a NUL byte ends the script", {}, "show packet\nshow\0 packet\nshow packet\n"s},
        {"standard input is /dev/zero", {}, "", "/dev/zero"},
        {"standard input is a directory", {}, "", "/"},
        {"standard output is full", {"-c", "show packet statistics"}, "", nullptr, "/dev/full"},
        {"an unknown option", {"--bogus"}},
        {"an option without its value", {"-c"}},
        {"a value to an option that takes none", {"--help=x"}},
        {"a word that is no option", {"more"}},
    };
    std::string transcript;
    for (const Invocation& run : runs) transcript += transcript_entry(run);
    EXPECT_TRUE(corvex_test::golden_matches(CORVEX_GOLDEN_DIR "/shell.txt", transcript));
}

// A program on a pseudo-terminal, as a person at a keyboard runs it.
class Terminal {
public:
    explicit Terminal(std::vector<const char*> argv) {
        argv.push_back(nullptr);
        winsize size{24, 100, 0, 0};
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            execv(argv[0], const_cast<char**>(argv.data()));
            _exit(127);
        }
    }
    ~Terminal() {
        if (master_ >= 0) close(master_);
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);  // a test that failed midway
    }

    void type(const std::string& keys) { ASSERT_EQ(write(master_, keys.data(), keys.size()), ssize_t(keys.size())); }

    // Reads the screen's text until `text` comes after what was waited for
    // before; everything read since then is in `last`.
    ::testing::AssertionResult wait_for(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (;;) {
            if (const size_t found = seen_.find(text, from_); found != std::string::npos) {
                last = seen_.substr(from_, found + text.size() - from_);
                from_ = found + text.size();
                return ::testing::AssertionSuccess();
            }
            pollfd ready{master_, POLLIN, 0};
            char bytes[4096];
            const ssize_t got = poll(&ready, 1, 1000) > 0 ? read(master_, bytes, sizeof bytes) : 0;
            if (got > 0) seen_.append(bytes, static_cast<size_t>(got));
            if (got < 0 || std::chrono::steady_clock::now() > deadline)
                return ::testing::AssertionFailure() << "no \"" << text << "\" in:\n" << seen_.substr(from_);
        }
    }

    int status() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return exit_code(status);
    }

    std::string last;

private:
    pid_t pid_ = -1;
    int master_ = -1;
    std::string seen_;
    size_t from_ = 0;
};

// Half a command, Ctrl-C, then the rest of it: the line was cleared, so
// the rest alone is refused and the command never runs.
void interrupt_clears(Terminal& terminal, const std::string& prompt) {
    terminal.type("show pack");
    ASSERT_TRUE(terminal.wait_for("show pack"));
    terminal.type("\x03");
    ASSERT_TRUE(terminal.wait_for(prompt));
    terminal.type("et statistics\r");
    ASSERT_TRUE(terminal.wait_for("% Unknown word \"et\""));
    EXPECT_EQ(terminal.last.find("Packet Statistics"), std::string::npos) << terminal.last;
    ASSERT_TRUE(terminal.wait_for(prompt));
}

TEST(Shell, CtrlCAtThePromptClearsTheLine) {
    Terminal shell({CORVEX_SHELL});
    ASSERT_TRUE(shell.wait_for("corvex> "));
    interrupt_clears(shell, "corvex> ");  // edited with readline where the build has it
    shell.type("single-line-mode\r");
    ASSERT_TRUE(shell.wait_for("Single-line mode on"));
    ASSERT_TRUE(shell.wait_for("corvex> "));
    interrupt_clears(shell, "corvex> ");
    shell.type("quit\r");
    EXPECT_EQ(shell.status(), 1) << "two lines refused";
}

TEST(Shell, CtrlCAtTheCorvexPePromptClearsTheLine) {
#ifndef CORVEX_PE
    GTEST_SKIP() << "corvex-pe is not built for this target";
#else
    char out[] = "/tmp/corvex-shell-pe-XXXXXX";
    ASSERT_NE(mkdtemp(out), nullptr);
    Terminal pe({CORVEX_PE, "-q", "--out", out});
    ASSERT_TRUE(pe.wait_for("corvex-pe> "));
    interrupt_clears(pe, "corvex-pe> ");
    pe.type("quit\r");
    EXPECT_TRUE(pe.wait_for("Heaps at exit: 4 walk clean"));
    EXPECT_EQ(pe.status(), 1) << "one line refused";
    EXPECT_EQ(std::system(("rm -r " + std::string(out)).c_str()), 0);
#endif
}

}  // namespace
