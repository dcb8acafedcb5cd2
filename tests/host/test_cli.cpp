// The CLI library: the parser's matching, values, ranges, help, completion,
// security levels, hidden words and root commands; sessions' scripts, typed
// lines, and sessions used from several threads at once.
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cli_capture.h"
#include "cli_session.h"
#include "host_cli.h"
#include "syslog_capture.h"

using corvex_test::CliCapture;

namespace {

class TreeBuilder {
public:
    parser_node_info* keyword(const char* word, const char* help, std::initializer_list<parser_node_info*> next,
                              int security_level = 0, bool hidden = false) {
        auto& node = add<parser_type_keyword>();
        last_keyword_ = &node;
        node.keyword = word;
        node.hidden = hidden;
        return link(node.info, PARSER_NODE_KEYWORD, help, next, security_level);
    }

    parser_type_keyword& last_keyword() { return *last_keyword_; }

    parser_node_info* number(u_int64_t min, u_int64_t max, const char* help,
                             std::initializer_list<parser_node_info*> next) {
        auto& node = add<parser_type_unsigned_number>();
        node.min = min;
        node.max = max;
        return link(node.info, PARSER_NODE_UNSIGNED_NUMBER, help, next, 0);
    }

    parser_node_info* address(uintptr_t min, uintptr_t max, const char* help,
                              std::initializer_list<parser_node_info*> next) {
        auto& node = add<parser_type_address>();
        node.min = reinterpret_cast<void*>(min);
        node.max = reinterpret_cast<void*>(max);
        return link(node.info, PARSER_NODE_ADDRESS, help, next, 0);
    }

    parser_node_info* end(parser_callback_fn_t callback, u_int32_t magic, int security_level = 0) {
        auto& node = add<parser_type_end_of_line>();
        node.callback = callback;
        node.magic_number = magic;
        return link(node.info, PARSER_NODE_END_OF_LINE, nullptr, {}, security_level);
    }

    parser_tree_info tree(std::initializer_list<parser_node_info*> top) {
        return parser_tree_info{chain(top), nullptr};
    }

private:
    static parser_node_info* chain(std::initializer_list<parser_node_info*> nodes) {
        parser_node_info* previous = nullptr;
        for (parser_node_info* node : nodes) {
            if (previous != nullptr) previous->next_this_level = node;
            previous = node;
        }
        return nodes.size() == 0 ? nullptr : *nodes.begin();
    }

    static parser_node_info* link(parser_node_info& info, int type, const char* help,
                                  std::initializer_list<parser_node_info*> next, int security_level) {
        info.type = type;
        info.help = help;
        info.security_level = security_level;
        info.next_level = chain(next);
        return &info;
    }

    template <class Node>
    Node& add() {
        return *static_cast<Node*>(nodes_.emplace_back(std::make_shared<Node>()).get());
    }

    std::vector<std::shared_ptr<void>> nodes_;
    parser_type_keyword* last_keyword_ = nullptr;
};

// Every call of record_command on this thread, oldest first, as "magic item...":
// n<number>, a<address>, k<keyword value>; and the configuration and first
// item's node of the first call.
thread_local std::vector<std::string> recorded;
thread_local std::pair<parser_config*, const parser_node_info*> first_call;

void record_command(parser_config* config, parser_result* result, u_int32_t magic) {
    std::string line = std::to_string(magic);
    for (const parser_item& item : std::vector<parser_item>(result->item, result->item + result->item_count)) {
        line += item.type == PARSER_RES_unsigned_number ? " n" + std::to_string(item.data.unsigned_number)
                : item.type == PARSER_RES_address       ? corvex_test::fmt(" a%p", item.data.address)
                                                        : " k" + std::to_string(item.data.keyword_value);
    }
    if (recorded.empty()) first_call = {config, result->item_count > 0 ? result->item[0].source_node : nullptr};
    recorded.push_back(line);
}

inline std::vector<std::string> completions(parser_config* session, const char* line) {
    std::vector<std::string> words;
    const int count = cli_session_complete(
        session, line,
        [](void* found, const char* word) { static_cast<std::vector<std::string>*>(found)->push_back(word); }, &words);
    EXPECT_EQ(count, static_cast<int>(words.size()));
    return words;
}

// A lab switch's commands, shaped like the ones the library hangs below
// the host's roots, and a session on them.
class LabCli : public testing::Test {
protected:
    LabCli() {
        TreeBuilder& t = builder_;
        port_number_ =
            t.number(1, 48, "port number",
                     {t.end(record_command, 2), t.keyword("counters", "port counters", {t.end(record_command, 3)}),
                      t.keyword("config", "port configuration", {t.end(record_command, 4)})});
        auto* show = t.keyword(
            "show", "show information",
            {t.end(parser_vty_show, 0), t.keyword("port", "one port", {port_number_}),
             t.keyword("ports", "all ports", {t.end(record_command, 5)}),
             t.keyword("memory", "memory at an address",
                       {t.address(0x1000, 0xffff, "memory address",
                                  {t.end(record_command, 6),
                                   t.number(0, UINT64_MAX, "byte count", {t.end(record_command, 7)})})}),
             t.keyword("secret", "secret data", {t.end(record_command, 8)}, 10)});
        auto* set = t.keyword(
            "set", "set parameters",
            {t.keyword("security", "set the parser security level",
                       {t.number(0, 20, "security level", {t.end(parser_vty_set, 0)})}),
             t.keyword(
                 "speed", "port speed",
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
        recorded.clear();
    }
    ~LabCli() override { cli_session_destroy(session_); }

    // Runs line and returns what it printed.
    std::string run(const char* line, cli_status expected = CLI_OK) {
        CliCapture capture;
        EXPECT_EQ(cli_session_execute(session_, line), expected) << line;
        return capture.text();
    }

    struct Line {
        const char* text;
        const char* output = "";
        cli_status status = CLI_OK;
    };
    void expect_lines(std::initializer_list<Line> lines) {
        for (const Line& line : lines) EXPECT_EQ(run(line.text, line.status), line.output) << line.text;
    }

    std::vector<std::string> complete(const char* line) { return completions(session_, line); }

    TreeBuilder builder_;
    parser_node_info* port_number_ = nullptr;
    parser_tree_info tree_{};
    parser_config* session_ = nullptr;
};

using Parser = LabCli;
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
                  {"show memory 0xfff", "% Address \"0xfff\" out of range (0x1000-0xffff)\n", CLI_OUT_OF_RANGE},
                  {"show port", "% Incomplete command\n", CLI_INCOMPLETE}});
    EXPECT_EQ(recorded,
              (Calls{"3 n5", "9 n16 n1000", "7 a0xffff n18446744073709551615", "3 n5", "11 k3", "11 k-1"}));
    EXPECT_EQ(complete("show port 5 c"), (Calls{"counters", "config"}));
    EXPECT_EQ(complete("si"), Calls{}) << "hidden";
    EXPECT_EQ(first_call, std::pair(session_, static_cast<const parser_node_info*>(port_number_)))
        << "the session's configuration, the item's node";
}

void append_text(void* text, const char* data, size_t length) { static_cast<std::string*>(text)->append(data, length); }

using Session = LabCli;

TEST_F(Session, SessionsOnSeveralThreadsKeepTheirOwnTerminals) {
    constexpr int kCommands = 200;
    parser_config* shared = cli_session_create(&tree_);
    std::string texts[2];
    size_t shared_calls[2] = {};
    auto work = [&](int n) {
        parser_config* own = cli_session_create(&tree_);
        cli_session_output_set(own, append_text, &texts[n]);
        recorded.clear();
        for (int i = 0; i < kCommands; ++i) {
            EXPECT_EQ(cli_session_execute(own, "test"), CLI_OK);
            EXPECT_EQ(cli_session_execute(shared, "show ports"), CLI_OK);
        }
        shared_calls[n] = first_call.first == shared ? recorded.size() : 0;
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
