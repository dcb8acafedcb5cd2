// CLI sessions: where their text goes, scripts, typed lines, and sessions
// used from several threads at once.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

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

TEST_F(Session, ScriptsAndTypedLinesReportTheFailedLinesAndKeepHistory) {
    std::string own;
    cli_session_output_set(session_, append_text, &own);
    const std::string script = "# bring-up checks\nshow ports\n\n  # indented comment\nshow bogus";
    FILE* in = text_stream(script);
    EXPECT_EQ(cli_session_run_script(session_, in), 1);
    fclose(in);
    EXPECT_EQ(own, "% Unknown word \"bogus\"\n% Script line 5: show bogus\n");
    cli_session_output_set(session_, nullptr, nullptr);
    // No prompt when the input is not a terminal; repeated lines are kept once; nothing after exit.
    EXPECT_EQ(run_typed(session_, "show port 0\nshow port 0\n exit \nshow ports\n", 2),
              "% Value \"0\" out of range (1-48)\n% Value \"0\" out of range (1-48)\n");
    EXPECT_EQ(std::tuple(std::string(cli_session_history(session_, 0)), cli_session_history(session_, 1)),
              std::tuple("show port 0", nullptr));
    EXPECT_EQ(corvex_test::recorded_summary(), std::vector<std::string>{"5"});
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
