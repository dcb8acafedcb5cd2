// The parser engine: walks a command tree word by word, collecting values,
// and calls the callback of the end node where the line stops.
#include <strings.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <string>

#include "priv_parser.h"

namespace corvex_cli {
namespace {

const parser_node_info* next_alternative(const parser_node_info* node) {
    return static_cast<const parser_node_info*>(node->next_this_level);
}

const parser_node_info* first_follower(const parser_node_info* node) {
    return static_cast<const parser_node_info*>(node->next_level);
}

// The alternatives at one position of a line: chains of nodes taken in
// turn. At the start of a line: the session's trees, then its own words;
// after a keyword that several trees have, the followers of each.
struct Level {
    static constexpr size_t kChainsMax = CLI_TREES_MAX + 1;
    const parser_node_info* chains[kChainsMax] = {};
    size_t count = 0;

    void add(const parser_node_info* chain) {
        if (chain != nullptr && count < kChainsMax) chains[count++] = chain;
    }

    class iterator {
    public:
        iterator(const Level* level, size_t chain) : level_(level), chain_(chain) {
            node_ = chain_ < level_->count ? level_->chains[chain_] : nullptr;
        }
        const parser_node_info* operator*() const { return node_; }
        iterator& operator++() {
            node_ = next_alternative(node_);
            if (node_ == nullptr && ++chain_ < level_->count) node_ = level_->chains[chain_];
            return *this;
        }
        bool operator!=(const iterator& other) const { return node_ != other.node_; }

    private:
        const Level* level_;
        size_t chain_;
        const parser_node_info* node_;
    };
    iterator begin() const { return {this, 0}; }
    iterator end() const { return {this, count}; }
};

Level line_start(const parser_config& session) {
    Level level;
    for (const parser_tree_info* tree : session.trees) level.add(tree->top);
    level.add(session_words());
    return level;
}

const parser_type_keyword& as_keyword(const parser_node_info* node) {
    return *reinterpret_cast<const parser_type_keyword*>(node);
}
const parser_type_unsigned_number& as_number(const parser_node_info* node) {
    return *reinterpret_cast<const parser_type_unsigned_number*>(node);
}
const parser_type_address& as_address(const parser_node_info* node) {
    return *reinterpret_cast<const parser_type_address*>(node);
}
const parser_type_end_of_line& as_end(const parser_node_info* node) {
    return *reinterpret_cast<const parser_type_end_of_line*>(node);
}

// The tree's handler for a node type the engine does not know itself.
const parser_cmd_info* extra_parser(const parser_config& session, int type) {
    for (const parser_tree_info* tree : session.trees) {
        for (const parser_cmd_info* entry = tree->sub_parsers; entry != nullptr && entry->parse_word != nullptr;
             ++entry) {
            if (entry->type == type) return entry;
        }
    }
    return nullptr;
}

bool permitted(const parser_config& session, const parser_node_info* node) {
    return node->security_level <= session.security_level;
}

// Listed nodes are offered in help and completion and may be abbreviated.
bool listed(const parser_config& session, const parser_node_info* node) {
    if (!permitted(session, node)) return false;
    return node->type != PARSER_NODE_KEYWORD || !as_keyword(node).hidden;
}

bool same_text(const parser_type_keyword& keyword, std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    return keyword.no_case_sense ? strncasecmp(a.data(), b.data(), a.size()) == 0 : a == b;
}

bool keyword_is(const parser_type_keyword& keyword, std::string_view word) {
    return keyword.keyword != nullptr && same_text(keyword, keyword.keyword, word);
}

bool keyword_starts_with(const parser_type_keyword& keyword, std::string_view prefix) {
    if (keyword.keyword == nullptr) return false;
    std::string_view text = keyword.keyword;
    return text.size() >= prefix.size() && same_text(keyword, text.substr(0, prefix.size()), prefix);
}

// Two keyword nodes of different trees that stand for one word.
bool same_keyword(const parser_node_info* a, const parser_node_info* b) {
    return a->type == PARSER_NODE_KEYWORD && b->type == PARSER_NODE_KEYWORD && as_keyword(b).keyword != nullptr &&
           keyword_is(as_keyword(a), as_keyword(b).keyword);
}

// What may follow the node matched at level: its followers, then those of
// the same keyword in the session's other trees.
Level followers(const Level& level, const parser_node_info* matched) {
    Level next;
    next.add(first_follower(matched));
    for (const parser_node_info* node : level)
        if (node != matched && same_keyword(matched, node)) next.add(first_follower(node));
    return next;
}

enum class Syntax { number, not_number, too_large };

// Decimal, or hex after "0x".
Syntax parse_unsigned(std::string_view word, u_int64_t& value) {
    unsigned base = 10;
    if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X')) {
        base = 16;
        word.remove_prefix(2);
    }
    if (word.empty()) return Syntax::not_number;
    value = 0;
    bool too_large = false;
    for (char c : word) {
        unsigned digit;
        if (c >= '0' && c <= '9') {
            digit = static_cast<unsigned>(c - '0');
        } else if (base == 16 && c >= 'a' && c <= 'f') {
            digit = static_cast<unsigned>(c - 'a' + 10);
        } else if (base == 16 && c >= 'A' && c <= 'F') {
            digit = static_cast<unsigned>(c - 'A' + 10);
        } else {
            return Syntax::not_number;
        }
        if (value > (UINT64_MAX - digit) / base) too_large = true;
        value = value * base + digit;
    }
    return too_large ? Syntax::too_large : Syntax::number;
}

bool is_value_node(int type) { return type == PARSER_NODE_UNSIGNED_NUMBER || type == PARSER_NODE_ADDRESS; }

// Syntax and range of word for a number or address node; fills item when it fits.
Syntax parse_value(const parser_node_info* node, std::string_view word, parser_item& item, bool& in_range) {
    u_int64_t value = 0;
    const Syntax syntax = parse_unsigned(word, value);
    in_range = false;
    if (syntax != Syntax::number) return syntax;
    if (node->type == PARSER_NODE_UNSIGNED_NUMBER) {
        const auto& number = as_number(node);
        in_range = value >= number.min && value <= number.max;
        item.type = PARSER_RES_unsigned_number;
        item.data.unsigned_number = value;
    } else {
        const auto& address = as_address(node);
        const auto min = reinterpret_cast<uintptr_t>(address.min);
        const auto max = reinterpret_cast<uintptr_t>(address.max);
        in_range = value <= UINTPTR_MAX && value >= min && value <= max;
        item.type = PARSER_RES_address;
        item.data.address = reinterpret_cast<void*>(static_cast<uintptr_t>(value));
    }
    return syntax;
}

// How a value node is shown in help: "<min-max>".
std::string value_label(const parser_node_info* node) {
    char text[64];
    if (node->type == PARSER_NODE_UNSIGNED_NUMBER) {
        const auto& number = as_number(node);
        snprintf(text, sizeof text, "<%" PRIu64 "-%" PRIu64 ">", static_cast<uint64_t>(number.min),
                 static_cast<uint64_t>(number.max));
    } else {
        const auto& address = as_address(node);
        snprintf(text, sizeof text, "<0x%" PRIxPTR "-0x%" PRIxPTR ">", reinterpret_cast<uintptr_t>(address.min),
                 reinterpret_cast<uintptr_t>(address.max));
    }
    return text;
}

void report_range_error(const parser_config& session, const parser_node_info* node, std::string_view word) {
    const std::string label = value_label(node);
    const char* kind = node->type == PARSER_NODE_ADDRESS ? "Address" : "Value";
    // The label's brackets become the range's parentheses: "(0-20)".
    report(session, "%s \"%s\" out of range (%.*s)", kind, printable(word).c_str(),
           static_cast<int>(label.size() - 2), label.c_str() + 1);
}

struct Match {
    const parser_node_info* node = nullptr;
    const parser_cmd_info* extra = nullptr;
    bool has_item = false;
    parser_item item{};
};

// Finds the node at level that word stands for. Reports why when none does
// (unless quiet).
cli_status match_word(const parser_config& session, Level level, std::string_view word, bool quiet, Match& match) {
    const parser_node_info* exact = nullptr;
    std::vector<const parser_node_info*> abbreviated;
    const parser_node_info* out_of_range = nullptr;
    Match value;
    const std::string text(word);  // nul-terminated for the tree's own parsers
    for (const parser_node_info* node : level) {
        if (node->type == PARSER_NODE_KEYWORD) {
            const auto& keyword = as_keyword(node);
            if (keyword_is(keyword, word)) {
                if (exact == nullptr) exact = node;
            } else if (listed(session, node) && keyword_starts_with(keyword, word) &&
                       std::none_of(abbreviated.begin(), abbreviated.end(),
                                    [node](const parser_node_info* seen) { return same_keyword(seen, node); })) {
                abbreviated.push_back(node);  // a word of several trees counts once
            }
        } else if (is_value_node(node->type)) {
            if (value.node != nullptr) continue;
            bool in_range = false;
            parser_item item{};
            const Syntax syntax = parse_value(node, word, item, in_range);
            if (in_range) {
                value.node = node;
                value.has_item = true;
                value.item = item;
            } else if (syntax != Syntax::not_number && out_of_range == nullptr) {
                out_of_range = node;
            }
        } else if (node->type != PARSER_NODE_END_OF_LINE && value.node == nullptr) {
            const parser_cmd_info* extra = extra_parser(session, node->type);
            parser_item item{};
            const int parsed = extra != nullptr ? extra->parse_word(node, text.c_str(), &item) : -1;
            if (parsed >= 0) {
                value.node = node;
                value.extra = extra;
                value.has_item = parsed == 1;
                value.item = item;
            }
        }
    }
    if (exact != nullptr) {
        match = Match{};
        match.node = exact;
        const auto& keyword = as_keyword(exact);
        if (keyword.usevalue) {
            match.has_item = true;
            match.item.type = PARSER_RES_keyword_value;
            match.item.data.keyword_value = keyword.value;
        }
    } else if (value.node != nullptr) {
        match = value;
    } else if (out_of_range != nullptr) {
        if (!quiet) report_range_error(session, out_of_range, word);
        return CLI_OUT_OF_RANGE;
    } else if (abbreviated.size() == 1) {
        return match_word(session, level, as_keyword(abbreviated.front()).keyword, quiet, match);
    } else if (abbreviated.size() > 1) {
        if (!quiet) {
            std::string candidates;
            for (const auto* node : abbreviated) candidates += std::string(" ") + as_keyword(node).keyword;
            report(session, "Ambiguous word \"%s\":%s", printable(word).c_str(), candidates.c_str());
        }
        return CLI_AMBIGUOUS;
    } else {
        if (!quiet) report(session, "Unknown word \"%s\"", printable(word).c_str());
        return CLI_UNKNOWN_WORD;
    }
    if (!permitted(session, match.node)) {
        if (!quiet) {
            report(session, "\"%s\" needs security level %d (session level %d)", printable(word).c_str(),
                   match.node->security_level, session.security_level);
        }
        if (match.extra != nullptr && match.has_item && match.extra->cleanup != nullptr) {
            match.extra->cleanup(&match.item);
        }
        return CLI_DENIED;
    }
    match.item.source_node = const_cast<parser_node_info*>(match.node);
    return CLI_OK;
}

// The values collected along a line, and the alternatives after its last word.
class Walk {
public:
    Walk() = default;
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    ~Walk() {
        for (int i = 0; i < result.item_count; ++i) {
            const parser_cmd_info* extra = extras[static_cast<size_t>(i)];
            if (extra != nullptr && extra->cleanup != nullptr) extra->cleanup(&result.item[i]);
        }
    }

    bool add(const Match& match) {
        if (result.item_count == PARSER_RESULT_ITEMS_MAX) return false;
        extras[static_cast<size_t>(result.item_count)] = match.extra;
        result.item[result.item_count++] = match.item;
        return true;
    }

    cli_status status = CLI_OK;
    Level level;
    parser_result result{};
    const parser_cmd_info* extras[PARSER_RESULT_ITEMS_MAX] = {};
};

void report_too_many_values(const parser_config& session) {
    report(session, "Too many values (at most %d)", PARSER_RESULT_ITEMS_MAX);
}

void walk(const parser_config& session, const std::vector<std::string_view>& words, bool quiet, Walk& walk) {
    walk.level = line_start(session);
    for (std::string_view word : words) {
        Match match;
        walk.status = match_word(session, walk.level, word, quiet, match);
        if (walk.status != CLI_OK) return;
        if (match.has_item && !walk.add(match)) {
            if (match.extra != nullptr && match.extra->cleanup != nullptr) match.extra->cleanup(&match.item);
            if (!quiet) report_too_many_values(session);
            walk.status = CLI_TOO_MANY_VALUES;
            return;
        }
        walk.level = followers(walk.level, match.node);
    }
}

// The end node where the line stops. Value nodes marked default_ok may be
// left out at the end of a line: each stands in with its minimum.
const parser_node_info* find_end(const parser_config& session, Walk& walk) {
    for (;;) {
        const parser_node_info* optional = nullptr;
        for (const parser_node_info* node : walk.level) {
            if (node->type == PARSER_NODE_END_OF_LINE) return node;
            const bool default_ok = (node->type == PARSER_NODE_UNSIGNED_NUMBER && as_number(node).default_ok) ||
                                    (node->type == PARSER_NODE_ADDRESS && as_address(node).default_ok);
            if (default_ok && optional == nullptr && permitted(session, node)) optional = node;
        }
        if (optional == nullptr) return nullptr;
        Match stand_in;
        stand_in.node = optional;
        stand_in.has_item = true;
        if (optional->type == PARSER_NODE_UNSIGNED_NUMBER) {
            stand_in.item.type = PARSER_RES_unsigned_number;
            stand_in.item.data.unsigned_number = as_number(optional).min;
        } else {
            stand_in.item.type = PARSER_RES_address;
            stand_in.item.data.address = as_address(optional).min;
        }
        stand_in.item.source_node = const_cast<parser_node_info*>(optional);
        if (!walk.add(stand_in)) return nullptr;
        walk.level = Level{};
        walk.level.add(first_follower(optional));
    }
}

}  // namespace

void print_command(const char* who, const parser_result& result, u_int32_t magic,
                   const parser_cmd_info* const* extras) {
    parser_printf("%s: magic %u, %d item%s\n", who, magic, result.item_count, result.item_count == 1 ? "" : "s");
    for (int i = 0; i < result.item_count; ++i) {
        const parser_item& item = result.item[i];
        const parser_cmd_info* extra = extras != nullptr ? extras[i] : nullptr;
        parser_printf("  %d: ", i);
        if (extra != nullptr && extra->display_debug != nullptr) {
            extra->display_debug(item.source_node, &item);
            parser_printf("\n");
        } else if (item.type == PARSER_RES_address) {
            parser_printf("address 0x%" PRIxPTR "\n", reinterpret_cast<uintptr_t>(item.data.address));
        } else if (item.type == PARSER_RES_keyword_value) {
            parser_printf("keyword value %" PRId64 "\n", static_cast<int64_t>(item.data.keyword_value));
        } else {
            parser_printf("number %" PRIu64 "\n", static_cast<uint64_t>(item.data.unsigned_number));
        }
    }
}

std::vector<std::string_view> split_words(std::string_view line) {
    std::vector<std::string_view> words;
    constexpr std::string_view blanks = " \t\r\n";
    size_t start = line.find_first_not_of(blanks);
    while (start != std::string_view::npos) {
        const size_t end = std::min(line.find_first_of(blanks, start), line.size());
        words.push_back(line.substr(start, end - start));
        start = line.find_first_not_of(blanks, end);
    }
    return words;
}

cli_status execute_words(parser_config& session, const std::vector<std::string_view>& words) {
    if (words.empty()) return CLI_OK;
    Walk line;
    walk(session, words, false, line);
    if (line.status != CLI_OK) return line.status;
    const parser_node_info* end = find_end(session, line);
    if (end == nullptr) {
        if (line.result.item_count == PARSER_RESULT_ITEMS_MAX) {
            report_too_many_values(session);
            return CLI_TOO_MANY_VALUES;
        }
        report(session, "Incomplete command");
        return CLI_INCOMPLETE;
    }
    if (!permitted(session, end)) {
        report(session, "Command needs security level %d (session level %d)", end->security_level,
               session.security_level);
        return CLI_DENIED;
    }
    if (session_ends_at(end)) return CLI_END;
    const parser_type_end_of_line& command = as_end(end);
    if (command.callback == nullptr) {
        report(session, "Command has no handler");
        return CLI_NO_HANDLER;
    }
    if (session.debugging) print_command("parser", line.result, command.magic_number, line.extras);
    if (session.hook != nullptr) session.hook(session.hook_context, 1);
    command.callback(&session, &line.result, command.magic_number);
    if (session.hook != nullptr) session.hook(session.hook_context, 0);
    return CLI_OK;
}

cli_status list_help(const parser_config& session, const std::vector<std::string_view>& words,
                     std::string_view partial) {
    Walk line;
    walk(session, words, false, line);
    if (line.status != CLI_OK) return line.status;
    struct Entry {
        std::string label;
        const char* help;
    };
    std::vector<Entry> entries;
    // A word of several trees is listed once, with the first tree's help.
    auto list = [&entries](std::string label, const char* help) {
        if (std::none_of(entries.begin(), entries.end(), [&](const Entry& seen) { return seen.label == label; }))
            entries.push_back({std::move(label), help});
    };
    u_int64_t ignored = 0;
    const bool partial_is_number = !partial.empty() && parse_unsigned(partial, ignored) != Syntax::not_number;
    for (const parser_node_info* node : line.level) {
        if (!listed(session, node)) continue;
        const char* help = node->help != nullptr ? node->help : "";
        if (node->type == PARSER_NODE_KEYWORD) {
            if (keyword_starts_with(as_keyword(node), partial)) list(as_keyword(node).keyword, help);
        } else if (is_value_node(node->type)) {
            if (partial.empty() || partial_is_number) list(value_label(node), help);
        } else if (node->type == PARSER_NODE_END_OF_LINE) {
            if (partial.empty()) list("<cr>", "");
        } else if (const parser_cmd_info* extra = extra_parser(session, node->type);
                   extra != nullptr && extra->display_help != nullptr && partial.empty()) {
            char label[64] = {};
            extra->display_help(node, label, sizeof label);
            list(label, help);
        }
    }
    if (words.empty() && partial.empty()) entries.push_back({"#", "a comment: the line is ignored"});
    if (entries.empty()) {
        if (partial.empty()) {
            report(session, "Nothing may follow");
        } else {
            report(session, "Unknown word \"%s\"", printable(partial).c_str());
        }
        return CLI_UNKNOWN_WORD;
    }
    size_t width = 0;
    for (const auto& entry : entries) width = std::max(width, entry.label.size());
    for (const auto& entry : entries) {
        if (entry.help[0] == '\0') {
            parser_printf("  %s\n", entry.label.c_str());
        } else {
            parser_printf("  %-*s  %s\n", static_cast<int>(width), entry.label.c_str(), entry.help);
        }
    }
    return CLI_OK;
}

std::vector<std::string> completions(const parser_config& session, const std::vector<std::string_view>& words,
                                     std::string_view partial) {
    std::vector<std::string> found;
    Walk line;
    walk(session, words, true, line);
    if (line.status != CLI_OK) return found;
    const std::string prefix(partial);
    for (const parser_node_info* node : line.level) {
        if (!listed(session, node)) continue;
        if (node->type == PARSER_NODE_KEYWORD) {
            if (keyword_starts_with(as_keyword(node), partial) &&
                std::find(found.begin(), found.end(), as_keyword(node).keyword) == found.end())
                found.emplace_back(as_keyword(node).keyword);
        } else if (const parser_cmd_info* extra = extra_parser(session, node->type);
                   extra != nullptr && extra->expand_word != nullptr) {
            char word[256] = {};
            if (extra->expand_word(node, prefix.c_str(), word, sizeof word) == 1) found.emplace_back(word);
        }
    }
    return found;
}

}  // namespace corvex_cli
