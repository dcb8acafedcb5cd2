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
 * - A line whose first word starts with '#' is a comment. The session's
 *   own words "exit" and "quit" end it; '?' lists them (and '#') after the
 *   tree's top-level words.
 * - A line read from input holds at most CLI_LINE_MAX bytes and no NUL byte.
 * Command text goes through parser_printf to the session's output. The
 * session's own messages (why a line made no command) go there too, as
 * "% MESSAGE", unless the session has a message sink; words from the input
 * appear in them with every byte that is not printable ASCII written as
 * \xHH (and a backslash doubled), so no control byte reaches a terminal.
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
    CLI_END = 8,             /* "exit" or "quit": the session is over */
    CLI_INVALID = 22         /* no session or no line */
} cli_status;

/* The longest line a session reads, in bytes, newline not included. */
#define CLI_LINE_MAX 4096

/*
 * What cli_session_run_script and cli_session_run_interactive return when
 * they stopped at input that is no command line: a line longer than
 * CLI_LINE_MAX or holding a NUL byte (from anything but a terminal), or a
 * read error. The message says which, with the line's number.
 */
#define CLI_INPUT_UNREADABLE (-2)

/*
 * Receives each of the session's own messages: one line of text without
 * the "% " and the newline, and the number of the input line it is about
 * (counted from 1 by cli_session_run_script and cli_session_run_interactive;
 * 0 for cli_session_execute).
 */
typedef void (*cli_message_sink_t)(void* context, unsigned long line, const char* message);

/* A new session on tree at security level 0; null when tree is null or memory is short. */
parser_config* cli_session_create(const parser_tree_info* tree);
void cli_session_destroy(parser_config* session);

/* The most trees one session parses against, its first included. */
#define CLI_TREES_MAX 4

/*
 * Adds a tree of the host's own commands beside the session's first tree
 * (which stays as it is): its commands are parsed, listed and completed
 * after the first tree's. A keyword that several trees have at one
 * position is one word, listed once (with the first tree's help), and what
 * may follow it is what follows it in each of them, in the trees' order:
 * a host tree with "show" -> "pe" adds "show pe" beside the first tree's
 * show commands. Returns 0, or -1 for a null tree or past CLI_TREES_MAX.
 */
int cli_session_tree_add(parser_config* session, const parser_tree_info* tree);

/*
 * Called on the executing thread right before a command's callback
 * (entering 1) and right after it (entering 0), not for help or the
 * session's own words: a host whose data must be at rest while a command
 * reads or changes it brings it to rest there. Null: none (the default).
 */
typedef void (*cli_command_hook_t)(void* context, int entering);
void cli_session_command_hook_set(parser_config* session, cli_command_hook_t hook, void* context);

/*
 * Asks the session's interactive terminal reading to end as at the end of
 * its input, from any thread (not from a signal handler): waiting for a
 * line, it ends at once; running a command, it ends before reading the
 * next line. The session stays ended. Other input (a script) is read on.
 */
void cli_session_end(parser_config* session);

/*
 * Where the session's text goes while it executes (the calling thread's
 * destination is restored afterwards). A null sink, the default, leaves
 * the calling thread's destination in place.
 */
void cli_session_output_set(parser_config* session, cli_output_sink_t sink, void* context);

/* Where the session's own messages go; a null sink, the default, prints them as command text. */
void cli_session_messages_set(parser_config* session, cli_message_sink_t sink, void* context);

int cli_session_security_level(const parser_config* session);
void cli_session_security_level_set(parser_config* session, int level);
int cli_session_debugging(const parser_config* session);
int cli_session_single_line_mode(const parser_config* session);

/*
 * Executes one command line, or lists help when it ends in '?'; a comment
 * or a blank line does nothing.
 */
cli_status cli_session_execute(parser_config* session, const char* line);

/*
 * Calls each(context, word) for every word that completes the last word of
 * line (empty after a space), in the tree's order; returns how many.
 */
int cli_session_complete(parser_config* session, const char* line,
                         void (*each)(void* context, const char* word), void* context);

/*
 * Executes the lines of in until its end or "exit" / "quit"; a refused line
 * is reported (a message sink is given its number) and the script goes on. Returns the number of
 * refused lines, CLI_INPUT_UNREADABLE, or -1 for a null session or stream.
 */
int cli_session_run_script(parser_config* session, FILE* in);

/*
 * As cli_session_run_script, prompting on out when in is a terminal; command
 * text goes to out unless the session has its own output. On a terminal
 * with GNU readline available and single-line mode off, lines are edited
 * with history, '?' lists help at once and tab completes words; otherwise
 * plain lines are read. At a terminal an interrupt (Ctrl-C, SIGINT) clears
 * the line being typed and prompts again, the process's own SIGINT action
 * coming back when the session ends, and a line too long or holding a NUL
 * byte is refused without ending the session. One terminal session runs at
 * a time in a process.
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
