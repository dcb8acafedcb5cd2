// The host's own root commands. Each acts on the session executing it:
//   debug / undebug     turn the parser's trace of every command's values on / off
//   show                the session's state
//   set security LEVEL  the session's security level
//   clear               forget the session's history and counters
//   test                echo the values and selector a command arrived with
//   single-line-mode    toggle plain line reading (no editing, no history)
// and the session's own words, which follow the tree's top-level words:
//   exit, quit          end the session
#include "priv_parser.h"

namespace {

parser_type_end_of_line session_end = {{PARSER_NODE_END_OF_LINE, nullptr, nullptr, nullptr, 0}, nullptr, 0};
parser_type_keyword quit_word = {
    {PARSER_NODE_KEYWORD, &session_end, nullptr, "end the session", 0}, "quit", 0, 0, 0, 0};
parser_type_keyword exit_word = {
    {PARSER_NODE_KEYWORD, &session_end, &quit_word, "end the session", 0}, "exit", 0, 0, 0, 0};

// The session running the command; prints the reason and yields null when
// a handler is called outside any session.
parser_config* executing_session() {
    parser_config* session = cli_session_current();
    if (session == nullptr) parser_printf("%% No session\n");
    return session;
}

const char* on_off(bool value) { return value ? "on" : "off"; }

}  // namespace

namespace corvex_cli {

const parser_node_info* session_words() { return &exit_word.info; }

bool session_ends_at(const parser_node_info* end) { return end == &session_end.info; }

}  // namespace corvex_cli

extern "C" void parser_vty_debug(parser_config*, parser_result*, u_int32_t) {
    if (parser_config* session = executing_session()) {
        session->debugging = true;
        parser_printf("Parser debugging is on\n");
    }
}

extern "C" void parser_vty_undebug(parser_config*, parser_result*, u_int32_t) {
    if (parser_config* session = executing_session()) {
        session->debugging = false;
        parser_printf("Parser debugging is off\n");
    }
}

extern "C" void parser_vty_show(parser_config*, parser_result*, u_int32_t) {
    if (parser_config* session = executing_session()) {
        parser_printf("Security level: %d\n", session->security_level);
        parser_printf("Parser debugging: %s\n", on_off(session->debugging));
        parser_printf("Single-line mode: %s\n", on_off(session->single_line));
        parser_printf("Commands: %lu executed, %lu failed\n", session->executed, session->failed);
        parser_printf("History: %zu lines\n", session->history.size());
    }
}

extern "C" void parser_vty_set(parser_config*, parser_result* result, u_int32_t) {
    parser_config* session = executing_session();
    if (session == nullptr) return;
    if (result == nullptr || result->item_count < 1 || result->item[0].type != PARSER_RES_unsigned_number) {
        corvex_cli::report(*session, "Nothing to set");
        return;
    }
    session->security_level = static_cast<int>(static_cast<u_int32_t>(result->item[0].data.unsigned_number));
    parser_printf("Security level set to %d\n", session->security_level);
}

extern "C" void parser_vty_clear(parser_config*, parser_result*, u_int32_t) {
    if (parser_config* session = executing_session()) {
        session->history.clear();
        session->executed = 0;
        session->failed = 0;
        parser_printf("Session history and counters cleared\n");
    }
}

extern "C" void parser_vty_test(parser_config*, parser_result* result, u_int32_t magic) {
    if (executing_session() == nullptr) return;
    const parser_result none{};
    corvex_cli::print_command("test", result != nullptr ? *result : none, magic, nullptr);
}

extern "C" void parser_vty_single_line_mode(parser_config*, parser_result*, u_int32_t) {
    if (parser_config* session = executing_session()) {
        session->single_line = !session->single_line;
        parser_printf("Single-line mode %s\n", on_off(session->single_line));
    }
}
