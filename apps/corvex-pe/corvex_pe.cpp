// corvex-pe: a software IEEE 802.1BR port extender running libcorvex as a
// switch does. Frames come from capture files (one per port) or live
// interfaces; every frame goes through the library's packet pools and tag
// editing; at the end it prints the counters and runs the diagnostic
// commands on the same process. Live, its console (pe_console) runs the
// commands while the frames flow too.
//
//   corvex-pe [--config FILE] [--in DIR | --in PORT=FILE...] [--out DIR]
//             [--port PORT=IFACE... [--duration SECONDS] [--every SECONDS]] [-c COMMAND...] [-q]
//             [--heap-map DIR] [--trace FILE] [--drops FILE] [--counters FILE] [--leaks]
//             (pe_options.cpp; --help says more; the diagnostics: pe_diagnostics.h)
//
// Exit status: 0 done; 1 a command failed or the heaps did not come back
// to their start-up state; 2 usage, configuration, input or output error
// (outputs are then absent); 3 the host could not start.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli_session.h"
#include "diag_call_sites.h"
#include "diag_commands.h"
#include "heap.h"
#include "host_cli.h"
#include "host_options.h"
#include "host_setup.h"
#include "pe_config.h"
#include "pe_console.h"
#include "pe_control.h"
#include "pe_diagnostics.h"
#include "pe_forward.h"
#include "pe_io.h"
#include "pe_options.h"
#include "pe_phases.h"

namespace {

constexpr char kName[] = "corvex-pe";

volatile sig_atomic_t interrupted = 0;

void interrupt_note(int) { interrupted = 1; }

// folder/NAME.pcap: a port's name is a file name (the configuration
// allows no '/' and no leading '.').
std::string capture_path(const std::string& folder, const char* name) { return folder + "/" + name + ".pcap"; }

// The captures of --in DIR for every port that --in PORT=FILE leaves
// without one; a port without either is told on stderr.
bool inputs_plan(const pe_options_t& options, const pe_config_t& config, std::vector<std::string>& paths,
                 std::vector<pe_port_io_t>& ports) {
    struct stat info;
    if (stat(options.in_dir.c_str(), &info) != 0) {
        fprintf(stderr, "%s: %s: %s\n", kName, options.in_dir.c_str(), strerror(errno));
        return false;
    }
    if (!S_ISDIR(info.st_mode)) {
        host_options_fail(kName, "--in", options.in_dir.c_str(), "not a directory (one port's capture: --in PORT=FILE)");
        return false;
    }
    std::vector<std::string> missing;
    for (unsigned i = 0; i < config.nports; ++i) {
        if (ports[i].input != nullptr) continue;
        const std::string path = capture_path(options.in_dir, config.ports[i].name);
        if (stat(path.c_str(), &info) != 0 && errno == ENOENT) {
            missing.push_back(path + ": no such file: port " + config.ports[i].name);
            continue;
        }
        paths.push_back(path);
        ports[i].input = paths.back().c_str();
    }
    if (missing.size() == config.nports) {
        fprintf(stderr, "%s: %s: no PORT.pcap for any port of %s\n", kName, options.in_dir.c_str(),
                options.config.c_str());
        return false;
    }
    for (const std::string& port : missing) fprintf(stderr, "%s: warning: %s receives nothing\n", kName, port.c_str());
    return true;
}

// DIR/PORT.pcap of --out for every port. Whether one would overwrite an
// input or a folder is checked as it is opened, once the inputs are open;
// the folder is made with the first output.
void outputs_plan(const pe_options_t& options, const pe_config_t& config, std::vector<std::string>& paths,
                  std::vector<pe_port_io_t>& ports) {
    for (unsigned i = 0; i < config.nports; ++i) {
        paths.push_back(capture_path(options.out_dir, config.ports[i].name));
        ports[i].output = paths.back().c_str();
    }
    if (options.out_default && !options.quiet)
        fprintf(stderr, "%s: the ports' captures go to %s\n", kName, options.out_dir.c_str());
}

// Fills paths (owning the strings) and ports; returns false after a line
// on stderr.
bool ports_plan(const pe_options_t& options, const pe_config_t& config, std::vector<std::string>& paths,
                std::vector<pe_port_io_t>& ports) {
    paths.reserve(2 * config.nports);
    ports.assign(config.nports, pe_port_io_t{});
    auto named = [&](const std::string& name) {
        const int port = pe_config_port_by_name(&config, name.c_str());
        if (port < 0) fprintf(stderr, "%s: no port named %s in %s\n", kName, name.c_str(), options.config.c_str());
        return port;
    };
    for (const auto& [name, interface] : options.interfaces) {
        const int port = named(name);
        if (port < 0) return false;
        ports[port].interface = interface.c_str();
    }
    if (!options.interfaces.empty()) return true;
    for (const auto& [name, file] : options.in_files) {
        const int port = named(name);
        if (port < 0) return false;
        ports[port].input = file.c_str();
    }
    if (!options.in_dir.empty() && !inputs_plan(options, config, paths, ports)) return false;
    outputs_plan(options, config, paths, ports);
    return true;
}

// The commands, the library's and heap-map, their accounting reports
// naming the call sites of their PCs.
int commands_run(const pe_options_t& options, DiagCommands& own) {
    if (options.commands.empty() && !isatty(STDIN_FILENO)) return 0;
    PePhase phase("commands");
    PeSession session(&own, nullptr);
    if (session.get() == nullptr) {
        fprintf(stderr, "%s: no memory for a session\n", kName);
        return 1;
    }
    int failures = 0;
    fflush(stdout);
    if (options.commands.empty()) {
        failures = cli_session_run_interactive(session.get(), stdin, stdout, "corvex-pe> ");
    } else {
        for (const char* command : options.commands)
            if (cli_session_execute(session.get(), command) != CLI_OK) ++failures;
    }
    return failures;
}

boolean block_pass(heap_t*, heap_block_t*, heap_walk_arg_t*) { return TRUE; }

struct HeapAtStart {
    heap_t* heap;
    size_t free_bytes;
};

// Every heap of the host, as host_setup_heaps names them, with its free bytes now.
std::vector<HeapAtStart> heaps_note() {
    std::vector<HeapAtStart> heaps;
    for (const host_setup_heap_t* host = host_setup_heaps; host->name != nullptr; ++host)
        heaps.push_back({host->heap, heap_get_free_bytes(host->heap)});
    return heaps;
}

// After the forwarding tables are given back, every heap must walk clean
// and hold the free bytes it had before the traffic.
bool heaps_check(const std::vector<HeapAtStart>& at_start) {
    PePhase phase("heap check");
    bool clean = true;
    for (const HeapAtStart& start : at_start) {
        heap_walk_arg_t arg{};
        const status_t walk = heap_walk(start.heap, block_pass, &arg);
        const size_t free_bytes = heap_get_free_bytes(start.heap);
        if (walk != 0 || free_bytes != start.free_bytes) {
            printf("Heap %u %s: walk status %d, %zu free bytes, %zu at start-up\n", start.heap->id, start.heap->name,
                   static_cast<int>(walk), free_bytes, start.free_bytes);
            clean = false;
        }
    }
    if (clean) printf("Heaps at exit: %zu walk clean, free bytes as at start-up\n", at_start.size());
    return clean;
}

// Standard output holds the table and the commands' output: losing any
// of it is an error like any other write error.
int stdout_check() {
    errno = 0;
    if (fflush(stdout) == 0 && !ferror(stdout)) return 0;
    fprintf(stderr, "%s: standard output: %s\n", kName, strerror(errno != 0 ? errno : EIO));
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    pe_options_t options;
    if (int status = pe_options_parse(argc, argv, &options); status >= 0) return status;
    // A capture past the file size limit is a write error, told as one.
    signal(SIGXFSZ, SIG_IGN);
    FILE* config_file = fopen(options.config.c_str(), "r");
    struct stat config_info;
    if (config_file == nullptr || fstat(fileno(config_file), &config_info) != 0) {
        fprintf(stderr, "%s: %s: %s\n", kName, options.config.c_str(), strerror(errno));
        return 2;
    }
    if (S_ISDIR(config_info.st_mode)) {
        fprintf(stderr, "%s: %s: is a directory\n", kName, options.config.c_str());
        return 2;
    }
    PeDiagnostics diagnostics(options);
    diagnostics.ring_start();
    PePhase startup_phase("start-up");
    if (host_setup_start(kName) != 0) return 3;
    startup_phase.end();
    const std::vector<HeapAtStart> startup = heaps_note();
    diagnostics.snapshot();

    // The forwarding tables live in the first heap, as the device's own do.
    PePhase configuration_phase("configuration");
    pe_config_t config{};
    const int read = pe_config_read(&config, config_file, options.config.c_str(), &bcm_sdk_heap, stderr);
    fclose(config_file);
    if (read != 0) return 2;
    std::vector<std::string> paths;
    std::vector<pe_port_io_t> ports;
    if (!ports_plan(options, config, paths, ports)) return 2;
    diagnostics.inputs_note(ports);
    pe_io_t* io = pe_io_open(ports.data(), config.nports, *diagnostics.inputs(), stderr);
    if (io == nullptr) return 2;
    pe_forwarder_t forwarder;
    pe_forwarder_init(&forwarder, &config, pe_io_emit, io);
    if (!diagnostics.open(config, ports, &forwarder)) {
        pe_io_close(io, false);
        return 2;
    }
    configuration_phase.end();

    // Live, the console runs while the frames flow: a session at the
    // terminal, or the commands every --every seconds.
    const bool live = !options.interfaces.empty();
    const bool prompt = live && options.commands.empty() && isatty(STDIN_FILENO);
    const bool console_live = prompt || (live && options.every > 0);
    pe_control_t* control = console_live ? pe_control_create() : nullptr;
    if (console_live && control == nullptr) {
        fprintf(stderr, "%s: no event descriptor for the console: %s\n", kName, strerror(errno));
        pe_io_close(io, false);
        return 3;
    }
    std::vector<const char*> interfaces;
    for (const pe_port_io_t& port : ports) interfaces.push_back(port.interface);
    pe_console_attach(&forwarder, interfaces.data());
    DiagCommands own{kName, stderr, diagnostics.inputs(), options.heap_map_dir};
    struct sigaction action{};
    action.sa_handler = interrupt_note;
    action.sa_flags = SA_RESTART;  // a read of a slow input goes on; the loops look at the flag
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    pe_console_t* console =
        control != nullptr ? pe_console_start(&own, control, prompt, options.commands, options.every) : nullptr;
    if (control != nullptr && console == nullptr) {
        pe_control_destroy(control);
        pe_io_close(io, false);
        return 3;
    }
    // The progress line is off while a prompt is shown.
    PePhase forwarding_phase("forwarding");
    const int run = pe_io_run(io, &forwarder, options.duration, &interrupted, !options.quiet && !prompt, control);
    forwarding_phase.end();
    int failures = console != nullptr ? pe_console_stop(console) : 0;
    pe_control_destroy(control);
    // Outputs go into place when the run ended well, interrupted or not.
    const int closed = pe_io_close(io, run == 0);
    // From here on an interrupt ends the process as usual, at the session's prompt it clears the line.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    if (run != 0 || closed != 0) return 2;
    if (interrupted) printf("Interrupted.\n");
    pe_counters_print(&forwarder, stdout);
    diagnostics.counters_note(forwarder);

    if (!prompt) failures += commands_run(options, own);
    // The maps show the heaps as the commands saw them, tables and all.
    const bool mapped = diagnostics.maps_write();
    pe_config_release(&config);
    const bool clean = heaps_check(startup);
    diagnostics.leaks_report(clean);
    if (!diagnostics.finish() || !mapped || own.failures > 0) return 2;
    if (stdout_check() != 0) return 2;
    return failures == 0 && clean ? 0 : 1;
}
