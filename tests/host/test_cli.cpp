// The CLI library on the library's own command tree: matching and
// abbreviation, numbers, errors of each kind, security levels, hidden words
// and completion; a host's own tree beside it, and the hook around its
// commands; sessions used from several threads at once, and ended from
// another thread while they wait at a terminal.
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
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
    // A line, what it prints and the status it ends with.
    struct Line {
        const char* line;
        std::string output;
        cli_status status = CLI_OK;
    };
    template <size_t N>
    void run_all(const Line (&lines)[N]) {
        for (const Line& l : lines) EXPECT_EQ(run(l.line, l.status), l.output) << l.line;
    }
    const std::string missing = "Failed to find a heap with ID 7\n";
    parser_config* session_ = cli_session_create(&libcorvex_vty_tree);
};

TEST_F(Parser, LinesReachTheirCommandsOrFailWithTheirMessage) {
    const Line lines[] = {
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
    run_all(lines);
    EXPECT_EQ(complete("show heap 7 a"), (Words{"accounting", "address"}));
    EXPECT_EQ(complete("si"), Words{}) << "hidden";
}

// A host's tree: "show pe counters" and "zap", beside the library's.
void host_command(parser_config*, parser_result*, u_int32_t magic) { parser_printf("host %u\n", magic); }
parser_type_end_of_line counters_end = {{PARSER_NODE_END_OF_LINE, nullptr, nullptr, nullptr, 0}, host_command, 1};
parser_type_end_of_line zap_end = {{PARSER_NODE_END_OF_LINE, nullptr, nullptr, nullptr, 0}, host_command, 2};
parser_type_keyword counters = {{PARSER_NODE_KEYWORD, &counters_end, nullptr, "the counters", 0}, "counters", 0, 0, 0, 0};
parser_type_keyword pe = {{PARSER_NODE_KEYWORD, &counters, nullptr, "the port extender", 0}, "pe", 0, 0, 0, 0};
parser_type_keyword zap = {{PARSER_NODE_KEYWORD, &zap_end, nullptr, "host's own", 0}, "zap", 0, 0, 0, 0};
parser_type_keyword show = {{PARSER_NODE_KEYWORD, &pe, &zap.info, "host's show", 0}, "show", 0, 0, 0, 0};
const parser_tree_info host_tree = {&show.info, nullptr};

TEST_F(Parser, AHostTreeAddsItsWordsBesideTheLibrarysAndItsHookFramesEveryCommand) {
    ASSERT_EQ(cli_session_tree_add(session_, &host_tree), 0);
    std::string hooks;
    cli_session_command_hook_set(
        session_, [](void* calls, int entering) { *static_cast<std::string*>(calls) += entering ? '(' : ')'; },
        &hooks);
    const Line lines[] = {
        {"show pe counters", "host 1\n"},
        {"sh pe c", "host 1\n"},  // abbreviated through both trees
        {"sh p c", "% Ambiguous word \"p\": packet pe\n", CLI_AMBIGUOUS},
        {"show heap 7", missing},
        {"z", "host 2\n"},
        {"show pe", "% Incomplete command\n", CLI_INCOMPLETE},
        {"s", "% Ambiguous word \"s\": show set\n", CLI_AMBIGUOUS},  // "show" of both trees is one word
        {"q", "", CLI_END},
    };
    run_all(lines);
    EXPECT_EQ(hooks, "()()()()") << "one pair around each command run, none for the session's words";
    EXPECT_EQ(complete("sh"), Words{"show"});
    EXPECT_EQ(complete("show p"), (Words{"packet", "pe"}));
    const std::string listed = run("show ?");
    EXPECT_NE(listed.find("  pe "), std::string::npos) << listed;
    const std::string top = run("?");
    EXPECT_EQ(top.find("\n  show "), top.rfind("\n  show ")) << "listed once:\n" << top;
    EXPECT_EQ(cli_session_tree_add(session_, nullptr), -1);
    while (cli_session_tree_add(session_, &host_tree) == 0) {}
    EXPECT_EQ(run("zap", CLI_OK), "host 2\n") << "a tree past the limit is refused, the others kept";
}

TEST(Session, EndedFromAnotherThreadWhileItWaitsAtATerminal) {
    int terminal, console, shown[2];
    ASSERT_EQ(openpty(&terminal, &console, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(pipe(shown), 0);
    FILE* in = fdopen(console, "r");
    FILE* out = fdopen(shown[1], "w");
    parser_config* session = cli_session_create(&libcorvex_vty_tree);
    int failures = -1;
    std::thread reader([&] { failures = cli_session_run_interactive(session, in, out, "> "); });
    ASSERT_EQ(write(terminal, "bogus\n", 6), 6);
    // The second prompt: the refused line was read, and the session waits for the next.
    std::string text;
    for (int waits = 0; waits < 1000 && text.find("> ") == text.rfind("> "); ++waits) {
        pollfd ready{shown[0], POLLIN, 0};
        char chunk[256];
        const ssize_t got = poll(&ready, 1, 10) == 1 ? read(shown[0], chunk, sizeof chunk) : 0;
        text.append(chunk, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }
    cli_session_end(session);
    reader.join();  // ends instead of waiting for more lines
    EXPECT_EQ(failures, 1) << text;
    cli_session_destroy(session);
    fclose(out);
    fclose(in);
    close(shown[0]);
    close(terminal);
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
