// corvex-pe's options. The default configuration and sample capture are
// found from where the program is: CORVEX_PE_DATA is the data folder's
// path relative to the program's folder, the same in the build tree, in an
// installed tree and in an unpacked package.
#include "pe_options.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_options.h"

namespace {

constexpr char kName[] = "corvex-pe";

enum : int { kConfig = 256, kIn, kOut, kPort, kDuration, kEvery, kVersion, kHeapMap, kTrace, kDrops, kCounters, kLeaks };

const option kLongs[] = {
    {"config", required_argument, nullptr, kConfig}, {"in", required_argument, nullptr, kIn},
    {"out", required_argument, nullptr, kOut},       {"port", required_argument, nullptr, kPort},
    {"duration", required_argument, nullptr, kDuration}, {"every", required_argument, nullptr, kEvery},
    {"command", required_argument, nullptr, 'c'},
    {"quiet", no_argument, nullptr, 'q'},            {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, kVersion},     {"heap-map", required_argument, nullptr, kHeapMap},
    {"trace", required_argument, nullptr, kTrace},   {"drops", required_argument, nullptr, kDrops},
    {"counters", required_argument, nullptr, kCounters}, {"leaks", no_argument, nullptr, kLeaks},
    {nullptr, 0, nullptr, 0},
};

// The data folder, its "../" steps taken from the program's own path.
std::string data_dir() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    std::string folder = length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string(".");
    folder.erase(folder.rfind('/') == std::string::npos ? 0 : folder.rfind('/'));
    std::string relative = CORVEX_PE_DATA;
    while (relative.compare(0, 3, "../") == 0 && !folder.empty()) {
        folder.erase(folder.rfind('/'));
        relative.erase(0, 3);
    }
    return folder + "/" + relative;
}

// The default output folder: corvex-pe/out in the user's state folder
// ($XDG_STATE_HOME, else ~/.local/state); empty when neither is known.
std::string out_dir_default() {
    const char* state = getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') return std::string(state) + "/corvex-pe/out";
    const char* home = getenv("HOME");
    if (home != nullptr && home[0] == '/') return std::string(home) + "/.local/state/corvex-pe/out";
    return "";
}

int usage(const pe_options_t& defaults) {
    printf("usage: %s [OPTION]...\n"
           "Forwards frames as an IEEE 802.1BR port extender, from capture files (one PORT.pcap\n"
           "a port) or between live interfaces, then prints the port counters and runs the\n"
           "library's diagnostic commands on the same process.\n\n"
           "      --config FILE       the forwarding configuration\n"
           "                          (default %s)\n"
           "      --in DIR            read DIR/PORT.pcap for every port that has one\n"
           "                          (default %s)\n"
           "      --in PORT=FILE      read the frames PORT receives from FILE (repeatable)\n"
           "      --out DIR           write the frames each port sends to DIR/PORT.pcap\n"
           "                          (default %s)\n"
           "      --port PORT=IFACE   live mode: PORT is interface IFACE (repeatable; not with\n"
           "                          --in or --out)\n"
           "      --duration SECONDS  live mode: stop after SECONDS (default: at SIGINT or SIGTERM)\n"
           "  -c, --command COMMAND   a diagnostic command to run after the traffic (repeatable;\n"
           "                          default: an interactive session when standard input is a\n"
           "                          terminal, in live mode while the frames flow, else none)\n"
           "      --every SECONDS     live mode: run the commands every SECONDS while the frames\n"
           "                          flow too\n"
           "  -q, --quiet             no progress line on standard error\n"
           "      --heap-map DIR      at exit, an SVG map of every heap: DIR/heap-ID-NAME.svg\n"
           "      --trace FILE        the run's phases as a trace (Chrome trace-event JSON, for\n"
           "                          the Perfetto UI or chrome://tracing)\n"
           "      --drops FILE        every dropped frame, with its reason and its number in its\n"
           "                          input as the packet comment (pcapng)\n"
           "      --counters FILE     the counter table as JSON\n"
           "      --leaks             the blocks allocated since start-up and not given back, by\n"
           "                          call site (shown anyway when a heap did not come back)\n"
           "  -h, --help              print this help and exit\n"
           "      --version           print the version and exit\n\n"
           "Outputs are written whole or not at all, never over an input.\n\n"
           "Exit status: 0 done; 1 a command failed or a heap did not come back to its\n"
           "start-up state; 2 a usage, configuration, input or output error (the outputs are\n"
           "then absent); 3 the host could not start.\n",
           kName, defaults.config.c_str(), defaults.in_dir.c_str(),
           defaults.out_dir.empty() ? "none without HOME or XDG_STATE_HOME" : defaults.out_dir.c_str());
    return 0;
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

bool pair_split(const char* text, Pairs& pairs) {
    const char* equals = strchr(text, '=');
    if (equals == nullptr || equals == text || equals[1] == '\0') return false;
    pairs.emplace_back(std::string(text, equals), std::string(equals + 1));
    return true;
}

// The last pair of option's pairs again, by port (first) or by what the
// port is given (second): refused, naming both.
bool pair_unique(const char* option, const Pairs& pairs, const char* what, bool by_port) {
    const auto& [port, value] = pairs.back();
    for (size_t i = 0; i + 1 < pairs.size(); ++i) {
        if ((by_port ? pairs[i].first : pairs[i].second) != (by_port ? port : value)) continue;
        const std::string given = port + "=" + value;
        const std::string reason = std::string(what) + " " + (by_port ? port : value) + " is given twice: here and in " +
                                   option + " " + pairs[i].first + "=" + pairs[i].second;
        host_options_fail(kName, option, given.c_str(), reason.c_str());
        return false;
    }
    return true;
}

}  // namespace

int pe_options_parse(int argc, char** argv, pe_options_t* options) {
    const std::string data = data_dir();
    pe_options_t defaults;
    defaults.config = data + "/corvex-pe.conf";
    defaults.in_dir = data + "/sample";
    defaults.out_dir = out_dir_default();
    options->config = defaults.config;
    auto refuse = [](const char* option, const char* value, const char* reason) {
        return host_options_fail(kName, option, value, reason);
    };
    bool out_given = false;
    const char* every = nullptr;
    for (int code; (code = host_options_next(kName, argc, argv, "c:qh", kLongs)) != -1;) {
        switch (code) {
        case kConfig: options->config = optarg; break;
        case kOut: options->out_dir = optarg, out_given = true; break;
        case 'c': options->commands.push_back(optarg); break;
        case 'q': options->quiet = true; break;
        case kHeapMap: options->heap_map_dir = optarg; break;
        case kTrace: options->trace = optarg; break;
        case kDrops: options->drops = optarg; break;
        case kCounters: options->counters = optarg; break;
        case kLeaks: options->leaks = true; break;
        case 'h': return usage(defaults);
        case kVersion: host_options_version(kName); return 0;
        case kIn:
            if (strchr(optarg, '=') == nullptr) options->in_dir = optarg;
            else if (!pair_split(optarg, options->in_files)) return refuse("--in", optarg, "not DIR or PORT=FILE");
            else if (!pair_unique("--in", options->in_files, "port", true)) return HOST_OPTIONS_USAGE;
            break;
        case kPort:
            if (!pair_split(optarg, options->interfaces)) return refuse("--port", optarg, "not PORT=IFACE");
            if (!pair_unique("--port", options->interfaces, "port", true) ||
                !pair_unique("--port", options->interfaces, "interface", false))
                return HOST_OPTIONS_USAGE;
            break;
        case kDuration:
            if (!host_options_seconds(kName, "--duration", optarg, &options->duration)) return HOST_OPTIONS_USAGE;
            break;
        case kEvery:
            if (!host_options_seconds(kName, "--every", optarg, &options->every)) return HOST_OPTIONS_USAGE;
            every = optarg;
            break;
        default: return HOST_OPTIONS_USAGE;  // refused, and said why
        }
    }
    const bool files = !options->in_dir.empty() || !options->in_files.empty();
    if (every != nullptr && options->commands.empty()) return refuse("--every", every, "needs commands to run (-c)");
    if (!options->interfaces.empty()) {
        if (files) return refuse("--in", nullptr, "not with --port: capture files or live interfaces");
        if (out_given) return refuse("--out", nullptr, "applies to capture files only, not with --port");
        return -1;
    }
    if (options->duration != 0) return refuse("--duration", nullptr, "applies to live interfaces only (--port)");
    if (every != nullptr) return refuse("--every", every, "applies to live interfaces only (--port)");
    if (!files) options->in_dir = defaults.in_dir;
    if (!out_given) {
        if (defaults.out_dir.empty()) return refuse("--out", nullptr, "no default without HOME or XDG_STATE_HOME");
        options->out_dir = defaults.out_dir;
        options->out_default = true;
    }
    return -1;
}
