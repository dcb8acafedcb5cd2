// corvex-gen: a traffic generator for measuring the port extender live.
// It fills a packet socket's transmit ring (TPACKET_V2, bypassing the
// queueing discipline) with frames once, then hands the kernel a batch of
// slots at a time with one send(); a slot the kernel gives back was taken
// by the interface, and is counted sent. A frame the interface refuses for
// the moment (its peer's backlog full) stays in its slot and is sent again,
// so every frame counted was taken once; a frame the kernel refuses as
// malformed, or never gives back, is counted apart and said.
//
//   corvex-gen --interface IFACE [--size BYTES|imix] [--etag E-CID]
//              [--frames N] [--duration SECONDS]      (gen_options.cpp)
//
// Exit status: 0 done; 1 the interface failed while sending, or refused
// or kept frames; 2 a usage
// error or an interface that cannot be opened.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "ethernet.h"
#include "gen_options.h"

namespace {

constexpr char kName[] = "corvex-gen";
constexpr unsigned kSlotBytes = 2048;  // one frame of up to 1514 bytes and its header
constexpr unsigned kRingBytes = 4 << 20;
constexpr unsigned kSlots = kRingBytes / kSlotBytes;
constexpr unsigned kBatch = 256;
constexpr unsigned kFcs = 4;
// Locally administered addresses; the payload's EtherType is the one IEEE
// leaves for local experiments.
constexpr uint8_t kDestination[6] = {0x02, 0, 0, 0, 0, 0x02};
constexpr uint8_t kSource[6] = {0x02, 0, 0, 0, 0, 0x01};
constexpr uint16_t kTypeExperimental = 0x88B5;

volatile sig_atomic_t stopping = 0;

void stop_note(int) { stopping = 1; }

double monotonic_seconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

uint8_t* be16_put(uint8_t* at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
    return at + 2;
}

// The frame of length bytes (no FCS) at frame: addresses, the E-tag when
// asked, the EtherType, then a payload of counting bytes.
void frame_write(uint8_t* frame, unsigned length, const gen_options_t& options) {
    uint8_t* at = frame;
    memcpy(at, kDestination, 6);
    memcpy(at + 6, kSource, 6);
    at += 12;
    if (options.etag) {
        ether_802_etag_t etag{};
        ether_802_etag_ecid_set(&etag, options.ecid);
        at = be16_put(at, ETHER_802_ETAG_TPID);
        at = be16_put(at, etag.etag_pd_ig_ecid_base);
        at = be16_put(at, etag.etag_grp_ecid_base);
        *at++ = etag.etag_igr_ecid_ext;
        *at++ = etag.etag_ecid_ext;
    }
    at = be16_put(at, kTypeExperimental);
    for (unsigned i = 0; at < frame + length; ++i) *at++ = static_cast<uint8_t>(i);
}

struct Ring {
    int fd = -1;
    uint8_t* slots = nullptr;
    tpacket2_hdr* slot(uint64_t index) const {
        return reinterpret_cast<tpacket2_hdr*>(slots + (index % kSlots) * kSlotBytes);
    }
};

bool fail(const char* interface, const char* what) {
    fprintf(stderr, "%s: %s: %s%s%s\n", kName, interface, what, what[0] != '\0' ? ": " : "", strerror(errno));
    return false;
}

// A transmit ring on interface with a frame in every slot, sizes in turn.
bool ring_open(Ring& ring, const gen_options_t& options) {
    const char* name = options.interface.c_str();
    const unsigned ifindex = if_nametoindex(name);
    if (ifindex == 0) return fail(name, "");
    // Protocol 0: the socket receives nothing.
    ring.fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (ring.fd < 0) return fail(name, "packet socket");
    const int version = TPACKET_V2, on = 1;
    tpacket_req request{};
    request.tp_block_size = kRingBytes;
    request.tp_block_nr = 1;
    request.tp_frame_size = kSlotBytes;
    request.tp_frame_nr = kSlots;
    if (setsockopt(ring.fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0 ||
        setsockopt(ring.fd, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on) != 0 ||
        setsockopt(ring.fd, SOL_PACKET, PACKET_TX_RING, &request, sizeof request) != 0)
        return fail(name, "transmit ring");
    void* mapped = mmap(nullptr, kRingBytes, PROT_READ | PROT_WRITE, MAP_SHARED, ring.fd, 0);
    if (mapped == MAP_FAILED) return fail(name, "transmit ring");
    ring.slots = static_cast<uint8_t*>(mapped);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(ifindex);
    if (bind(ring.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return fail(name, "");
    constexpr unsigned kData = TPACKET_ALIGN(sizeof(tpacket2_hdr));
    for (unsigned i = 0; i < kSlots; ++i) {
        tpacket2_hdr* header = ring.slot(i);
        header->tp_len = options.sizes[i % options.sizes.size()] - kFcs;
        frame_write(reinterpret_cast<uint8_t*>(header) + kData, header->tp_len, options);
    }
    return true;
}

uint32_t status(const tpacket2_hdr* header) { return __atomic_load_n(&header->tp_status, __ATOMIC_ACQUIRE); }

struct Totals {
    uint64_t frames = 0, bytes = 0;
    uint64_t refused = 0;      // malformed for the interface
    uint64_t unconfirmed = 0;  // still the kernel's at the end
};

// Sends until the frames are out, the time is up or a signal comes.
// Slots [done, queued) are the kernel's; a send that leaves slots behind
// (the peer busy) is repeated. A slot the kernel marks malformed is
// counted refused and used again. When no slot has come back for a second
// (the peer drops a frame each time it is offered, e.g. past its MTU) the
// generator stops and counts the slots left as unconfirmed: it never
// waits for ever. Returns false after a line on stderr when the interface
// fails.
bool frames_send(Ring& ring, const gen_options_t& options, Totals& sent) {
    const double end = options.seconds == 0 ? 0 : monotonic_seconds() + options.seconds;
    double progress = monotonic_seconds();
    uint64_t queued = 0, done = 0;
    for (;;) {
        const double now = monotonic_seconds();
        const bool more =
            !stopping && (options.frames == 0 || queued < options.frames) && (end == 0 || now < end);
        if (!more && done == queued) return true;
        if (done != queued && now - progress > 1) {
            sent.unconfirmed = queued - done;
            return true;
        }
        for (unsigned n = 0; more && n < kBatch && queued - done < kSlots &&
                             (options.frames == 0 || queued < options.frames); ++n, ++queued)
            __atomic_store_n(&ring.slot(queued)->tp_status, TP_STATUS_SEND_REQUEST, __ATOMIC_RELEASE);
        if (send(ring.fd, nullptr, 0, MSG_DONTWAIT) < 0 && errno != ENOBUFS && errno != EAGAIN && errno != EINTR)
            return fail(options.interface.c_str(), "send");
        const uint64_t before = done;
        for (; done < queued; ++done) {
            tpacket2_hdr* slot = ring.slot(done);
            const uint32_t state = status(slot);
            if (state == TP_STATUS_WRONG_FORMAT) {
                ++sent.refused;
                __atomic_store_n(&slot->tp_status, TP_STATUS_AVAILABLE, __ATOMIC_RELEASE);
                continue;
            }
            if (state != TP_STATUS_AVAILABLE) break;
            ++sent.frames;
            sent.bytes += slot->tp_len;
        }
        if (done != before) progress = now;
    }
}

}  // namespace

int main(int argc, char** argv) {
    gen_options_t options;
    if (int status = gen_options_parse(argc, argv, &options); status >= 0) return status;
    Ring ring;
    if (!ring_open(ring, options)) return 2;
    struct sigaction action {};
    action.sa_handler = stop_note;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    Totals sent;
    const double start = monotonic_seconds();
    const bool good = frames_send(ring, options, sent);
    const double seconds = monotonic_seconds() - start;
    printf("%s: sent %llu frames, %llu bytes in %.3f s, %.0f frames/s\n", options.interface.c_str(),
           static_cast<unsigned long long>(sent.frames), static_cast<unsigned long long>(sent.bytes), seconds,
           seconds > 0 ? static_cast<double>(sent.frames) / seconds : 0.0);
    if (sent.refused > 0 || sent.unconfirmed > 0)
        fprintf(stderr, "%s: %s: %llu frames refused, %llu not confirmed sent\n", kName, options.interface.c_str(),
                static_cast<unsigned long long>(sent.refused), static_cast<unsigned long long>(sent.unconfirmed));
    return good && sent.refused == 0 && sent.unconfirmed == 0 ? 0 : 1;
}
