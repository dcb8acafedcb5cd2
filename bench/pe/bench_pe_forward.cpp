// Frames per second of corvex-pe's forwarding loop on one core: a capture
// held in memory (the mix of the shipped sample's forwarded frames:
// unicast and multicast from the upstream port, untagged and VLAN-tagged
// frames from extended ports, LLDP) run through pe_forward_frame again and
// again, every output counted and dropped. Thread CPU time, median of five
// rounds.
//   bench_pe_forward [FRAMES]      (default 2,000,000 frames a round)
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "host_setup.h"
#include "pe_config.h"
#include "pe_forward.h"

namespace {

const char kConfig[] =
    "upstream upstream\n"
    "port p1 0x001\n"
    "port p2 0x002 vlan add 100 5\n"
    "port p3 0x003 vlan strip\n"
    "port p4 0x104\n"
    "group 0x1001 p1 p2 p3\n";

struct Frame {
    unsigned port;
    std::vector<uint8_t> bytes;
};

// Addresses, tags, a local experimental EtherType and payload bytes.
std::vector<uint8_t> frame_make(const std::vector<uint8_t>& tags, unsigned payload) {
    static const uint8_t addresses[12] = {2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 1, 0};
    std::vector<uint8_t> bytes(sizeof addresses + tags.size() + 2 + payload);
    memcpy(bytes.data(), addresses, sizeof addresses);
    if (!tags.empty()) memcpy(bytes.data() + sizeof addresses, tags.data(), tags.size());
    uint8_t* type = bytes.data() + sizeof addresses + tags.size();
    type[0] = 0x88;
    type[1] = 0xB5;
    for (unsigned i = 0; i < payload; ++i) type[2 + i] = static_cast<uint8_t>(i);
    return bytes;
}

std::vector<uint8_t> etag(unsigned ecid) {
    return {0x89, 0x3F, 0, 0, static_cast<uint8_t>(ecid >> 8), static_cast<uint8_t>(ecid), 0, 0};
}

std::vector<Frame> capture_make() {
    std::vector<Frame> frames;
    for (unsigned ecid : {0x001u, 0x002u, 0x003u, 0x104u}) {
        frames.push_back({0, frame_make(etag(ecid), 46)});
        frames.push_back({0, frame_make(etag(ecid), 1000)});
    }
    frames.push_back({0, frame_make(etag(0x1001), 200)});
    for (unsigned port = 1; port <= 4; ++port) frames.push_back({port, frame_make({}, 60)});
    frames.push_back({3, frame_make({0x81, 0x00, 0x00, 0x07}, 60)});
    // LLDP: chassis ID, TTL, End Of LLDPDU.
    std::vector<uint8_t> lldp = frame_make({}, 15);
    const uint8_t lldp_tail[] = {0x88, 0xCC, 0x02, 0x07, 0x04, 2, 0, 0, 0, 1, 0, 0x06, 0x02, 0x00, 0x78, 0x00, 0x00};
    memcpy(lldp.data() + 12, lldp_tail, sizeof lldp_tail);
    frames.push_back({0, lldp});
    return frames;
}

uint64_t emitted_bytes;
bool emit_count(void*, unsigned, const packet_t* packet) {
    emitted_bytes += packet->length;
    return true;
}

double thread_seconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned long per_round = argc > 1 ? strtoul(argv[1], nullptr, 10) : 2000000;
    if (host_setup_start("bench_pe_forward") != 0) return 1;
    FILE* text = fmemopen(const_cast<char*>(kConfig), sizeof kConfig - 1, "r");
    pe_config_t config{};
    if (text == nullptr || pe_config_read(&config, text, "bench", &bcm_sdk_heap, stderr) != 0) return 1;
    fclose(text);
    const std::vector<Frame> frames = capture_make();
    pe_forwarder_t forwarder;
    pe_forwarder_init(&forwarder, &config, emit_count, nullptr);

    std::vector<double> rates;
    for (int round = 0; round < 5; ++round) {
        const double start = thread_seconds();
        for (unsigned long n = 0; n < per_round; ++n) {
            const Frame& frame = frames[n % frames.size()];
            const auto length = static_cast<unsigned>(frame.bytes.size());
            pe_forward_frame(&forwarder, frame.port, frame.bytes.data(), length, length);
        }
        rates.push_back(static_cast<double>(per_round) / (thread_seconds() - start));
    }
    std::sort(rates.begin(), rates.end());
    uint64_t dropped = 0;
    for (unsigned i = 0; i < config.nports; ++i) dropped += forwarder.ports[i].dropped;
    printf("corvex-pe forwarding loop: %.2f million frames/s on one core (median of 5 rounds of %lu frames; "
           "%zu-frame mix, %llu MB out, %llu dropped)\n",
           rates[2] / 1e6, per_round, frames.size(), static_cast<unsigned long long>(emitted_bytes >> 20),
           static_cast<unsigned long long>(dropped));
    pe_config_release(&config);
    return dropped == 0 ? 0 : 1;
}
