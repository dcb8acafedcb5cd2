/*
 * A CLI session: one terminal's parser state (its parser_config) executing
 * command lines against one command tree. A program drives it with one
 * command from a string, a script from a stream, or an interactive terminal
 * with line editing, history, '?' help and tab completion.
 *
 * Matching, as the session applies it:
 * - Keywords match case-sensitively (unless the node says otherwise) and
 *   may be abbreviated to any prefix that only one listed word at that
 *   position starts with; a word typed in full wins over longer words that
 *   share it. Words that are not listed (hidden ones, and those above the
 *   session's security level) must be typed in full.
 * - Unsigned numbers and addresses are written in decimal or as 0x hex and
 *   must lie within the node's range.
 * - A node whose security_level is above the session's level is refused.
 * - A line ending in '?' lists what may come next (or the words starting
 *   with the last, unfinished word) with their help texts.
 * All text, messages included, goes through parser_printf to the session's
 * output. Messages start with "% ".
 *
 * The host's root handlers (parser_vty_*) act on the session executing them:
 *   parser_vty_debug / parser_vty_undebug  trace every command's selector and
 *                                          values before its callback: on / off
 *   parser_vty_show                        print the session's state
 *   parser_vty_set                         set the security level to item 0
 *   parser_vty_clear                       forget history and command counters
 *   parser_vty_test                        echo the selector and values it got
 *   parser_vty_single_line_mode            toggle plain line reading (no
 *                                          editing, no history)
 * Called outside a session they print "% No session".
 */
#ifndef CORVEX_HOST_CLI_SESSION_H
#define CORVEX_HOST_CLI_SESSION_H

#include <stdio.h>

#include "cli_output.h"
#include "host_cli.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What executing a line came to. */
typedef enum cli_status {
    CLI_OK = 0,              /* executed, listed help, or nothing to do */
    CLI_UNKNOWN_WORD = 1,    /* a word matches nothing that may come there */
    CLI_AMBIGUOUS = 2,       /* an abbreviation fits several words */
    CLI_OUT_OF_RANGE = 3,    /* a number or address outside its node's range */
    CLI_INCOMPLETE = 4,      /* the line cannot end there */
    CLI_DENIED = 5,          /* a node asks for a higher security level */
    CLI_TOO_MANY_VALUES = 6, /* more than PARSER_RESULT_ITEMS_MAX values */
    CLI_NO_HANDLER = 7,      /* the command's end node has no callback */
    CLI_INVALID = 22         /* no session or no line */
} cli_status;

/* A new session on tree at security level 0; null when tree is null or memory is short. */
parser_config* cli_session_create(const parser_tree_info* tree);
void cli_session_destroy(parser_config* session);

/*
 * Where the session's text goes while it executes (the calling thread's
 * destination is restored afterwards). A null sink, the default, leaves
 * the calling thread's destination in place.
 */
void cli_session_output_set(parser_config* session, cli_output_sink_t sink, void* context);

int cli_session_security_level(const parser_config* session);
void cli_session_security_level_set(parser_config* session, int level);
int cli_session_debugging(const parser_config* session);
int cli_session_single_line_mode(const parser_config* session);

/* Executes one command line, or lists help when it ends in '?'. */
cli_status cli_session_execute(parser_config* session, const char* line);

/*
 * Calls each(context, word) for every word that completes the last word of
 * line (empty after a space), in the tree's order; returns how many.
 */
int cli_session_complete(parser_config* session, const char* line,
                         void (*each)(void* context, const char* word), void* context);

/*
 * Executes every line of in, skipping empty lines and lines starting with
 * '#'; a failed line is reported with its number and the script goes on.
 * Returns the number of failed lines, or -1 for a null session or stream.
 */
int cli_session_run_script(parser_config* session, FILE* in);

/*
 * Reads commands from in until its end or "exit" / "quit", prompting on out
 * when in is a terminal. On a terminal with GNU readline available and
 * single-line mode off, lines are edited with history, '?' lists help at
 * once and tab completes words; otherwise plain lines are read. Command
 * text goes to out unless the session has its own output. Returns the
 * number of failed commands, or -1 for a null session or stream.
 */
int cli_session_run_interactive(parser_config* session, FILE* in, FILE* out, const char* prompt);

/*
 * The session's history (lines typed at its interactive terminal), oldest
 * first; null past the end. Valid until the history changes.
 */
const char* cli_session_history(const parser_config* session, int index);

/* The session executing a command on the calling thread; null elsewhere. */
parser_config* cli_session_current(void);

#ifdef __cplusplus
}
#endif

#endif /* CORVEX_HOST_CLI_SESSION_H */
