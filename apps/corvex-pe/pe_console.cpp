// The console's thread, its session and the host's own commands.
#include "pe_console.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>

#include "host_cli.h"

namespace {

struct Attached {
    pe_forwarder_t* forwarder = nullptr;
    const char* interfaces[PE_PORTS_MAX] = {};
} attached;

void counters_show(parser_config*, parser_result*, u_int32_t) {
    char* text = nullptr;
    size_t length = 0;
    FILE* table = open_memstream(&text, &length);
    if (table == nullptr) {
        parser_printf("%% No memory for the table\n");
        return;
    }
    pe_counters_print(attached.forwarder, table);
    fclose(table);
    parser_printf("%s", text);
    free(text);
}

void counters_clear(parser_config*, parser_result*, u_int32_t) {
    memset(attached.forwarder->ports, 0, sizeof attached.forwarder->ports);
    memset(attached.forwarder->drops, 0, sizeof attached.forwarder->drops);
    parser_printf("PE counters cleared\n");
}

void config_show(parser_config*, parser_result*, u_int32_t) {
    const pe_config_t* config = attached.forwarder->config;
    parser_printf("%-32s %8s %8s  %-16s %s\n", "Port", "E-CID", "Priority", "VLAN", "Interface");
    for (unsigned i = 0; i < config->nports; ++i) {
        const pe_port_t& port = config->ports[i];
        char ecid[12] = "upstream", priority[4] = "-", vlan[32] = "-";
        if (i > 0) {
            snprintf(ecid, sizeof ecid, "0x%03x", static_cast<unsigned>(port.ecid));
            snprintf(priority, sizeof priority, "%u", static_cast<unsigned>(port.priority));
            if (port.vlan == PE_VLAN_STRIP) snprintf(vlan, sizeof vlan, "strip");
            if (port.vlan == PE_VLAN_ADD)
                snprintf(vlan, sizeof vlan, "add %u PCP %u", port.vlan_tci & ETHER_VLAN_VID,
                         static_cast<unsigned>(port.vlan_tci >> ETHER_VLAN_PCP_SHIFT));
        }
        parser_printf("%-32s %8s %8s  %-16s %s\n", port.name, ecid, priority, vlan,
                      attached.interfaces[i] != nullptr ? attached.interfaces[i] : "-");
    }
    if (config->ngroups > 0) parser_printf("\n%-8s %s\n", "Group", "Members");
    for (unsigned g = 0; g < config->ngroups; ++g) {
        parser_printf("0x%04x", static_cast<unsigned>(config->groups[g].ecid));
        for (uint64_t members = config->groups[g].members; members != 0; members &= members - 1)
            parser_printf(" %s", config->ports[__builtin_ctzll(members)].name);
        parser_printf("\n");
    }
}

// The host's tree: show pe counters, show pe config, clear pe counters.
#define END(name, callback) parser_type_end_of_line name = {{PARSER_NODE_END_OF_LINE, nullptr, nullptr, nullptr, 0}, callback, 0}
#define WORD(name, word, follower, next, help) \
    parser_type_keyword name = {{PARSER_NODE_KEYWORD, &follower, next, help, 0}, word, 0, 0, 0, 0}
END(show_counters_end, counters_show);
END(show_config_end, config_show);
END(clear_counters_end, counters_clear);
WORD(show_config_word, "config", show_config_end, nullptr, "the ports and groups in force");
WORD(show_counters_word, "counters", show_counters_end, &show_config_word, "the port extender's counters");
WORD(clear_counters_word, "counters", clear_counters_end, nullptr, "the port extender's counters");
WORD(show_pe_word, "pe", show_counters_word, nullptr, "the port extender");
WORD(clear_pe_word, "pe", clear_counters_word, nullptr, "the port extender");
WORD(clear_word, "clear", clear_pe_word, nullptr, "clear system information");
WORD(show_word, "show", show_pe_word, &clear_word, "show system information");
#undef WORD
#undef END
const parser_tree_info host_tree = {&show_word.info, nullptr};

void command_hook(void* control, int entering) {
    if (entering != 0) pe_control_pause(static_cast<pe_control_t*>(control));
    else pe_control_resume(static_cast<pe_control_t*>(control));
}

}  // namespace

void pe_console_attach(pe_forwarder_t* forwarder, const char* const* interfaces) {
    attached = Attached{};
    attached.forwarder = forwarder;
    for (unsigned i = 0; interfaces != nullptr && i < forwarder->config->nports; ++i)
        attached.interfaces[i] = interfaces[i];
}

PeSession::PeSession(DiagCommands* own, pe_control_t* control)
    : session_(cli_session_create(&libcorvex_vty_tree)) {
    if (session_ == nullptr) return;
    cli_session_tree_add(session_, diag_commands_tree(own));
    cli_session_tree_add(session_, &host_tree);
    cli_session_output_set(session_, DiagCallSites::pass, &named_);
    if (control != nullptr) cli_session_command_hook_set(session_, command_hook, control);
}

PeSession::~PeSession() {
    cli_session_destroy(session_);
    named_.flush();
    fflush(stdout);
}

struct pe_console_t {
    pe_console_t(DiagCommands* own, pe_control_t* control) : session(own, control), control(control) {}
    PeSession session;
    pe_control_t* control;
    bool interactive = false;
    std::vector<const char*> commands;
    unsigned every = 0;
    std::mutex lock;
    std::condition_variable stopped;
    bool stopping = false;  // under lock
    int failures = 0;
    std::thread thread;
};

namespace {

void periodic_run(pe_console_t* console) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    std::unique_lock hold(console->lock);
    for (unsigned round = 1;; ++round) {
        const auto due = start + std::chrono::seconds(static_cast<uint64_t>(console->every) * round);
        if (console->stopped.wait_until(hold, due, [console] { return console->stopping; })) return;
        hold.unlock();
        printf("At %llu s:\n", static_cast<unsigned long long>(console->every) * round);
        for (const char* command : console->commands)
            if (cli_session_execute(console->session.get(), command) != CLI_OK) ++console->failures;
        fflush(stdout);
        hold.lock();
    }
}

void console_run(pe_console_t* console) {
    // SIGINT and SIGTERM go to the loop's thread, which sleeps in ppoll for
    // them; an interrupt at the prompt still clears the line (the session's
    // handler tells the reader whichever thread runs it).
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
    if (!console->interactive) return periodic_run(console);
    console->failures = cli_session_run_interactive(console->session.get(), stdin, stdout, "corvex-pe> ");
    fflush(stdout);
    pe_control_end_traffic(console->control);
}

}  // namespace

pe_console_t* pe_console_start(DiagCommands* own, pe_control_t* control, bool interactive,
                               const std::vector<const char*>& commands, unsigned every) {
    auto* console = new pe_console_t(own, control);
    console->interactive = interactive;
    console->commands = commands;
    console->every = every;
    if (console->session.get() == nullptr) {
        fprintf(stderr, "corvex-pe: no memory for a session\n");
        delete console;
        return nullptr;
    }
    try {
        console->thread = std::thread(console_run, console);
    } catch (const std::system_error& error) {
        fprintf(stderr, "corvex-pe: no thread for the console: %s\n", error.what());
        delete console;
        return nullptr;
    }
    return console;
}

int pe_console_stop(pe_console_t* console) {
    {
        std::lock_guard hold(console->lock);
        console->stopping = true;
    }
    console->stopped.notify_all();
    if (console->interactive) cli_session_end(console->session.get());
    console->thread.join();
    const int failures = console->failures;
    delete console;
    return failures;
}
