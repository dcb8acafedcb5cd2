// The CLI library's parser: matching, values, ranges, help, completion,
// security levels and hidden words, and the host's root commands.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli_tree.h"

using corvex_test::CliCapture;
using corvex_test::recorded_commands;
using corvex_test::recorded_summary;

namespace {

using Parser = corvex_test::LabCli;
using Calls = std::vector<std::string>;

TEST_F(Parser, LinesReachTheirCallbacksWithTheValuesInTypedOrder) {
    expect_lines({{"show port 5 counters"},
                  {"  set   speed 0x10\t1000 "},
                  {"show memory 0xFFFF 0xffffffffffffffff"},
                  {"sho port 5 cou"},  // "port" typed in full wins over "ports"
                  {"mode fast"},
                  {"mode SloW"},
                  {""},
                  {"mode FAST", "% Unknown word \"FAST\"\n", CLI_UNKNOWN_WORD},  // case matters by default
                  {"sh ports", "% Ambiguous word \"sh\": show shutdown\n", CLI_AMBIGUOUS},
                  {"s", "% Ambiguous word \"s\": show set shutdown\n", CLI_AMBIGUOUS},  // hidden words take no part
                  {"single", "% Unknown word \"single\"\n", CLI_UNKNOWN_WORD},           // and are never abbreviated
                  {"show secret", "% \"secret\" needs security level 10 (session level 0)\n", CLI_DENIED},
                  {"show ports now", "% Unknown word \"now\"\n", CLI_UNKNOWN_WORD},
                  {"show port 49", "% Value \"49\" out of range (1-48)\n", CLI_OUT_OF_RANGE},
                  {"show port 0x", "% Unknown word \"0x\"\n", CLI_UNKNOWN_WORD},
                  {"show memory 0xfff", "% Address \"0xfff\" out of range (0x1000-0xffff)\n", CLI_OUT_OF_RANGE},
                  {"show port", "% Incomplete command\n", CLI_INCOMPLETE}});
    EXPECT_EQ(recorded_summary(),
              (Calls{"3 n5", "9 n16 n1000", "7 a0xffff n18446744073709551615", "3 n5", "11 k3", "11 k-1"}));
    const auto& first = recorded_commands().at(0);
    EXPECT_EQ(std::tuple(first.config, first.items.at(0).source_node), std::tuple(session_, port_number_));
}

TEST_F(Parser, QuestionMarkListsWhatMayComeNextTabCompletesListedWords) {
    expect_lines({{"show ?", "  <cr>\n  port    one port\n  ports   all ports\n  memory  memory at an address\n"},
                  {"sho po?", "  port   one port\n  ports  all ports\n"},
                  {"show port 4?", "  <1-48>  port number\n"},
                  {"show memory ?", "  <0x1000-0xffff>  memory address\n"},
                  {"shw ?", "% Unknown word \"shw\"\n", CLI_UNKNOWN_WORD}});
    EXPECT_TRUE(recorded_commands().empty());
    EXPECT_EQ(complete("show port 5 c"), (Calls{"counters", "config"}));
    for (const char* none : {"show port ", "si", "show se", "shw p"}) {  // number, hidden, above level, unknown
        EXPECT_EQ(complete(none), Calls{}) << none;
    }
}

TEST_F(Parser, RootCommandsActOnTheExecutingSession) {
    expect_lines({{"set security 10", "Security level set to 10\n"},
                  {"debug", "Parser debugging is on\n"},
                  {"show memory 0x1234 9", "parser: magic 7, 2 items\n  0: address 0x1234\n  1: number 9\n"},
                  {"mode fast", "parser: magic 11, 1 item\n  0: keyword value 3\n"},
                  {"undebug", "parser: magic 0, 0 items\nParser debugging is off\n"},  // traced while on
                  {"test", "test: magic 0, 0 items\n"},
                  {"show port 99", "% Value \"99\" out of range (1-48)\n", CLI_OUT_OF_RANGE},
                  {"show",
                   "Security level: 10\nParser debugging: off\nSingle-line mode: off\n"
                   "Commands: 6 executed, 1 failed\nHistory: 0 lines\n"},
                  {"clear", "Session history and counters cleared\n"}});
    EXPECT_NE(run("show").find("Commands: 1 executed, 0 failed\n"), std::string::npos) << "clear itself";
    CliCapture capture;
    parser_result none{};
    parser_vty_show(nullptr, &none, 0);
    EXPECT_EQ(capture.text(), "% No session\n");
}

}  // namespace
