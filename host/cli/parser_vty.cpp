// The host's own root commands. Each acts on the session executing it:
//   debug / undebug     turn the parser's trace of every command's values on / off
//   show                the session's state
//   set security LEVEL  the session's security level
//   clear               forget the session's history and counters
//   test                echo the values and selector a command arrived with
//   single-line-mode    toggle plain line reading (no editing, no history)
#include "priv_parser.h"

namespace {

// The session running the command; prints the reason and yields null when
// a handler is called outside any session.
parser_config* executing_session() {
    parser_config* session = cli_session_current();
    if (session == nullptr) parser_printf("%% No session\n");
    return session;
}

const char* on_off(bool value) { return value ? "on" : "off"; }

}  // namespace

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
        parser_printf("%% Nothing to set\n");
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
