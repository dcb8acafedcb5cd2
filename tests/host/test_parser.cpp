// The CLI library's parser: matching, values, ranges, help, completion,
// security levels and hidden words, and the host's root commands.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli_tree.h"

using corvex_test::CliCapture;
using corvex_test::record_command;
using corvex_test::recorded_commands;
using corvex_test::TreeBuilder;

namespace {

using Parser = corvex_test::LabCli;
using Calls = std::vector<std::string>;

TEST_F(Parser, CallbacksGetTheValuesInTypedOrderAndTheirSelector) {
    expect_lines({{"show port 5 counters"},
                  {"  set   speed 0x10\t1000 "},
                  {"show memory 0x2000 64"},
                  {"show memory 4096"},
                  {"show ports"},
                  {"show memory 0xFFFF 0xffffffffffffffff"},
                  {"mode fast"},
                  {"mode SloW"},
                  {"mode FAST", "% Unknown word \"FAST\"\n", CLI_UNKNOWN_WORD},  // case matters by default
                  {"Show ports", "% Unknown word \"Show\"\n", CLI_UNKNOWN_WORD}});
    EXPECT_EQ(corvex_test::recorded_summary(), (Calls{"3 n5", "9 n16 n1000", "7 a0x2000 n64", "6 a0x1000", "5",
                                                      "7 a0xffff n18446744073709551615", "11 k3", "11 k-1"}));
    const auto& first = recorded_commands().at(0);
    EXPECT_EQ(first.config, session_) << "callbacks get the session's configuration";
    EXPECT_EQ(first.items.at(0).source_node, port_number_);
    EXPECT_EQ(first.items.at(0).subtree_results, nullptr);
}

TEST_F(Parser, NumbersAndAddressesMustFitTheirRange) {
    expect_lines({{"show port 0", "% Value \"0\" out of range (1-48)\n", CLI_OUT_OF_RANGE},
                  {"show port 49", "% Value \"49\" out of range (1-48)\n", CLI_OUT_OF_RANGE},
                  {"show port 0x31", "% Value \"0x31\" out of range (1-48)\n", CLI_OUT_OF_RANGE},
                  {"show memory 0x2000 18446744073709551616",
                   "% Value \"18446744073709551616\" out of range (0-18446744073709551615)\n", CLI_OUT_OF_RANGE},
                  {"set security 21", "% Value \"21\" out of range (0-20)\n", CLI_OUT_OF_RANGE},
                  {"show memory 0xfff", "% Address \"0xfff\" out of range (0x1000-0xffff)\n", CLI_OUT_OF_RANGE},
                  {"show memory 0x10000", "% Address \"0x10000\" out of range (0x1000-0xffff)\n", CLI_OUT_OF_RANGE},
                  {"show port 0x", "% Unknown word \"0x\"\n", CLI_UNKNOWN_WORD},
                  {"show port -1", "% Unknown word \"-1\"\n", CLI_UNKNOWN_WORD},
                  {"show port 5g", "% Unknown word \"5g\"\n", CLI_UNKNOWN_WORD},
                  {"show port 1"},
                  {"show port 48"},
                  {"show port 0x30"}});
    EXPECT_EQ(corvex_test::recorded_summary(), (Calls{"2 n1", "2 n48", "2 n48"}));
}

TEST_F(Parser, AbbreviationsMustBeUniqueAndFullWordsWin) {
    expect_lines({{"sh ports", "% Ambiguous word \"sh\": show shutdown\n", CLI_AMBIGUOUS},
                  {"s", "% Ambiguous word \"s\": show set shutdown\n", CLI_AMBIGUOUS},  // hidden words take no part
                  {"sho po 5", "% Ambiguous word \"po\": port ports\n", CLI_AMBIGUOUS},
                  {"sho port 5 cou"},  // "port" typed in full wins over "ports"
                  {"sho ports"},
                  {"sho m 0x1000"},
                  {"show portz", "% Unknown word \"portz\"\n", CLI_UNKNOWN_WORD},
                  {"show ports now", "% Unknown word \"now\"\n", CLI_UNKNOWN_WORD}});
    EXPECT_EQ(corvex_test::recorded_summary(), (Calls{"3 n5", "5", "6 a0x1000"}));
}

TEST_F(Parser, LinesThatCannotEndThereAreIncomplete) {
    for (const char* line : {"set", "show port", "set speed 5", "set security", "show memory"}) {
        EXPECT_EQ(run(line, CLI_INCOMPLETE), "% Incomplete command\n") << line;
    }
    // Empty lines do nothing; a value node that may be left out stands in with its minimum.
    expect_lines({{""}, {"   \t"}, {"show limit"}, {"show limit 50"}});
    EXPECT_EQ(corvex_test::recorded_summary(), (Calls{"12 n7", "12 n50"}));
}

TEST_F(Parser, QuestionMarkListsWhatMayComeNextAndExecutesNothing) {
    expect_lines({{"?",
                   "  show      show information\n  set       set parameters\n  shutdown  stop the device\n"
                   "  mode      running mode\n  debug     enable debugging\n  undebug   disable debugging\n"
                   "  clear     clear information\n  test      run test command\n"},
                  {"show ?",
                   "  <cr>\n  port    one port\n  ports   all ports\n  memory  memory at an address\n"
                   "  limit   a limit that may be left out\n"},
                  {"sho po?", "  port   one port\n  ports  all ports\n"},
                  {"show port ?", "  <1-48>  port number\n"},
                  {"show port 4?", "  <1-48>  port number\n"},
                  {"show port 5 ?", "  <cr>\n  counters  port counters\n  config    port configuration\n"},
                  {"show memory ?", "  <0x1000-0xffff>  memory address\n"},
                  {"show x?", "% Unknown word \"x\"\n", CLI_UNKNOWN_WORD},
                  {"shw ?", "% Unknown word \"shw\"\n", CLI_UNKNOWN_WORD},
                  {"show ports ?", "  <cr>\n"}});
    EXPECT_TRUE(recorded_commands().empty());
}

TEST_F(Parser, TabCompletionOffersListedWords) {
    EXPECT_EQ(complete("sh"), (Calls{"show", "shutdown"}));
    EXPECT_EQ(complete("show p"), (Calls{"port", "ports"}));
    EXPECT_EQ(complete("show port 5 c"), (Calls{"counters", "config"}));
    for (const char* none : {"show port ", "si", "show se", "shw p"}) {  // number, hidden, above level, unknown
        EXPECT_EQ(complete(none), Calls{}) << none;
    }
    EXPECT_EQ(complete("").size(), 8u);
}

TEST_F(Parser, SecurityLevelsAndHiddenWords) {
    // Words above the session's level must be typed in full and are not listed.
    expect_lines({{"show secret", "% \"secret\" needs security level 10 (session level 0)\n", CLI_DENIED},
                  {"show sec", "% Unknown word \"sec\"\n", CLI_UNKNOWN_WORD},
                  {"set security 10", "Security level set to 10\n"},
                  {"show sec"}});
    EXPECT_EQ(cli_session_security_level(session_), 10);
    EXPECT_EQ(corvex_test::recorded_summary(), Calls{"8"});
    EXPECT_NE(run("show ?").find("  secret  secret data\n"), std::string::npos);
    EXPECT_EQ(complete("show se"), Calls{"secret"});
    cli_session_security_level_set(session_, 0);
    EXPECT_EQ(run("show ?").find("secret"), std::string::npos);

    // Hidden: accepted in full, never listed, never abbreviated.
    EXPECT_EQ(run("single-line-mode"), "Single-line mode on\n");
    EXPECT_EQ(cli_session_single_line_mode(session_), 1);
    expect_lines({{"single-line-mode", "Single-line mode off\n"},
                  {"single", "% Unknown word \"single\"\n", CLI_UNKNOWN_WORD}});
    EXPECT_EQ(run("?").find("single"), std::string::npos);
}

TEST_F(Parser, RootCommandsActOnTheExecutingSession) {
    EXPECT_EQ(run("debug"), "Parser debugging is on\n");
    EXPECT_EQ(cli_session_debugging(session_), 1);
    expect_lines({{"show memory 0x1234 9", "parser: magic 7, 2 items\n  0: address 0x1234\n  1: number 9\n"},
                  {"mode fast", "parser: magic 11, 1 item\n  0: keyword value 3\n"},
                  {"undebug", "parser: magic 0, 0 items\nParser debugging is off\n"},  // traced while on
                  {"show ports"},
                  {"test", "test: magic 0, 0 items\n"},
                  {"show port 99", "% Value \"99\" out of range (1-48)\n", CLI_OUT_OF_RANGE},
                  {"show",
                   "Security level: 0\nParser debugging: off\nSingle-line mode: off\n"
                   "Commands: 6 executed, 1 failed\nHistory: 0 lines\n"},
                  {"clear", "Session history and counters cleared\n"}});
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

TEST(ParserLimits, TwentyValuesAtMostNoHandlerAndLevelsAtTheEnd) {
    TreeBuilder t;
    // "v" followed by 21 numbers; the line may end after the 20th or the 21st.
    parser_node_info* after = t.end(record_command, 21);
    after = t.number(0, 9, "21st", {after});
    after = t.number(0, 9, "20th", {t.end(record_command, 20), after});
    for (int i = 19; i >= 1; --i) after = t.number(0, 9, "value", {after});
    parser_tree_info tree = t.tree({t.keyword("v", "values", {after}), t.keyword("none", "no handler", {t.end(nullptr, 0)}),
                                    t.keyword("set", "bare set", {t.end(set_without_level, 0)}),
                                    t.keyword("reload", "restart", {t.end(record_command, 1, 15)})});
    parser_config* session = cli_session_create(&tree);
    recorded_commands().clear();
    std::string twenty = "v", recorded = "20";
    for (int i = 0; i < 20; ++i) {
        twenty += " " + std::to_string(i % 10);
        recorded += " n" + std::to_string(i % 10);
    }
    CliCapture capture;
    EXPECT_EQ(cli_session_execute(session, twenty.c_str()), CLI_OK);
    EXPECT_EQ(cli_session_execute(session, (twenty + " 1").c_str()), CLI_TOO_MANY_VALUES);
    EXPECT_EQ(cli_session_execute(session, "none"), CLI_NO_HANDLER);
    EXPECT_EQ(cli_session_execute(session, "set"), CLI_OK);
    // The end of a command can ask for a level of its own.
    cli_session_security_level_set(session, 14);
    EXPECT_EQ(cli_session_execute(session, "reload"), CLI_DENIED);
    EXPECT_EQ(cli_session_execute(session, "reload ?"), CLI_UNKNOWN_WORD) << "no <cr> to offer";
    EXPECT_EQ(capture.text(),
              "% Too many values (at most 20)\n% Command has no handler\n% Nothing to set\n"
              "% Command needs security level 15 (session level 14)\n% Nothing may follow\n");
    cli_session_security_level_set(session, 15);
    EXPECT_EQ(cli_session_execute(session, "reload"), CLI_OK);
    EXPECT_EQ(corvex_test::recorded_summary(), (Calls{recorded, "1"}));
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
    if (strspn(word, "abcdefghijklmnopqrstuvwxyz") != strlen(word)) return -1;
    item->type = PARSER_RES_string;
    item->data.string = strdup(word);
    return 1;
}
int expand_name(const parser_node_info*, const char* prefix, char* buffer, size_t size) {
    return strncmp("alpha", prefix, strlen(prefix)) == 0 ? (snprintf(buffer, size, "alpha"), 1) : 0;
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
    CliCapture capture;
    const std::pair<const char*, cli_status> lines[] = {{"hello alice bob", CLI_OK},
                                                       {"hello Bob", CLI_UNKNOWN_WORD},
                                                       {"hello alice Bob", CLI_UNKNOWN_WORD},
                                                       {"odd thing", CLI_UNKNOWN_WORD},
                                                       {"hello ?", CLI_OK},
                                                       {"debug", CLI_OK},
                                                       {"hello carol", CLI_OK}};
    for (const auto& [line, status] : lines) EXPECT_EQ(cli_session_execute(session, line), status) << line;
    EXPECT_EQ(capture.text(),
              "% Unknown word \"Bob\"\n% Unknown word \"Bob\"\n% Unknown word \"thing\"\n"
              "  <name>  a lowercase name\n"
              "Parser debugging is on\nparser: magic 1, 1 item\n  0: name carol\n");
    EXPECT_EQ(names_seen, (std::vector<std::string>{"alice", "bob", "carol"}));
    EXPECT_EQ(names_released, 4) << "every value released after the callback, or when the line fails";
    EXPECT_EQ(corvex_test::completions(session, "hello al"), std::vector<std::string>{"alpha"});
    cli_session_destroy(session);
}

}  // namespace
