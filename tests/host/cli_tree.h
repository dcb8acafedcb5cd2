// Builds small command trees for the parser's tests, and records what the
// command callbacks received.
#pragma once

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <vector>

#include "host_cli.h"

namespace corvex_test {

class TreeBuilder {
public:
    parser_node_info* keyword(const char* word, const char* help, std::initializer_list<parser_node_info*> next,
                              int security_level = 0, bool hidden = false) {
        auto& node = keywords_.emplace_back();
        node.keyword = word;
        node.hidden = hidden;
        return link(node.info, PARSER_NODE_KEYWORD, help, next, security_level);
    }

    parser_type_keyword& last_keyword() { return keywords_.back(); }

    parser_node_info* number(u_int64_t min, u_int64_t max, const char* help,
                             std::initializer_list<parser_node_info*> next, bool default_ok = false) {
        auto& node = numbers_.emplace_back();
        node.min = min;
        node.max = max;
        node.default_ok = default_ok;
        return link(node.info, PARSER_NODE_UNSIGNED_NUMBER, help, next, 0);
    }

    parser_node_info* address(uintptr_t min, uintptr_t max, const char* help,
                              std::initializer_list<parser_node_info*> next) {
        auto& node = addresses_.emplace_back();
        node.min = reinterpret_cast<void*>(min);
        node.max = reinterpret_cast<void*>(max);
        return link(node.info, PARSER_NODE_ADDRESS, help, next, 0);
    }

    parser_node_info* end(parser_callback_fn_t callback, u_int32_t magic, int security_level = 0) {
        auto& node = ends_.emplace_back();
        node.callback = callback;
        node.magic_number = magic;
        return link(node.info, PARSER_NODE_END_OF_LINE, nullptr, {}, security_level);
    }

    // A node of a type the tree's own parsers handle.
    parser_node_info* custom(int type, const char* help, std::initializer_list<parser_node_info*> next) {
        auto& node = customs_.emplace_back();
        return link(node, type, help, next, 0);
    }

    parser_tree_info tree(std::initializer_list<parser_node_info*> top, parser_cmd_info* sub_parsers = nullptr) {
        return parser_tree_info{chain(top), sub_parsers};
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

    std::deque<parser_type_keyword> keywords_;
    std::deque<parser_type_unsigned_number> numbers_;
    std::deque<parser_type_address> addresses_;
    std::deque<parser_type_end_of_line> ends_;
    std::deque<parser_node_info> customs_;
};

// One callback call as the test saw it.
struct CommandCall {
    parser_config* config;
    u_int32_t magic;
    std::vector<parser_item> items;
};

// Every call of record_command on this thread, oldest first.
inline std::vector<CommandCall>& recorded_commands() {
    thread_local std::vector<CommandCall> calls;
    return calls;
}

inline void record_command(parser_config* config, parser_result* result, u_int32_t magic) {
    recorded_commands().push_back(
        {config, magic, std::vector<parser_item>(result->item, result->item + result->item_count)});
}

}  // namespace corvex_test
