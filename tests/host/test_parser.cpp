// The CLI library's parser: matching, values, ranges, help, completion,
// security levels and hidden words, and the host's root commands.
#include <cstring>
#include <string>
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

constexpr u_int64_t kU64Max = 18446744073709551615ull;

// A lab switch's commands, shaped like the ones the library hangs below
// the host's roots.
class Parser : public testing::Test {
protected:
    Parser() {
        TreeBuilder& t = builder_;
        port_number_ = t.number(1, 48, "port number",
                                {t.end(record_command, 2), t.keyword("counters", "port counters", {t.end(record_command, 3)}),
                                 t.keyword("config", "port configuration", {t.end(record_command, 4)})});
        auto* show = t.keyword(
            "show", "show information",
            {t.end(parser_vty_show, 0), t.keyword("port", "one port", {port_number_}),
             t.keyword("ports", "all ports", {t.end(record_command, 5)}),
             t.keyword("memory", "memory at an address",
                       {t.address(0x1000, 0xffff, "memory address",
                                  {t.end(record_command, 6),
                                   t.number(0, kU64Max, "byte count", {t.end(record_command, 7)})})}),
             t.keyword("secret", "secret data", {t.end(record_command, 8)}, 10),
             t.keyword("limit", "a limit that may be left out",
                       {t.number(7, 99, "limit", {t.end(record_command, 12)}, true)})});
        auto* set = t.keyword(
            "set", "set parameters",
            {t.keyword("security", "set the parser security level",
                       {t.number(0, 20, "security level", {t.end(parser_vty_set, 0)})}),
             t.keyword("speed", "port speed",
                       {t.number(1, 48, "port", {t.number(10, 100000, "speed in Mbit/s", {t.end(record_command, 9)})})})});
        auto* fast = t.keyword("fast", "fast mode", {t.end(record_command, 11)});
        t.last_keyword().usevalue = 1;
        t.last_keyword().value = 3;
        auto* slow = t.keyword("slow", "slow mode", {t.end(record_command, 11)});
        t.last_keyword().usevalue = 1;
        t.last_keyword().value = -1;
        t.last_keyword().no_case_sense = 1;
        tree_ = t.tree({show, set, t.keyword("shutdown", "stop the device", {t.end(record_command, 10)}),
                        t.keyword("mode", "running mode", {fast, slow}),
                        t.keyword("debug", "enable debugging", {t.end(parser_vty_debug, 0)}),
                        t.keyword("undebug", "disable debugging", {t.end(parser_vty_undebug, 0)}),
                        t.keyword("clear", "clear information", {t.end(parser_vty_clear, 0)}),
                        t.keyword("test", "run test command", {t.end(parser_vty_test, 0)}),
                        t.keyword("single-line-mode", "single line mode", {t.end(parser_vty_single_line_mode, 0)}, 0,
                                  true)});
        session_ = cli_session_create(&tree_);
        recorded_commands().clear();
    }
    ~Parser() override { cli_session_destroy(session_); }

    // Runs line and returns what it printed.
    std::string run(const char* line, cli_status expected = CLI_OK) {
        CliCapture capture;
        EXPECT_EQ(cli_session_execute(session_, line), expected) << line;
        return capture.text();
    }

    std::vector<std::string> complete(const char* line) {
        std::vector<std::string> words;
        const int count = cli_session_complete(
            session_, line, [](void* found, const char* word) { static_cast<std::vector<std::string>*>(found)->push_back(word); },
            &words);
        EXPECT_EQ(count, static_cast<int>(words.size()));
        return words;
    }

    TreeBuilder builder_;
    parser_node_info* port_number_ = nullptr;
    parser_tree_info tree_{};
    parser_config* session_ = nullptr;
};

TEST_F(Parser, CallbacksGetTheValuesInTypedOrderAndTheirSelector) {
    EXPECT_EQ(run("show port 5 counters"), "");
    EXPECT_EQ(run("  set   speed 0x10\t1000 "), "");
    EXPECT_EQ(run("show memory 0x2000 64"), "");
    EXPECT_EQ(run("show memory 4096"), "");
    EXPECT_EQ(run("show ports"), "");
    EXPECT_EQ(run("show memory 0xFFFF 0xffffffffffffffff"), "");

    const auto& calls = recorded_commands();
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[0].config, session_) << "callbacks get the session's configuration";
    EXPECT_EQ(calls[0].magic, 3u);
    ASSERT_EQ(calls[0].items.size(), 1u);
    EXPECT_EQ(calls[0].items[0].type, PARSER_RES_unsigned_number);
    EXPECT_EQ(calls[0].items[0].data.unsigned_number, 5u);
    EXPECT_EQ(calls[0].items[0].source_node, port_number_);
    EXPECT_EQ(calls[0].items[0].subtree_results, nullptr);

    EXPECT_EQ(calls[1].magic, 9u);
    ASSERT_EQ(calls[1].items.size(), 2u);
    EXPECT_EQ(calls[1].items[0].data.unsigned_number, 16u);
    EXPECT_EQ(calls[1].items[1].data.unsigned_number, 1000u);

    EXPECT_EQ(calls[2].magic, 7u);
    ASSERT_EQ(calls[2].items.size(), 2u);
    EXPECT_EQ(calls[2].items[0].type, PARSER_RES_address);
    EXPECT_EQ(calls[2].items[0].data.address, reinterpret_cast<void*>(0x2000));
    EXPECT_EQ(calls[2].items[1].type, PARSER_RES_unsigned_number);
    EXPECT_EQ(calls[2].items[1].data.unsigned_number, 64u);

    EXPECT_EQ(calls[3].magic, 6u);
    ASSERT_EQ(calls[3].items.size(), 1u);
    EXPECT_EQ(calls[3].items[0].data.address, reinterpret_cast<void*>(0x1000)) << "addresses in decimal too";

    EXPECT_EQ(calls[4].magic, 5u);
    EXPECT_TRUE(calls[4].items.empty()) << "keywords add no item";

    EXPECT_EQ(calls[5].items[0].data.address, reinterpret_cast<void*>(0xffff));
    EXPECT_EQ(calls[5].items[1].data.unsigned_number, kU64Max);
}

TEST_F(Parser, KeywordsWithValuesAndCaseRules) {
    run("mode fast");
    run("mode SloW");
    EXPECT_EQ(run("mode FAST", CLI_UNKNOWN_WORD), "% Unknown word \"FAST\"\n") << "case matters by default";
    EXPECT_EQ(run("Show ports", CLI_UNKNOWN_WORD), "% Unknown word \"Show\"\n");
    const auto& calls = recorded_commands();
    ASSERT_EQ(calls.size(), 2u);
    ASSERT_EQ(calls[0].items.size(), 1u);
    EXPECT_EQ(calls[0].items[0].type, PARSER_RES_keyword_value);
    EXPECT_EQ(calls[0].items[0].data.keyword_value, 3);
    EXPECT_EQ(calls[1].items[0].data.keyword_value, -1);
}

TEST_F(Parser, NumbersAndAddressesMustFitTheirRange) {
    EXPECT_EQ(run("show port 0", CLI_OUT_OF_RANGE), "% Value \"0\" out of range (1-48)\n");
    EXPECT_EQ(run("show port 49", CLI_OUT_OF_RANGE), "% Value \"49\" out of range (1-48)\n");
    EXPECT_EQ(run("show port 0x31", CLI_OUT_OF_RANGE), "% Value \"0x31\" out of range (1-48)\n");
    EXPECT_EQ(run("show memory 0x2000 18446744073709551616", CLI_OUT_OF_RANGE),
              "% Value \"18446744073709551616\" out of range (0-18446744073709551615)\n");
    EXPECT_EQ(run("set security 21", CLI_OUT_OF_RANGE), "% Value \"21\" out of range (0-20)\n");
    EXPECT_EQ(run("show memory 0xfff", CLI_OUT_OF_RANGE), "% Address \"0xfff\" out of range (0x1000-0xffff)\n");
    EXPECT_EQ(run("show memory 0x10000", CLI_OUT_OF_RANGE), "% Address \"0x10000\" out of range (0x1000-0xffff)\n");
    // Not numbers at all.
    EXPECT_EQ(run("show port 0x", CLI_UNKNOWN_WORD), "% Unknown word \"0x\"\n");
    EXPECT_EQ(run("show port -1", CLI_UNKNOWN_WORD), "% Unknown word \"-1\"\n");
    EXPECT_EQ(run("show port 5g", CLI_UNKNOWN_WORD), "% Unknown word \"5g\"\n");
    EXPECT_TRUE(recorded_commands().empty());

    run("show port 1");
    run("show port 48");
    run("show port 0x30");
    ASSERT_EQ(recorded_commands().size(), 3u);
    EXPECT_EQ(recorded_commands()[2].items[0].data.unsigned_number, 48u);
}

TEST_F(Parser, AbbreviationsMustBeUniqueAndFullWordsWin) {
    EXPECT_EQ(run("sh ports", CLI_AMBIGUOUS), "% Ambiguous word \"sh\": show shutdown\n");
    EXPECT_EQ(run("s", CLI_AMBIGUOUS), "% Ambiguous word \"s\": show set shutdown\n")
        << "hidden words take no part in abbreviations";
    EXPECT_EQ(run("sho po 5", CLI_AMBIGUOUS), "% Ambiguous word \"po\": port ports\n");
    run("sho port 5 cou");  // "port" typed in full wins over "ports"
    run("sho ports");
    run("sho m 0x1000");
    EXPECT_EQ(run("show portz", CLI_UNKNOWN_WORD), "% Unknown word \"portz\"\n");
    EXPECT_EQ(run("show ports now", CLI_UNKNOWN_WORD), "% Unknown word \"now\"\n") << "nothing after a complete command";
    const auto& calls = recorded_commands();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].magic, 3u);
    EXPECT_EQ(calls[1].magic, 5u);
    EXPECT_EQ(calls[2].magic, 6u);
}

TEST_F(Parser, LinesThatCannotEndThereAreIncomplete) {
    for (const char* line : {"set", "show port", "set speed 5", "set security", "show memory"}) {
        EXPECT_EQ(run(line, CLI_INCOMPLETE), "% Incomplete command\n") << line;
    }
    EXPECT_EQ(run(""), "") << "an empty line does nothing";
    EXPECT_EQ(run("   \t"), "");
    EXPECT_TRUE(recorded_commands().empty());
    // A value node that may be left out stands in with its minimum.
    run("show limit");
    run("show limit 50");
    ASSERT_EQ(recorded_commands().size(), 2u);
    EXPECT_EQ(recorded_commands()[0].items.at(0).data.unsigned_number, 7u);
    EXPECT_EQ(recorded_commands()[1].items.at(0).data.unsigned_number, 50u);
}

TEST_F(Parser, QuestionMarkListsWhatMayComeNext) {
    EXPECT_EQ(run("?"),
              "  show      show information\n"
              "  set       set parameters\n"
              "  shutdown  stop the device\n"
              "  mode      running mode\n"
              "  debug     enable debugging\n"
              "  undebug   disable debugging\n"
              "  clear     clear information\n"
              "  test      run test command\n");
    EXPECT_EQ(run("show ?"),
              "  <cr>\n"
              "  port    one port\n"
              "  ports   all ports\n"
              "  memory  memory at an address\n"
              "  limit   a limit that may be left out\n");
    EXPECT_EQ(run("sho po?"),
              "  port   one port\n"
              "  ports  all ports\n");
    EXPECT_EQ(run("show port ?"), "  <1-48>  port number\n");
    EXPECT_EQ(run("show port 4?"), "  <1-48>  port number\n");
    EXPECT_EQ(run("show port 5 ?"),
              "  <cr>\n"
              "  counters  port counters\n"
              "  config    port configuration\n");
    EXPECT_EQ(run("show memory ?"), "  <0x1000-0xffff>  memory address\n");
    EXPECT_EQ(run("show x?", CLI_UNKNOWN_WORD), "% Unknown word \"x\"\n");
    EXPECT_EQ(run("shw ?", CLI_UNKNOWN_WORD), "% Unknown word \"shw\"\n");
    EXPECT_EQ(run("show ports ?"), "  <cr>\n");
    EXPECT_TRUE(recorded_commands().empty()) << "help executes nothing";
}

TEST_F(Parser, TabCompletionOffersListedWords) {
    EXPECT_EQ(complete("sh"), (std::vector<std::string>{"show", "shutdown"}));
    EXPECT_EQ(complete("show p"), (std::vector<std::string>{"port", "ports"}));
    EXPECT_EQ(complete("show port 5 c"), (std::vector<std::string>{"counters", "config"}));
    EXPECT_EQ(complete("show port "), (std::vector<std::string>{})) << "numbers are not completed";
    EXPECT_EQ(complete("si"), (std::vector<std::string>{})) << "hidden";
    EXPECT_EQ(complete("show se"), (std::vector<std::string>{})) << "above the session's level";
    EXPECT_EQ(complete("shw p"), (std::vector<std::string>{}));
    EXPECT_EQ(complete("").size(), 8u);
}

TEST_F(Parser, SecurityLevelsAndHiddenWords) {
    EXPECT_EQ(run("show secret", CLI_DENIED), "% \"secret\" needs security level 10 (session level 0)\n");
    EXPECT_EQ(run("show sec", CLI_UNKNOWN_WORD), "% Unknown word \"sec\"\n")
        << "words above the session's level must be typed in full";
    EXPECT_EQ(run("show ?").find("secret"), std::string::npos);

    EXPECT_EQ(run("set security 10"), "Security level set to 10\n");
    EXPECT_EQ(cli_session_security_level(session_), 10);
    EXPECT_EQ(run("show sec"), "");
    EXPECT_NE(run("show ?").find("  secret  secret data\n"), std::string::npos);
    EXPECT_EQ(complete("show se"), (std::vector<std::string>{"secret"}));
    ASSERT_EQ(recorded_commands().size(), 1u);
    EXPECT_EQ(recorded_commands()[0].magic, 8u);

    // Hidden: accepted in full, never listed, never abbreviated.
    EXPECT_EQ(run("single-line-mode"), "Single-line mode on\n");
    EXPECT_EQ(cli_session_single_line_mode(session_), 1);
    EXPECT_EQ(run("single-line-mode"), "Single-line mode off\n");
    EXPECT_EQ(run("single", CLI_UNKNOWN_WORD), "% Unknown word \"single\"\n");
    EXPECT_EQ(run("?").find("single"), std::string::npos);

    // The end of a command can ask for a level of its own.
    TreeBuilder t;
    parser_tree_info guarded = t.tree({t.keyword("reload", "restart", {t.end(record_command, 1, 15)})});
    parser_config* session = cli_session_create(&guarded);
    cli_session_security_level_set(session, 14);
    {
        CliCapture capture;
        EXPECT_EQ(cli_session_execute(session, "reload"), CLI_DENIED);
        EXPECT_EQ(capture.text(), "% Command needs security level 15 (session level 14)\n");
        EXPECT_EQ(cli_session_execute(session, "?"), CLI_OK);
        EXPECT_EQ(capture.text().find("<cr>"), std::string::npos);
    }
    cli_session_security_level_set(session, 15);
    EXPECT_EQ(cli_session_execute(session, "reload"), CLI_OK);
    cli_session_destroy(session);
}

TEST_F(Parser, RootCommandsActOnTheExecutingSession) {
    EXPECT_EQ(run("debug"), "Parser debugging is on\n");
    EXPECT_EQ(cli_session_debugging(session_), 1);
    EXPECT_EQ(run("show memory 0x1234 9"),
              "parser: magic 7, 2 items\n"
              "  0: address 0x1234\n"
              "  1: number 9\n");
    EXPECT_EQ(run("mode fast"), "parser: magic 11, 1 item\n  0: keyword value 3\n");
    EXPECT_EQ(run("undebug"), "parser: magic 0, 0 items\nParser debugging is off\n") << "traced while on";
    EXPECT_EQ(run("show ports"), "");
    EXPECT_EQ(run("test"), "test: magic 0, 0 items\n");
    run("show port 99", CLI_OUT_OF_RANGE);
    EXPECT_EQ(run("show"),
              "Security level: 0\n"
              "Parser debugging: off\n"
              "Single-line mode: off\n"
              "Commands: 6 executed, 1 failed\n"
              "History: 0 lines\n");
    EXPECT_EQ(run("clear"), "Session history and counters cleared\n");
    EXPECT_NE(run("show").find("Commands: 1 executed, 0 failed\n"), std::string::npos) << "clear itself";

    // Outside a session the handlers have nothing to act on.
    CliCapture capture;
    parser_result none{};
    parser_vty_show(nullptr, &none, 0);
    parser_vty_set(nullptr, &none, 0);
    EXPECT_EQ(capture.text(), "% No session\n% No session\n");
    EXPECT_EQ(cli_session_current(), nullptr);
}

void set_without_level(parser_config* config, parser_result*, u_int32_t magic) {
    parser_result empty{};
    parser_vty_set(config, &empty, magic);
}

TEST(ParserLimits, TwentyValuesAtMostAndNoHandlerNoSession) {
    TreeBuilder t;
    // "v" followed by 21 numbers; the line may end after the 20th or the 21st.
    parser_node_info* after = t.end(record_command, 21);
    after = t.number(0, 9, "21st", {after});
    after = t.number(0, 9, "20th", {t.end(record_command, 20), after});
    for (int i = 19; i >= 1; --i) after = t.number(0, 9, "value", {after});
    parser_tree_info tree = t.tree({t.keyword("v", "values", {after}), t.keyword("none", "no handler", {t.end(nullptr, 0)}),
                                    t.keyword("set", "bare set", {t.end(set_without_level, 0)})});
    parser_config* session = cli_session_create(&tree);
    recorded_commands().clear();
    std::string twenty = "v";
    for (int i = 0; i < 20; ++i) twenty += " " + std::to_string(i % 10);
    CliCapture capture;
    EXPECT_EQ(cli_session_execute(session, twenty.c_str()), CLI_OK);
    ASSERT_EQ(recorded_commands().size(), 1u);
    EXPECT_EQ(recorded_commands()[0].items.size(), 20u);
    EXPECT_EQ(recorded_commands()[0].items[19].data.unsigned_number, 9u);
    EXPECT_EQ(cli_session_execute(session, (twenty + " 1").c_str()), CLI_TOO_MANY_VALUES);
    EXPECT_EQ(cli_session_execute(session, "none"), CLI_NO_HANDLER);
    EXPECT_EQ(cli_session_execute(session, "set"), CLI_OK);
    EXPECT_EQ(capture.text(), "% Too many values (at most 20)\n% Command has no handler\n% Nothing to set\n");
    EXPECT_EQ(recorded_commands().size(), 1u);
    EXPECT_EQ(cli_session_execute(nullptr, "v"), CLI_INVALID);
    EXPECT_EQ(cli_session_execute(session, nullptr), CLI_INVALID);
    EXPECT_EQ(cli_session_create(nullptr), nullptr);
    cli_session_destroy(session);
}

// A node type of the tree's own: a lowercase name, handed over as a copy.
constexpr int kNameNode = 42;
int names_released = 0;
std::vector<std::string> names_seen;

int parse_name(const parser_node_info*, const char* word, parser_item* item) {
    for (const char* c = word; *c != '\0'; ++c) {
        if (*c < 'a' || *c > 'z') return -1;
    }
    item->type = PARSER_RES_string;
    item->data.string = strdup(word);
    return 1;
}
int expand_name(const parser_node_info*, const char* prefix, char* buffer, size_t size) {
    if (strncmp("alpha", prefix, strlen(prefix)) != 0) return 0;
    snprintf(buffer, size, "alpha");
    return 1;
}
void name_help(const parser_node_info*, char* buffer, size_t size) { snprintf(buffer, size, "<name>"); }
void name_debug(const parser_node_info*, const parser_item* item) { parser_printf("name %s", item->data.string); }
void release_name(parser_item* item) {
    free(const_cast<char*>(item->data.string));
    ++names_released;
}
void greet(parser_config*, parser_result* result, u_int32_t) {
    for (int i = 0; i < result->item_count; ++i) names_seen.emplace_back(result->item[i].data.string);
}

TEST(ParserExtraNodes, TheTreesOwnParsersHandleTheirNodeTypes) {
    parser_cmd_info parsers[] = {{kNameNode, parse_name, expand_name, name_help, name_debug, release_name},
                                 {0, nullptr, nullptr, nullptr, nullptr, nullptr}};
    TreeBuilder t;
    parser_tree_info tree = t.tree(
        {t.keyword("hello", "greet someone",
                   {t.custom(kNameNode, "a lowercase name", {t.end(greet, 1), t.custom(kNameNode, "another", {t.end(greet, 2)})})}),
         t.keyword("debug", "enable debugging", {t.end(parser_vty_debug, 0)}),
         t.keyword("odd", "a node nobody parses", {t.custom(77, "unknown type", {t.end(greet, 3)})})},
        parsers);
    parser_config* session = cli_session_create(&tree);
    names_seen.clear();
    names_released = 0;
    CliCapture capture;
    EXPECT_EQ(cli_session_execute(session, "hello alice bob"), CLI_OK);
    EXPECT_EQ(names_seen, (std::vector<std::string>{"alice", "bob"}));
    EXPECT_EQ(names_released, 2) << "every value released after the callback";
    EXPECT_EQ(cli_session_execute(session, "hello Bob"), CLI_UNKNOWN_WORD);
    EXPECT_EQ(cli_session_execute(session, "hello alice Bob"), CLI_UNKNOWN_WORD);
    EXPECT_EQ(names_released, 3) << "released when the line fails too";
    EXPECT_EQ(cli_session_execute(session, "odd thing"), CLI_UNKNOWN_WORD);
    EXPECT_EQ(capture.text(), "% Unknown word \"Bob\"\n% Unknown word \"Bob\"\n% Unknown word \"thing\"\n");
    capture.clear();
    EXPECT_EQ(cli_session_execute(session, "hello ?"), CLI_OK);
    EXPECT_EQ(capture.text(), "  <name>  a lowercase name\n");
    capture.clear();
    cli_session_execute(session, "debug");
    cli_session_execute(session, "hello carol");
    EXPECT_EQ(capture.text(), "Parser debugging is on\nparser: magic 1, 1 item\n  0: name carol\n");
    std::vector<std::string> words;
    cli_session_complete(
        session, "hello al", [](void* found, const char* word) { static_cast<std::vector<std::string>*>(found)->push_back(word); },
        &words);
    EXPECT_EQ(words, (std::vector<std::string>{"alpha"}));
    EXPECT_EQ(names_released, 4);
    cli_session_destroy(session);
}

}  // namespace
