// The exported command tree, walked record by record: every command with
// its callback, selector and number of values, the lines that cannot end a
// command, and the nodes with a security level or hidden.
#include <dlfcn.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "heap.h"
#include "packet_var.h"

namespace {

using Lines = std::vector<std::string>;

struct TreeWalk {
    Lines commands;    // "words => callback selector, values"
    Lines unfinished;  // lines after which a word must come
    Lines marked;      // nodes with a level or hidden
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
        EXPECT_EQ(std::tuple(address.min, address.max, address.default_ok),
                  std::tuple(nullptr, reinterpret_cast<void*>(UINTPTR_MAX), 0));
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
    for (auto* node = level; node != nullptr; node = static_cast<const parser_node_info*>(node->next_this_level)) {
        if (node->type == PARSER_NODE_END_OF_LINE) {
            EXPECT_EQ(std::tuple(node, node->help, node->next_level), std::tuple(level, nullptr, nullptr))
                << line << ": the end of a command comes first";
            const auto& end = *reinterpret_cast<const parser_type_end_of_line*>(node);
            Dl_info callback{};  // every callback is an exported function
            const bool named = dladdr(reinterpret_cast<void*>(end.callback), &callback) != 0 && callback.dli_sname;
            out.commands.push_back(line + " => " + (named ? callback.dli_sname : "?") + " " +
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

TEST(VtyTree, HoldsEveryCommand) {
    EXPECT_EQ(libcorvex_vty_tree.sub_parsers, nullptr);
    TreeWalk tree;
    walk(libcorvex_vty_tree.top, "", 0, tree);
    const std::string show = "show heap N ", set = "set heap N ", heap = " => heap_show_command ";
    EXPECT_EQ(tree.commands,
              (Lines{"debug => parser_vty_debug 0, 0", "debug heap N => heap_debug_command 1, 1",
                     "undebug => parser_vty_undebug 0, 0", "undebug heap N => heap_debug_command 0, 1",
                     "show => parser_vty_show 0, 0", "show heap" + heap + "1, 0", "show heap extensive" + heap + "36, 0",
                     "show heap N" + heap + "2, 1", show + "help" + heap + "24, 1", show + "blocks" + heap + "4, 1",
                     show + "blocks N" + heap + "5, 2", show + "blocks free" + heap + "6, 1",
                     show + "blocks free N" + heap + "7, 2", show + "blocks alloc" + heap + "8, 1",
                     show + "blocks alloc pc N" + heap + "10, 2", show + "blocks alloc N" + heap + "9, 2",
                     show + "blocks alloc N pc N" + heap + "11, 3", show + "sanity" + heap + "3, 1",
                     show + "sanity active" + heap + "12, 1", show + "accounting rates" + heap + "20, 1",
                     show + "accounting pc" + heap + "21, 1", show + "accounting pc size" + heap + "22, 1",
                     show + "accounting size" + heap + "23, 1", show + "address N" + heap + "14, 2",
                     "show packet => packet_show_command 0, 0",
                     "show packet statistics => packet_show_stats_command 0, 0",
                     "show packet dump ADDRESS => packet_show_dump 0, 1",
                     "show packet sheaf N => packet_show_sheaf 0, 1", "set security N<0-20> => parser_vty_set 0, 1",
                     set + "low-watermark N => heap_set_command 1, 2", set + "debug enable => heap_set_command 8, 1",
                     set + "debug disable => heap_set_command 9, 1",
                     set + "low-memory_recovery N N => heap_set_command 11, 3", "clear => parser_vty_clear 0, 0",
                     "test => parser_vty_test 0, 0", "single-line-mode => parser_vty_single_line_mode 0, 0"}));
    EXPECT_EQ(tree.unfinished, (Lines{"", "debug heap", "undebug heap", show + "blocks alloc pc",
                                      show + "blocks alloc N pc", show + "accounting", show + "address",
                                      "show packet dump", "show packet sheaf", "set", "set security", "set heap",
                                      "set heap N", set + "low-watermark", set + "debug", set + "low-memory_recovery",
                                      set + "low-memory_recovery N"}));
    EXPECT_EQ(tree.marked, (Lines{"show heap N sanity active level 10", "single-line-mode hidden"}));
}
