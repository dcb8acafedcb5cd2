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
using corvex_test::record_command;
using corvex_test::recorded_commands;
using corvex_test::TreeBuilder;

namespace {

void append_text(void* text, const char* data, size_t length) { static_cast<std::string*>(text)->append(data, length); }

class Session : public testing::Test {
protected:
    Session() {
        TreeBuilder& t = builder_;
        tree_ = t.tree({t.keyword("show", "show information",
                                  {t.end(parser_vty_show, 0),
                                   t.keyword("port", "one port", {t.number(1, 48, "port number", {t.end(record_command, 2)})}),
                                   t.keyword("ports", "all ports", {t.end(record_command, 5)})}),
                        t.keyword("test", "run test command", {t.end(parser_vty_test, 0)}),
                        t.keyword("clear", "clear information", {t.end(parser_vty_clear, 0)}),
                        t.keyword("single-line-mode", "single line mode", {t.end(parser_vty_single_line_mode, 0)}, 0,
                                  true)});
        session_ = cli_session_create(&tree_);
        recorded_commands().clear();
    }
    ~Session() override { cli_session_destroy(session_); }

    TreeBuilder builder_;
    parser_tree_info tree_{};
    parser_config* session_ = nullptr;
};

TEST_F(Session, OwnOutputWinsAndTheThreadsDestinationComesBack) {
    std::string own;
    CliCapture capture;
    EXPECT_EQ(cli_session_execute(session_, "test"), CLI_OK);
    EXPECT_EQ(capture.text(), "test: magic 0, 0 items\n") << "no own output: the thread's destination";
    capture.clear();
    cli_session_output_set(session_, append_text, &own);
    EXPECT_EQ(cli_session_execute(session_, "show port 0"), CLI_OUT_OF_RANGE);
    EXPECT_EQ(own, "% Value \"0\" out of range (1-48)\n");
    parser_printf("after\n");
    EXPECT_EQ(capture.text(), "after\n");
    EXPECT_EQ(cli_session_current(), nullptr);
}

FILE* text_stream(const std::string& text) {
    return fmemopen(const_cast<char*>(text.data()), text.size(), "r");
}

TEST_F(Session, ScriptsRunEveryLineAndReportTheFailedOnes) {
    const std::string script =
        "# bring-up checks\n"
        "show ports\n"
        "\n"
        "show port 0\n"
        "   show port 5   \n"
        "  # indented comment\n"
        "show bogus";
    std::string own;
    cli_session_output_set(session_, append_text, &own);
    FILE* in = text_stream(script);
    EXPECT_EQ(cli_session_run_script(session_, in), 2);
    fclose(in);
    EXPECT_EQ(own,
              "% Value \"0\" out of range (1-48)\n"
              "% Script line 4: show port 0\n"
              "% Unknown word \"bogus\"\n"
              "% Script line 7: show bogus\n");
    const auto& calls = recorded_commands();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].magic, 5u);
    EXPECT_EQ(calls[1].items.at(0).data.unsigned_number, 5u);
    EXPECT_EQ(cli_session_run_script(nullptr, stdin), -1);
    EXPECT_EQ(cli_session_run_script(session_, nullptr), -1);
}

TEST_F(Session, InteractiveReadingStopsAtExitAndKeepsHistory) {
    const std::string typed =
        "show ports\n"
        "\n"
        "show port 0\n"
        "show port 0\n"
        "single-line-mode\n"
        "show port 7\n"
        "single-line-mode\n"
        "  exit  \n"
        "show ports\n";
    FILE* in = text_stream(typed);
    char* written = nullptr;
    size_t written_size = 0;
    FILE* out = open_memstream(&written, &written_size);
    CliCapture capture;
    EXPECT_EQ(cli_session_run_interactive(session_, in, out, "lab> "), 2);
    fclose(in);
    fclose(out);
    EXPECT_EQ(std::string(written, written_size),
              "% Value \"0\" out of range (1-48)\n"
              "% Value \"0\" out of range (1-48)\n"
              "Single-line mode on\n"
              "Single-line mode off\n")
        << "no prompt when the input is not a terminal";
    free(written);
    EXPECT_EQ(capture.text(), "") << "command text went to the terminal's stream";
    ASSERT_EQ(recorded_commands().size(), 2u) << "nothing after exit";
    // Repeated lines are kept once; single-line mode keeps no history.
    EXPECT_STREQ(cli_session_history(session_, 0), "show ports");
    EXPECT_STREQ(cli_session_history(session_, 1), "show port 0");
    EXPECT_STREQ(cli_session_history(session_, 2), "single-line-mode");
    EXPECT_EQ(cli_session_history(session_, 3), nullptr);
    EXPECT_EQ(cli_session_history(session_, -1), nullptr);

    // clear forgets the history, and is itself forgotten.
    in = text_stream("clear\n");
    out = open_memstream(&written, &written_size);
    EXPECT_EQ(cli_session_run_interactive(session_, in, out, "lab> "), 0);
    fclose(in);
    fclose(out);
    free(written);
    EXPECT_EQ(cli_session_history(session_, 0), nullptr);
    EXPECT_EQ(cli_session_run_interactive(session_, nullptr, stdout, ""), -1);
}

// Reads what the terminal shows until it contains expected (or the
// terminal stays silent for a long while).
std::string read_until(int master, const std::string& expected) {
    std::string seen;
    char buffer[256];
    for (int idle = 0; seen.find(expected) == std::string::npos && idle < 200;) {
        const ssize_t n = read(master, buffer, sizeof buffer);
        if (n > 0) {
            seen.append(buffer, static_cast<size_t>(n));
            idle = 0;
        } else {
            ++idle;
            usleep(10000);
        }
    }
    return seen;
}

TEST_F(Session, TerminalPromptsAndCompletesWhereLineEditingExists) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    fcntl(master, F_SETFL, O_NONBLOCK);
    FILE* in = fdopen(slave, "r");
    FILE* out = fdopen(dup(slave), "w");
    int failures = -1;
    std::thread terminal([&] { failures = cli_session_run_interactive(session_, in, out, "lab> "); });

    EXPECT_NE(read_until(master, "lab> ").find("lab> "), std::string::npos);
#if CORVEX_CLI_READLINE
    // Tab completes a unique word; '?' lists at once and keeps the line.
    ASSERT_EQ(write(master, "sh\t", 3), 3);
    EXPECT_NE(read_until(master, "show ").find("show "), std::string::npos);
    ASSERT_EQ(write(master, "por?", 4), 4);
    const std::string help = read_until(master, "all ports");
    EXPECT_NE(help.find("port   one port"), std::string::npos);
    EXPECT_NE(help.find("ports  all ports"), std::string::npos);
    ASSERT_EQ(write(master, "ts\n", 3), 3);
#else
    ASSERT_EQ(write(master, "show ports\n", 11), 11);
#endif
    EXPECT_NE(read_until(master, "lab> ").find("lab> "), std::string::npos);
    ASSERT_EQ(write(master, "show port 99\n", 13), 13);
    EXPECT_NE(read_until(master, "out of range").find("% Value \"99\" out of range (1-48)"), std::string::npos);
    ASSERT_EQ(write(master, "exit\n", 5), 5);
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
    auto work = [&](std::string* own_text, size_t* shared_calls) {
        parser_config* own = cli_session_create(&tree_);
        cli_session_output_set(own, append_text, own_text);
        recorded_commands().clear();
        for (int i = 0; i < kCommands; ++i) {
            EXPECT_EQ(cli_session_execute(own, "test"), CLI_OK);
            EXPECT_EQ(cli_session_execute(shared, "show ports"), CLI_OK);
        }
        *shared_calls = 0;
        for (const auto& call : recorded_commands()) *shared_calls += call.config == shared;
        cli_session_destroy(own);
    };
    std::string first_text, second_text;
    size_t first_calls = 0, second_calls = 0;
    std::thread first(work, &first_text, &first_calls);
    std::thread second(work, &second_text, &second_calls);
    first.join();
    second.join();
    std::string expected;
    for (int i = 0; i < kCommands; ++i) expected += "test: magic 0, 0 items\n";
    EXPECT_EQ(first_text, expected);
    EXPECT_EQ(second_text, expected);
    EXPECT_EQ(first_calls, size_t{kCommands});
    EXPECT_EQ(second_calls, size_t{kCommands});
    CliCapture capture;
    cli_session_execute(shared, "show");
    EXPECT_NE(capture.text().find("Commands: 400 executed, 0 failed\n"), std::string::npos) << capture.text();
    cli_session_destroy(shared);
}

}  // namespace
