// CLI sessions: where their text goes, scripts, interactive terminals, and
// sessions used from several threads at once.
#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cli_capture.h"
#include "cli_session.h"
#include "cli_tree.h"

using corvex_test::CliCapture;
using corvex_test::recorded_commands;

namespace {

void append_text(void* text, const char* data, size_t length) { static_cast<std::string*>(text)->append(data, length); }

using Session = corvex_test::LabCli;

FILE* text_stream(const std::string& text) { return fmemopen(const_cast<char*>(text.data()), text.size(), "r"); }

// Runs typed through the interactive loop of session; returns what it wrote.
std::string run_typed(parser_config* session, const std::string& typed, int expected_failures) {
    FILE* in = text_stream(typed);
    char* written = nullptr;
    size_t written_size = 0;
    FILE* out = open_memstream(&written, &written_size);
    EXPECT_EQ(cli_session_run_interactive(session, in, out, "lab> "), expected_failures);
    fclose(in);
    fclose(out);
    std::string text(written, written_size);
    free(written);
    return text;
}

TEST_F(Session, ScriptsWriteToTheSessionsOwnOutputAndReportTheFailedLines) {
    CliCapture capture;
    EXPECT_EQ(cli_session_execute(session_, "test"), CLI_OK);
    EXPECT_EQ(capture.text(), "test: magic 0, 0 items\n") << "no own output: the thread's destination";
    capture.clear();
    std::string own;
    cli_session_output_set(session_, append_text, &own);
    const std::string script =
        "# bring-up checks\nshow ports\n\nshow port 0\n   show port 5   \n  # indented comment\nshow bogus";
    FILE* in = text_stream(script);
    EXPECT_EQ(cli_session_run_script(session_, in), 2);
    fclose(in);
    EXPECT_EQ(own,
              "% Value \"0\" out of range (1-48)\n"
              "% Script line 4: show port 0\n"
              "% Unknown word \"bogus\"\n"
              "% Script line 7: show bogus\n");
    parser_printf("after\n");
    EXPECT_EQ(capture.text(), "after\n") << "the thread's destination comes back";
    EXPECT_EQ(cli_session_current(), nullptr);
    EXPECT_EQ(corvex_test::recorded_summary(), (std::vector<std::string>{"5", "2 n5"}));
    EXPECT_EQ(cli_session_run_script(nullptr, stdin), -1);
    EXPECT_EQ(cli_session_run_script(session_, nullptr), -1);
}

TEST_F(Session, InteractiveReadingStopsAtExitAndKeepsHistory) {
    CliCapture capture;
    EXPECT_EQ(run_typed(session_,
                        "show ports\n\nshow port 0\nshow port 0\nsingle-line-mode\nshow port 7\n"
                        "single-line-mode\n  exit  \nshow ports\n",
                        2),
              "% Value \"0\" out of range (1-48)\n"
              "% Value \"0\" out of range (1-48)\n"
              "Single-line mode on\n"
              "Single-line mode off\n")
        << "no prompt when the input is not a terminal";
    EXPECT_EQ(capture.text(), "") << "command text went to the terminal's stream";
    EXPECT_EQ(recorded_commands().size(), 2u) << "nothing after exit";
    // Repeated lines are kept once; single-line mode keeps no history.
    EXPECT_STREQ(cli_session_history(session_, 0), "show ports");
    EXPECT_STREQ(cli_session_history(session_, 1), "show port 0");
    EXPECT_STREQ(cli_session_history(session_, 2), "single-line-mode");
    EXPECT_EQ(cli_session_history(session_, 3), nullptr);
    EXPECT_EQ(cli_session_history(session_, -1), nullptr);
    // clear forgets the history, and is itself forgotten.
    run_typed(session_, "clear\n", 0);
    EXPECT_EQ(cli_session_history(session_, 0), nullptr);
    EXPECT_EQ(cli_session_run_interactive(session_, nullptr, stdout, ""), -1);
}

// Whether the terminal shows expected before it stays silent for a long while.
bool terminal_shows(int master, const std::string& expected) {
    std::string seen;
    char buffer[256];
    for (int idle = 0; seen.find(expected) == std::string::npos && idle < 200;) {
        const ssize_t n = read(master, buffer, sizeof buffer);
        if (n > 0) seen.append(buffer, static_cast<size_t>(n));
        idle = n > 0 ? 0 : idle + 1;
        if (n <= 0) usleep(10000);
    }
    return seen.find(expected) != std::string::npos;
}

void type(int master, const std::string& keys) {
    EXPECT_EQ(write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

TEST_F(Session, TerminalPromptsAndCompletesWhereLineEditingExists) {
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    fcntl(master, F_SETFL, O_NONBLOCK);
    FILE* in = fdopen(slave, "r");
    FILE* out = fdopen(dup(slave), "w");
    int failures = -1;
    std::thread terminal([&] { failures = cli_session_run_interactive(session_, in, out, "lab> "); });
    EXPECT_TRUE(terminal_shows(master, "lab> "));
#if CORVEX_CLI_READLINE
    // Tab completes a unique word; '?' lists at once and keeps the line.
    type(master, "sho\t");
    EXPECT_TRUE(terminal_shows(master, "show "));
    type(master, "por?");
    EXPECT_TRUE(terminal_shows(master, "  port   one port\r\n  ports  all ports"));
    type(master, "ts\n");
#else
    type(master, "show ports\n");
#endif
    EXPECT_TRUE(terminal_shows(master, "lab> "));
    type(master, "show port 99\n");
    EXPECT_TRUE(terminal_shows(master, "% Value \"99\" out of range (1-48)"));
    type(master, "exit\n");
    terminal.join();
    EXPECT_EQ(failures, 1);
    EXPECT_STREQ(cli_session_history(session_, 0), "show ports");
    EXPECT_STREQ(cli_session_history(session_, 1), "show port 99");
    fclose(in);
    fclose(out);
    close(master);
}

TEST_F(Session, SessionsOnSeveralThreadsKeepTheirOwnTerminals) {
    constexpr int kCommands = 200;
    parser_config* shared = cli_session_create(&tree_);
    std::string texts[2];
    size_t shared_calls[2] = {};
    auto work = [&](int n) {
        parser_config* own = cli_session_create(&tree_);
        cli_session_output_set(own, append_text, &texts[n]);
        recorded_commands().clear();
        for (int i = 0; i < kCommands; ++i) {
            EXPECT_EQ(cli_session_execute(own, "test"), CLI_OK);
            EXPECT_EQ(cli_session_execute(shared, "show ports"), CLI_OK);
        }
        for (const auto& call : recorded_commands()) shared_calls[n] += call.config == shared;
        cli_session_destroy(own);
    };
    std::thread first(work, 0), second(work, 1);
    first.join();
    second.join();
    std::string expected;
    for (int i = 0; i < kCommands; ++i) expected += "test: magic 0, 0 items\n";
    for (int n : {0, 1}) {
        EXPECT_EQ(texts[n], expected);
        EXPECT_EQ(shared_calls[n], size_t{kCommands});
    }
    CliCapture capture;
    cli_session_execute(shared, "show");
    EXPECT_NE(capture.text().find("Commands: 400 executed, 0 failed\n"), std::string::npos) << capture.text();
    cli_session_destroy(shared);
}

}  // namespace
