// The parser's records are shared with command trees built elsewhere (and
// on the device with the host's own parser), so their 32-bit layout is
// fixed here once: pointers and int of 4 bytes, 64-bit integers 4-aligned.
#include <cstddef>
#include <cstdint>

#include "host_cli.h"

#if UINTPTR_MAX == 0xffffffffu

static_assert(sizeof(parser_node_info) == 20);
static_assert(offsetof(parser_node_info, type) == 0);
static_assert(offsetof(parser_node_info, next_level) == 4);
static_assert(offsetof(parser_node_info, next_this_level) == 8);
static_assert(offsetof(parser_node_info, help) == 12);
static_assert(offsetof(parser_node_info, security_level) == 16);

static_assert(sizeof(parser_type_keyword) == 36);
static_assert(offsetof(parser_type_keyword, info) == 0);
static_assert(offsetof(parser_type_keyword, keyword) == 20);
static_assert(offsetof(parser_type_keyword, hidden) == 24);
static_assert(offsetof(parser_type_keyword, usevalue) == 25);
static_assert(offsetof(parser_type_keyword, value) == 28);
static_assert(offsetof(parser_type_keyword, no_case_sense) == 32);

static_assert(sizeof(parser_type_unsigned_number) == 40);
static_assert(offsetof(parser_type_unsigned_number, max) == 20);
static_assert(offsetof(parser_type_unsigned_number, min) == 28);
static_assert(offsetof(parser_type_unsigned_number, default_ok) == 36);

static_assert(sizeof(parser_type_address) == 32);
static_assert(offsetof(parser_type_address, max) == 20);
static_assert(offsetof(parser_type_address, min) == 24);
static_assert(offsetof(parser_type_address, default_ok) == 28);

static_assert(sizeof(parser_type_end_of_line) == 28);
static_assert(offsetof(parser_type_end_of_line, callback) == 20);
static_assert(offsetof(parser_type_end_of_line, magic_number) == 24);

static_assert(sizeof(parser_tree_info) == 8);
static_assert(offsetof(parser_tree_info, top) == 0);
static_assert(offsetof(parser_tree_info, sub_parsers) == 4);

static_assert(sizeof(parser_item) == 20);
static_assert(offsetof(parser_item, type) == 0);
static_assert(offsetof(parser_item, data) == 4);
static_assert(sizeof(parser_item::data) == 8);
static_assert(offsetof(parser_item, source_node) == 12);
static_assert(offsetof(parser_item, subtree_results) == 16);

static_assert(offsetof(parser_result, item_count) == 0);
static_assert(offsetof(parser_result, item) == 4);
static_assert(sizeof(parser_result) == 4 + 20 * PARSER_RESULT_ITEMS_MAX);

#endif
