// The exported command tree, walked record by record, against the complete
// command table: words in order, callback, selector and number of values of
// every command, the lines that cannot end a command, and node attributes.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "heap.h"
#include "packet_var.h"

namespace {

const std::map<parser_callback_fn_t, std::string> kCallbacks = {
    {parser_vty_debug, "parser_vty_debug"},
    {parser_vty_undebug, "parser_vty_undebug"},
    {parser_vty_show, "parser_vty_show"},
    {parser_vty_set, "parser_vty_set"},
    {parser_vty_clear, "parser_vty_clear"},
    {parser_vty_test, "parser_vty_test"},
    {parser_vty_single_line_mode, "parser_vty_single_line_mode"},
    {heap_debug_command, "heap_debug_command"},
    {heap_show_command, "heap_show_command"},
    {heap_set_command, "heap_set_command"},
    {packet_show_command, "packet_show_command"},
    {packet_show_stats_command, "packet_show_stats_command"},
    {packet_show_dump, "packet_show_dump"},
    {packet_show_sheaf, "packet_show_sheaf"},
};

struct TreeWalk {
    std::vector<std::string> commands;    // "words => callback selector, values"
    std::vector<std::string> unfinished;  // lines after which a word must come
    std::vector<std::string> marked;      // nodes with a level or hidden
};

// Value nodes read N (any 64-bit number), N<min-max> or ADDRESS (anywhere).
std::string word_of(const parser_node_info* node, int& values) {
    if (node->type == PARSER_NODE_KEYWORD) {
        const auto& keyword = *reinterpret_cast<const parser_type_keyword*>(node);
        EXPECT_EQ(keyword.usevalue + keyword.value + keyword.no_case_sense, 0) << keyword.keyword;
        return keyword.keyword;
    }
    ++values;
    if (node->type == PARSER_NODE_ADDRESS) {
        const auto& address = *reinterpret_cast<const parser_type_address*>(node);
        EXPECT_EQ(address.min, nullptr);
        EXPECT_EQ(address.max, reinterpret_cast<void*>(UINTPTR_MAX));  // 0xffffffff on the target
        EXPECT_EQ(address.default_ok, 0);
        return "ADDRESS";
    }
    EXPECT_EQ(node->type, PARSER_NODE_UNSIGNED_NUMBER);
    const auto& number = *reinterpret_cast<const parser_type_unsigned_number*>(node);
    EXPECT_EQ(number.default_ok, 0);
    if (number.min == 0 && number.max == UINT64_MAX) return "N";
    return "N<" + std::to_string(number.min) + "-" + std::to_string(number.max) + ">";
}

void walk(const parser_node_info* level, const std::string& line, int values, TreeWalk& out) {
    if (level == nullptr || level->type != PARSER_NODE_END_OF_LINE) out.unfinished.push_back(line);
    for (const parser_node_info* node = level; node != nullptr;
         node = static_cast<const parser_node_info*>(node->next_this_level)) {
        if (node->type == PARSER_NODE_END_OF_LINE) {
            EXPECT_EQ(node, level) << line << ": the end of a command comes first";
            EXPECT_EQ(node->help, nullptr);
            EXPECT_EQ(node->next_level, nullptr);
            const auto& end = *reinterpret_cast<const parser_type_end_of_line*>(node);
            out.commands.push_back(line + " => " + kCallbacks.at(end.callback) + " " +
                                   std::to_string(end.magic_number) + ", " + std::to_string(values));
            continue;
        }
        EXPECT_NE(node->help, nullptr) << line;
        int more = values;
        const std::string words = (line.empty() ? "" : line + " ") + word_of(node, more);
        if (node->security_level != 0) out.marked.push_back(words + " level " + std::to_string(node->security_level));
        if (node->type == PARSER_NODE_KEYWORD && reinterpret_cast<const parser_type_keyword*>(node)->hidden)
            out.marked.push_back(words + " hidden");
        walk(static_cast<const parser_node_info*>(node->next_level), words, more, out);
    }
}

}  // namespace

TEST(VtyTree, HoldsEveryCommandOfTheTable) {
    EXPECT_EQ(libcorvex_vty_tree.sub_parsers, nullptr);
    TreeWalk tree;
    walk(libcorvex_vty_tree.top, "", 0, tree);
    EXPECT_EQ(tree.commands, (std::vector<std::string>{
                                 "debug => parser_vty_debug 0, 0",
                                 "debug heap N => heap_debug_command 1, 1",
                                 "undebug => parser_vty_undebug 0, 0",
                                 "undebug heap N => heap_debug_command 0, 1",
                                 "show => parser_vty_show 0, 0",
                                 "show heap => heap_show_command 1, 0",
                                 "show heap extensive => heap_show_command 36, 0",
                                 "show heap N => heap_show_command 2, 1",
                                 "show heap N help => heap_show_command 24, 1",
                                 "show heap N blocks => heap_show_command 4, 1",
                                 "show heap N blocks N => heap_show_command 5, 2",
                                 "show heap N blocks free => heap_show_command 6, 1",
                                 "show heap N blocks free N => heap_show_command 7, 2",
                                 "show heap N blocks alloc => heap_show_command 8, 1",
                                 "show heap N blocks alloc pc N => heap_show_command 10, 2",
                                 "show heap N blocks alloc N => heap_show_command 9, 2",
                                 "show heap N blocks alloc N pc N => heap_show_command 11, 3",
                                 "show heap N sanity => heap_show_command 3, 1",
                                 "show heap N sanity active => heap_show_command 12, 1",
                                 "show heap N accounting rates => heap_show_command 20, 1",
                                 "show heap N accounting pc => heap_show_command 21, 1",
                                 "show heap N accounting pc size => heap_show_command 22, 1",
                                 "show heap N accounting size => heap_show_command 23, 1",
                                 "show heap N address N => heap_show_command 14, 2",
                                 "show packet => packet_show_command 0, 0",
                                 "show packet statistics => packet_show_stats_command 0, 0",
                                 "show packet dump ADDRESS => packet_show_dump 0, 1",
                                 "show packet sheaf N => packet_show_sheaf 0, 1",
                                 "set security N<0-20> => parser_vty_set 0, 1",
                                 "set heap N low-watermark N => heap_set_command 1, 2",
                                 "set heap N debug enable => heap_set_command 8, 1",
                                 "set heap N debug disable => heap_set_command 9, 1",
                                 "set heap N low-memory_recovery N N => heap_set_command 11, 3",
                                 "clear => parser_vty_clear 0, 0",
                                 "test => parser_vty_test 0, 0",
                                 "single-line-mode => parser_vty_single_line_mode 0, 0",
                             }));
    EXPECT_EQ(tree.unfinished, (std::vector<std::string>{
                                   "", "debug heap", "undebug heap", "show heap N blocks alloc pc",
                                   "show heap N blocks alloc N pc", "show heap N accounting", "show heap N address",
                                   "show packet dump", "show packet sheaf", "set", "set security", "set heap",
                                   "set heap N", "set heap N low-watermark", "set heap N debug",
                                   "set heap N low-memory_recovery", "set heap N low-memory_recovery N"}));
    EXPECT_EQ(tree.marked,
              (std::vector<std::string>{"show heap N sanity active level 10", "single-line-mode hidden"}));
}
