// corvex-gen's options, read by the conventions of the programs on the
// demonstration host (host_options).
#include "gen_options.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include "ethernet.h"
#include "host_options.h"

namespace {

constexpr char kName[] = "corvex-gen";

enum : int { kSize = 256, kEtag, kFrames, kDuration, kVersion };

const option kLongs[] = {
    {"interface", required_argument, nullptr, 'i'}, {"size", required_argument, nullptr, kSize},
    {"etag", required_argument, nullptr, kEtag},    {"frames", required_argument, nullptr, kFrames},
    {"duration", required_argument, nullptr, kDuration}, {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, kVersion},    {nullptr, 0, nullptr, 0},
};

int usage() {
    printf("usage: %s --interface IFACE [OPTION]...\n"
           "Sends Ethernet frames out of IFACE as fast as the machine allows, through a\n"
           "packet socket's transmit ring, and prints how many the interface took.\n\n"
           "  -i, --interface IFACE  the interface to send on (root or CAP_NET_RAW)\n"
           "      --size BYTES       frame size on the wire, FCS included: 64 to 1518\n"
           "                         (default 64), or imix: 64, 576 and 1518 bytes, 7:4:1\n"
           "      --etag E-CID       E-tagged frames naming E-CID (1 to 0x3fffff), as the\n"
           "                         controlling bridge sends them (default: untagged)\n"
           "      --frames N         stop after N frames (1 to 18446744073709551614)\n"
           "      --duration SECONDS stop after SECONDS (1 to 4294967295)\n"
           "  -h, --help             print this help and exit\n"
           "      --version          print the version and exit\n\n"
           "Without --frames or --duration it sends until SIGINT or SIGTERM. At the end it\n"
           "prints one line: \"IFACE: sent FRAMES frames, BYTES bytes in SECONDS s, RATE\n"
           "frames/s\" (bytes without the FCS).\n\n"
           "Exit status: 0 done; 1 the interface failed while sending, or refused frames or\n"
           "kept them (counted on standard error); 2 a usage error or an interface that\n"
           "cannot be opened.\n",
           kName);
    return 0;
}

}  // namespace

int gen_options_parse(int argc, char** argv, gen_options_t* options) {
    auto refuse = [](const char* option, const char* value, const char* reason) {
        return host_options_fail(kName, option, value, reason);
    };
    for (int code; (code = host_options_next(kName, argc, argv, "i:h", kLongs)) != -1;) {
        unsigned long number = 0;
        switch (code) {
        case 'i': options->interface = optarg; break;
        case 'h': return usage();
        case kVersion: host_options_version(kName); return 0;
        case kSize:
            if (strcmp(optarg, "imix") == 0) options->sizes.assign(std::begin(GEN_IMIX), std::end(GEN_IMIX));
            else if (host_options_number(optarg, 64, 1518, &number)) options->sizes = {static_cast<unsigned>(number)};
            else return refuse("--size", optarg, "not a frame size from 64 to 1518 bytes, nor imix");
            break;
        case kEtag: {
            // Decimal or 0x hex, as the port extender's configuration writes E-CIDs.
            char* end = nullptr;
            const unsigned long long ecid = strtoull(optarg, &end, 0);
            if (optarg[0] < '0' || optarg[0] > '9' || *end != '\0' || (optarg[0] == '0' && optarg[1] >= '0' &&
                optarg[1] <= '9') || ecid == 0 || ecid > ETHER_802_ECID_MAX)
                return refuse("--etag", optarg, "not an E-CID from 1 to 0x3fffff (decimal or 0x hex)");
            options->etag = true;
            options->ecid = static_cast<uint32_t>(ecid);
            break;
        }
        case kFrames: {
            char* end = nullptr;
            const unsigned long long frames = strtoull(optarg, &end, 10);
            if (optarg[0] < '1' || optarg[0] > '9' || *end != '\0' || frames == ULLONG_MAX)
                return refuse("--frames", optarg, "not a whole number of frames from 1 to 18446744073709551614");
            options->frames = frames;
            break;
        }
        case kDuration:
            if (!host_options_seconds(kName, "--duration", optarg, &options->seconds)) return HOST_OPTIONS_USAGE;
            break;
        default: return HOST_OPTIONS_USAGE;  // refused, and said why
        }
    }
    if (options->interface.empty()) return refuse("--interface", nullptr, "is required");
    return -1;
}
