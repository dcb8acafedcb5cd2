// The CLI library on the library's own command tree: matching and
// abbreviation, numbers, errors of each kind, security levels, hidden words
// and completion; sessions used from several threads at once.
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cli_capture.h"
#include "cli_session.h"
#include "host_cli.h"

using corvex_test::CliCapture;

namespace {

using Words = std::vector<std::string>;

class Parser : public testing::Test {
protected:
    ~Parser() override { cli_session_destroy(session_); }
    std::string run(const char* line, cli_status expected = CLI_OK) {
        CliCapture capture;
        EXPECT_EQ(cli_session_execute(session_, line), expected) << line;
        return capture.text();
    }
    Words complete(const char* line) {
        Words words;
        const int count = cli_session_complete(
            session_, line, [](void* found, const char* word) { static_cast<Words*>(found)->push_back(word); },
            &words);
        EXPECT_EQ(count, static_cast<int>(words.size()));
        return words;
    }
    parser_config* session_ = cli_session_create(&libcorvex_vty_tree);
};

TEST_F(Parser, LinesReachTheirCommandsOrFailWithTheirMessage) {
    const std::string missing = "Failed to find a heap with ID 7\n";
    const struct {
        const char* line;
        std::string output;
        cli_status status = CLI_OK;
    } lines[] = {
        {"show heap 0x7", missing},
        {"  sh   he\t7 ", missing},  // abbreviations, spaces and tabs
        {"", ""},
        {"  # show heap 7", ""},
        {"q", "", CLI_END},  // the session's own words follow the tree's
        {"exit now", "% Unknown word \"now\"\n", CLI_UNKNOWN_WORD},
        {"SHOW heap 7", "% Unknown word \"SHOW\"\n", CLI_UNKNOWN_WORD},  // case matters
        {"s", "% Ambiguous word \"s\": show set\n", CLI_AMBIGUOUS},    // hidden words take no part
        {"single", "% Unknown word \"single\"\n", CLI_UNKNOWN_WORD},    // and are never abbreviated
        {"show heap 7 now", "% Unknown word \"now\"\n", CLI_UNKNOWN_WORD},
        {"set security 21", "% Value \"21\" out of range (0-20)\n", CLI_OUT_OF_RANGE},
        {"show heap 7 sanity active", "% \"active\" needs security level 10 (session level 0)\n", CLI_DENIED},
        {"show heap 7 blocks alloc pc", "% Incomplete command\n", CLI_INCOMPLETE},
        {"set security 10", "Security level set to 10\n"},
        {"show heap 7 sanity active", missing},
    };
    for (const auto& l : lines) EXPECT_EQ(run(l.line, l.status), l.output) << l.line;
    EXPECT_EQ(complete("show heap 7 a"), (Words{"accounting", "address"}));
    EXPECT_EQ(complete("si"), Words{}) << "hidden";
}

void append_text(void* text, const char* data, size_t length) { static_cast<std::string*>(text)->append(data, length); }

TEST(Session, SessionsOnSeveralThreadsKeepTheirOwnTerminals) {
    constexpr int kCommands = 200;
    parser_config* shared = cli_session_create(&libcorvex_vty_tree);
    std::string texts[2], discarded[2];
    auto work = [&](int n) {
        parser_config* own = cli_session_create(&libcorvex_vty_tree);
        cli_session_output_set(own, append_text, &texts[n]);
        CliCapture capture;  // what the shared session prints on this thread
        for (int i = 0; i < kCommands; ++i) {
            EXPECT_EQ(cli_session_execute(own, "test"), CLI_OK);
            EXPECT_EQ(cli_session_execute(shared, "show heap 7"), CLI_OK);
        }
        discarded[n] = capture.text();
        cli_session_destroy(own);
    };
    std::thread first(work, 0), second(work, 1);
    first.join();
    second.join();
    std::string expected, missing;
    for (int i = 0; i < kCommands; ++i) expected += "test: magic 0, 0 items\n";
    for (int i = 0; i < kCommands; ++i) missing += "Failed to find a heap with ID 7\n";
    for (int n : {0, 1}) EXPECT_EQ(std::tuple(texts[n], discarded[n]), std::tuple(expected, missing));
    CliCapture capture;
    cli_session_execute(shared, "show");
    EXPECT_NE(capture.text().find("Commands: 400 executed, 0 failed\n"), std::string::npos) << capture.text();
    cli_session_destroy(shared);
}

}  // namespace
