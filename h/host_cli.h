/*
 * What the library expects of the host's CLI library: terminal output for
 * the command being executed, the parser's result records handed to
 * command callbacks, the node records of a command tree and the host's
 * root command handlers. The host provides the functions at load time;
 * libcorvex itself does not link any CLI library.
 *
 * The node and result records are read by the host's parser, so their
 * layout is an interface: on the 32-bit target, pointers and int are 4
 * bytes and 64-bit integers are aligned to 4 bytes.
 */
#ifndef CORVEX_HOST_CLI_H
#define CORVEX_HOST_CLI_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

/* printf-style output to the terminal of the command being executed. */
int parser_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* ---- results handed to command callbacks --------------------------------- */

/* The kind of a result item. */
typedef enum parser_result_type {
    PARSER_RES_keyword_value = 0,
    PARSER_RES_signed_number = 1,
    PARSER_RES_unsigned_number = 2,
    PARSER_RES_bool = 3,
    PARSER_RES_string = 4,
    PARSER_RES_ipaddress = 5,
    PARSER_RES_ipmask = 6,
    PARSER_RES_subtree = 7,
    PARSER_RES_ethaddress = 8,
    PARSER_RES_address = 9
} parser_result_type;

/* An Ethernet address as a result value. */
typedef struct parser_data_ethaddress {
    u_int8_t octet[6];
} parser_data_ethaddress;

/* Most items one command collects. */
#define PARSER_RESULT_ITEMS_MAX 20

struct parser_node_info;
struct parser_result;

/* One value collected on a command's path. */
typedef struct parser_item {
    parser_result_type type;
    union {
        int64_t keyword_value;
        int64_t signed_number;
        u_int64_t unsigned_number;
#if defined(__cplusplus) || defined(bool)
        boolean bool_value; /* named bool where the language allows it */
#else
        boolean bool;
#endif
        const char* string;
        void* address;
        u_int64_t ipaddress;
        u_int64_t ipmask;
        u_int64_t subtree;
        parser_data_ethaddress ethaddress;
    } data;
    struct parser_node_info* source_node;
    struct parser_result* subtree_results;
} parser_item;

/* The values of a command line, item 0 first, in the order they were typed. */
typedef struct parser_result {
    int item_count;
    parser_item item[PARSER_RESULT_ITEMS_MAX];
} parser_result;

/* The parser's per-terminal state; callbacks only pass it on. */
typedef struct _parser_config parser_config;

/* A command callback: called with the collected items and the end node's magic_number. */
typedef void (*parser_callback_fn_t)(parser_config* config, parser_result* result, u_int32_t magic);

/* ---- command tree nodes ---------------------------------------------------- */

/* Node type codes. */
#define PARSER_NODE_ADDRESS 2
#define PARSER_NODE_END_OF_LINE 5
#define PARSER_NODE_KEYWORD 9
#define PARSER_NODE_UNSIGNED_NUMBER 13

/* The common head of every node. */
typedef struct parser_node_info {
    int type;              /* PARSER_NODE_* */
    void* next_level;      /* first alternative that may follow; null at an end of line */
    void* next_this_level; /* next alternative at this position; null for the last */
    const char* help;      /* null at an end of line */
    int security_level;    /* session level the node asks for */
} parser_node_info;

/* A fixed word. */
typedef struct parser_type_keyword {
    parser_node_info info;
    const char* keyword;
    boolean hidden;        /* accepted but never listed */
    boolean usevalue;      /* 1: the word adds an item holding value */
    int32_t value;
    boolean no_case_sense; /* 1: matched without regard to case */
} parser_type_keyword;

/* An unsigned number in [min, max]. */
typedef struct parser_type_unsigned_number {
    parser_node_info info;
    u_int64_t max;
    u_int64_t min;
    boolean default_ok;
} parser_type_unsigned_number;

/* An address in [min, max]. */
typedef struct parser_type_address {
    parser_node_info info;
    void* max;
    void* min;
    boolean default_ok;
} parser_type_address;

/* The end of a command: the callback to call and its selector. */
typedef struct parser_type_end_of_line {
    parser_node_info info;
    parser_callback_fn_t callback;
    u_int32_t magic_number;
} parser_type_end_of_line;

/*
 * Extra node types a tree brings along; the parser consults an entry for
 * nodes whose type it does not know itself. A table ends with an entry
 * whose parse_word is null.
 */
typedef struct parser_cmd_info {
    int type; /* the node type code this entry handles */
    /* 1: word accepted, *item filled; 0: accepted without a value; -1: refused. */
    int (*parse_word)(const parser_node_info* node, const char* word, parser_item* item);
    /* 1: the word that completes prefix is written to buffer (size bytes); 0: none. */
    int (*expand_word)(const parser_node_info* node, const char* prefix, char* buffer, size_t size);
    /* Writes the word a help listing shows for node (such as "<name>") to buffer. */
    void (*display_help)(const parser_node_info* node, char* buffer, size_t size);
    /* Prints item through parser_printf while parser debugging is on. */
    void (*display_debug)(const parser_node_info* node, const parser_item* item);
    /* Releases what parse_word put into item, once the callback returned; may be null. */
    void (*cleanup)(parser_item* item);
} parser_cmd_info;

/* A command tree as handed to the parser. */
typedef struct parser_tree_info {
    parser_node_info* top;        /* first top-level alternative */
    parser_cmd_info* sub_parsers; /* extra node types; may be null */
} parser_tree_info;

/* ---- the host's root command handlers ------------------------------------ */

void parser_vty_debug(parser_config* config, parser_result* result, u_int32_t magic);
void parser_vty_undebug(parser_config* config, parser_result* result, u_int32_t magic);
void parser_vty_show(parser_config* config, parser_result* result, u_int32_t magic);
void parser_vty_set(parser_config* config, parser_result* result, u_int32_t magic);
void parser_vty_clear(parser_config* config, parser_result* result, u_int32_t magic);
void parser_vty_test(parser_config* config, parser_result* result, u_int32_t magic);
void parser_vty_single_line_mode(parser_config* config, parser_result* result, u_int32_t magic);

/* ---- the library's command tree ------------------------------------------ */

/*
 * Every diagnostic command of the library below the host's roots (debug,
 * undebug, show, set, clear, test, single-line-mode): constant data that
 * the host's parser reads whenever it likes. Nothing registers it.
 */
CORVEX_API extern const parser_tree_info libcorvex_vty_tree;

CORVEX_END_DECLS

#endif /* CORVEX_HOST_CLI_H */
