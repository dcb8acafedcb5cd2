// corvex-pe: a software IEEE 802.1BR port extender running libcorvex as a
// switch does. Frames come from capture files (one per port) or live
// interfaces; every frame goes through the library's packet pools and tag
// editing; at the end it prints the counters and runs the diagnostic
// commands on the same process.
//
//   corvex-pe [--config FILE] [--in DIR | --in PORT=FILE...] [--out DIR]
//             [--port PORT=IFACE... [--duration SECONDS]] [-c COMMAND...] [-q]
//
// Exit status: 0 done; 1 a command failed or the heaps did not come back
// to their start-up state; 2 usage, configuration or input error; 3 the
// host could not start.
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
#include "heap.h"
#include "host_cli.h"
#include "host_setup.h"
#include "pe_config.h"
#include "pe_forward.h"
#include "pe_pcap.h"

namespace {

constexpr char kName[] = "corvex-pe";

volatile sig_atomic_t interrupted = 0;

void interrupt_note(int) { interrupted = 1; }

struct Options {
    const char* config = CORVEX_PE_CONFIG;
    const char* in_dir = nullptr;
    std::vector<std::pair<std::string, std::string>> in_files;  // port, file
    std::vector<std::pair<std::string, std::string>> interfaces;
    const char* out_dir = "corvex-pe-out";
    unsigned duration = 0;
    std::vector<const char*> commands;
    bool quiet = false;
};

int usage(FILE* out, int status) {
    fprintf(out,
            "usage: %s [--config FILE] [--in DIR | --in PORT=FILE...] [--out DIR]\n"
            "       %*s [--port PORT=IFACE... [--duration SECONDS]] [-c COMMAND...] [-q]\n"
            "Forwards frames as an IEEE 802.1BR port extender: from capture files (DIR/PORT.pcap,\n"
            "default the shipped sample) into DIR/PORT.pcap of --out, or between live interfaces.\n"
            "Then prints the counters and runs the diagnostic commands (-c, else interactive on a\n"
            "terminal).\n",
            kName, static_cast<int>(strlen(kName)), "");
    return status;
}

bool pair_split(const char* text, std::vector<std::pair<std::string, std::string>>& pairs) {
    const char* equals = strchr(text, '=');
    if (equals == nullptr || equals == text || equals[1] == '\0') return false;
    pairs.emplace_back(std::string(text, equals), std::string(equals + 1));
    return true;
}

// Returns -1 when the options are fine, else the exit status.
int options_parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const char* option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (strcmp(option, "-h") == 0 || strcmp(option, "--help") == 0) return usage(stdout, 0);
        if (strcmp(option, "-q") == 0) {
            options.quiet = true;
            continue;
        }
        if (value == nullptr) return usage(stderr, 2);
        ++i;
        if (strcmp(option, "-c") == 0) {
            options.commands.push_back(value);
        } else if (strcmp(option, "--config") == 0) {
            options.config = value;
        } else if (strcmp(option, "--out") == 0) {
            options.out_dir = value;
        } else if (strcmp(option, "--in") == 0) {
            if (strchr(value, '=') == nullptr) options.in_dir = value;
            else if (!pair_split(value, options.in_files)) return usage(stderr, 2);
        } else if (strcmp(option, "--port") == 0) {
            if (!pair_split(value, options.interfaces)) return usage(stderr, 2);
        } else if (strcmp(option, "--duration") == 0) {
            options.duration = static_cast<unsigned>(strtoul(value, nullptr, 10));
        } else {
            return usage(stderr, 2);
        }
    }
    const bool files = options.in_dir != nullptr || !options.in_files.empty();
    if (files && !options.interfaces.empty()) {
        fprintf(stderr, "%s: --in and --port do not mix: capture files or live interfaces\n", kName);
        return 2;
    }
    if (!files && options.interfaces.empty()) options.in_dir = CORVEX_PE_SAMPLE;
    return -1;
}

bool file_exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

// Fills paths (owning the strings) and ports; returns false after a line on stderr.
bool ports_plan(const Options& options, const pe_config_t& config, std::vector<std::string>& paths,
                std::vector<pe_port_io_t>& ports) {
    paths.reserve(2 * config.nports);
    ports.assign(config.nports, pe_port_io_t{});
    auto named = [&](const std::string& name) {
        const int port = pe_config_port_by_name(&config, name.c_str());
        if (port < 0) fprintf(stderr, "%s: no port named %s in %s\n", kName, name.c_str(), options.config);
        return port;
    };
    for (const auto& [name, interface] : options.interfaces) {
        const int port = named(name);
        if (port < 0) return false;
        ports[port].interface = interface.c_str();
    }
    if (!options.interfaces.empty()) return true;
    if (options.in_dir != nullptr) {
        if (!file_exists(options.in_dir)) {
            fprintf(stderr, "%s: %s: %s\n", kName, options.in_dir, strerror(errno));
            return false;
        }
        unsigned found = 0;
        for (unsigned i = 0; i < config.nports; ++i) {
            std::string path = std::string(options.in_dir) + "/" + config.ports[i].name + ".pcap";
            if (!file_exists(path)) continue;
            paths.push_back(path);
            ports[i].input = paths.back().c_str();
            ++found;
        }
        if (found == 0) {
            fprintf(stderr, "%s: %s: no PORT.pcap for any port of %s\n", kName, options.in_dir, options.config);
            return false;
        }
    }
    for (const auto& [name, file] : options.in_files) {
        const int port = named(name);
        if (port < 0) return false;
        ports[port].input = file.c_str();
    }
    if (mkdir(options.out_dir, 0777) != 0 && errno != EEXIST) {
        fprintf(stderr, "%s: %s: %s\n", kName, options.out_dir, strerror(errno));
        return false;
    }
    for (unsigned i = 0; i < config.nports; ++i) {
        paths.push_back(std::string(options.out_dir) + "/" + config.ports[i].name + ".pcap");
        ports[i].output = paths.back().c_str();
    }
    return true;
}

int commands_run(const Options& options) {
    if (options.commands.empty() && !isatty(STDIN_FILENO)) return 0;
    parser_config* session = cli_session_create(&libcorvex_vty_tree);
    if (session == nullptr) {
        fprintf(stderr, "%s: no memory for a session\n", kName);
        return 1;
    }
    int failures = 0;
    fflush(stdout);
    if (options.commands.empty()) {
        failures = cli_session_run_interactive(session, stdin, stdout, "corvex-pe> ");
    } else {
        for (const char* command : options.commands)
            if (cli_session_execute(session, command) != CLI_OK) ++failures;
    }
    cli_session_destroy(session);
    fflush(stdout);
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

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (int status = options_parse(argc, argv, options); status >= 0) return status;
    FILE* config_file = fopen(options.config, "r");
    if (config_file == nullptr) {
        fprintf(stderr, "%s: %s: %s\n", kName, options.config, strerror(errno));
        return 2;
    }
    if (host_setup_start(kName) != 0) return 3;
    const std::vector<HeapAtStart> startup = heaps_note();

    // The forwarding tables live in the first heap, as the device's own do.
    pe_config_t config{};
    const int read = pe_config_read(&config, config_file, options.config, &bcm_sdk_heap, stderr);
    fclose(config_file);
    if (read != 0) return 2;
    std::vector<std::string> paths;
    std::vector<pe_port_io_t> ports;
    pe_io_t* io = ports_plan(options, config, paths, ports) ? pe_io_open(ports.data(), config.nports, stderr) : nullptr;
    if (io == nullptr) return 2;

    pe_forwarder_t forwarder;
    pe_forwarder_init(&forwarder, &config, pe_io_emit, io);
    struct sigaction action{};
    action.sa_handler = interrupt_note;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    const int run = pe_io_run(io, &forwarder, options.duration, &interrupted, !options.quiet);
    pe_io_close(io);
    // From here on an interrupt ends the process as usual, also in the session.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    if (interrupted) printf("Interrupted.\n");
    pe_counters_print(&forwarder, stdout);
    if (run != 0) return run;

    const int failures = commands_run(options);
    pe_config_release(&config);
    const bool clean = heaps_check(startup);
    return failures == 0 && clean ? 0 : 1;
}
