// Live ports of corvex-pe on the kernel's packet sockets.
#include "pe_live.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr unsigned kNominalFrame = 2048;  // the ring's frame count is counted in these
constexpr unsigned kVlanTag = 4;
constexpr unsigned kAddresses = 12;

// One counter of the interface's statistics, read again whenever asked;
// a failed reading gives the last good one.
struct Statistic {
    int fd = -1;
    uint64_t at_open = 0, last = 0;
    uint64_t read() {
        char text[32];
        const ssize_t length = pread(fd, text, sizeof text - 1, 0);
        if (length > 0) {
            text[length] = '\0';
            last = strtoull(text, nullptr, 10);
        }
        return last;
    }
};

const char* const kDropStatistics[] = {"rx_dropped", "rx_missed_errors"};
constexpr unsigned kDropCounters = sizeof kDropStatistics / sizeof kDropStatistics[0];
constexpr unsigned kHandlersMax = 64;

uint16_t be16(const uint8_t* bytes) { return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }

}  // namespace

struct pe_live_port_t {
    int fd = -1;
    int ifindex = 0;
    std::string name;
    uint8_t* ring = nullptr;
    unsigned block = 0;  // the next block to look at
    Statistic drops[kDropCounters];
    // The kernel counts a VLAN-tagged frame among the interface's drops
    // when, after handing it to the taps (this port among them), no
    // protocol of the host takes what the tag carries: those frames reached
    // the program and are not lost. Known protocols: /proc/net/ptype.
    uint16_t handled[kHandlersMax];
    unsigned nhandled = 0;
    uint64_t kernel_unhandled = 0;  // such frames received
    uint64_t ring_lost = 0;         // the ring's drops so far
    int64_t lost_told = 0;          // Rx lost given so far
    // A frame with its VLAN tag put back.
    uint8_t staged[kLiveBlockBytes + kVlanTag];
    // The send batch: frames back to back in bytes.
    uint8_t bytes[kLiveBatchBytes];
    size_t used = 0;
    unsigned count = 0;
    iovec frames[kLiveBatch];
    mmsghdr messages[kLiveBatch];
    uint64_t refused_frames = 0, refused_bytes = 0;
};

namespace {

bool fail(FILE* err, const char* interface, const char* what) {
    fprintf(err, "corvex-pe: %s: %s%s%s\n", interface, what, what[0] != '\0' ? ": " : "", strerror(errno));
    return false;
}

// The frame types some protocol of the host takes on this interface.
void handlers_read(pe_live_port_t* port, const char* own_name) {
    FILE* list = fopen("/proc/net/ptype", "re");
    if (list == nullptr) return;
    char line[256];
    while (fgets(line, sizeof line, list) != nullptr && port->nhandled < kHandlersMax) {
        char type[8], device[IF_NAMESIZE + 1] = "";
        if (sscanf(line, "%4[0-9a-f] %16s", type, device) < 1) continue;  // the title, or "ALL"
        // A handler for every interface leaves the device column blank.
        if (line[5] == ' ' || strcmp(device, own_name) == 0)
            port->handled[port->nhandled++] = static_cast<uint16_t>(strtoul(type, nullptr, 16));
    }
    fclose(list);
}

// Whether the kernel takes a frame of this type, as it reads the type after a VLAN tag.
bool handled_is(const pe_live_port_t* port, const uint8_t* type) {
    constexpr uint16_t kLengthFloor = 0x600, kRaw8023 = 0x0001, kLlc = 0x0004;
    uint16_t protocol = be16(type);
    if (protocol < kLengthFloor) protocol = be16(type + 2) == 0xFFFF ? kRaw8023 : kLlc;
    for (unsigned i = 0; i < port->nhandled; ++i)
        if (port->handled[i] == protocol) return true;
    return false;
}

bool statistics_open(pe_live_port_t* port, FILE* err) {
    char own_name[IF_NAMESIZE];  // the interface's own name, not an alternative one
    if (if_indextoname(static_cast<unsigned>(port->ifindex), own_name) == nullptr)
        return fail(err, port->name.c_str(), "");
    handlers_read(port, own_name);
    for (unsigned i = 0; i < kDropCounters; ++i) {
        const std::string path = std::string("/sys/class/net/") + own_name + "/statistics/" + kDropStatistics[i];
        port->drops[i].fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (port->drops[i].fd < 0) return fail(err, port->name.c_str(), path.c_str());
        port->drops[i].at_open = port->drops[i].read();
    }
    return true;
}

bool socket_open(pe_live_port_t* port, const char* interface, FILE* err) {
    // Protocol 0: nothing arrives before the ring is ready and the socket bound.
    port->fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (port->fd < 0) return fail(err, interface, "packet socket");
    const int version = TPACKET_V3, on = 1;
    tpacket_req3 ring{};
    ring.tp_block_size = kLiveBlockBytes;
    ring.tp_block_nr = kLiveBlocks;
    ring.tp_frame_size = kNominalFrame;
    ring.tp_frame_nr = kLiveBlockBytes / kNominalFrame * kLiveBlocks;
    ring.tp_retire_blk_tov = kLiveRetireMs;
    if (setsockopt(port->fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0 ||
        setsockopt(port->fd, SOL_PACKET, PACKET_RX_RING, &ring, sizeof ring) != 0)
        return fail(err, interface, "receive ring");
    if (setsockopt(port->fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0)
        return fail(err, interface, "leaving out its own sends");
    void* mapped = mmap(nullptr, size_t{kLiveBlockBytes} * kLiveBlocks, PROT_READ | PROT_WRITE, MAP_SHARED, port->fd, 0);
    if (mapped == MAP_FAILED) return fail(err, interface, "receive ring");
    port->ring = static_cast<uint8_t*>(mapped);
    packet_mreq promiscuous{};
    promiscuous.mr_ifindex = port->ifindex;
    promiscuous.mr_type = PACKET_MR_PROMISC;
    if (setsockopt(port->fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promiscuous, sizeof promiscuous) != 0)
        return fail(err, interface, "promiscuous mode");
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = port->ifindex;
    if (bind(port->fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return fail(err, interface, "");
    // From here on every frame the interface receives is the program's or counted.
    tpacket_stats_v3 stale;
    socklen_t size = sizeof stale;
    getsockopt(port->fd, SOL_PACKET, PACKET_STATISTICS, &stale, &size);
    return statistics_open(port, err);
}

}  // namespace

pe_live_port_t* pe_live_open(const char* interface, FILE* err) {
    auto* port = new pe_live_port_t;
    port->name = interface;
    port->ifindex = static_cast<int>(if_nametoindex(interface));
    for (unsigned i = 0; i < kLiveBatch; ++i) {
        port->messages[i] = mmsghdr{};
        port->messages[i].msg_hdr.msg_iov = &port->frames[i];
        port->messages[i].msg_hdr.msg_iovlen = 1;
    }
    if ((port->ifindex == 0 && !fail(err, interface, "")) || !socket_open(port, interface, err)) {
        pe_live_close(port);
        return nullptr;
    }
    return port;
}

void pe_live_close(pe_live_port_t* port) {
    if (port->ring != nullptr) munmap(port->ring, size_t{kLiveBlockBytes} * kLiveBlocks);
    if (port->fd >= 0) close(port->fd);
    for (const Statistic& statistic : port->drops)
        if (statistic.fd >= 0) close(statistic.fd);
    delete port;
}

int pe_live_fd(const pe_live_port_t* port) { return port->fd; }

int pe_live_ifindex(const pe_live_port_t* port) { return port->ifindex; }

unsigned pe_live_receive(pe_live_port_t* port, pe_live_deliver_fn deliver, void* context) {
    uint8_t* block = port->ring + size_t{port->block} * kLiveBlockBytes;
    auto* descriptor = reinterpret_cast<tpacket_block_desc*>(block);
    if ((__atomic_load_n(&descriptor->hdr.bh1.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0) return 0;
    const unsigned frames = descriptor->hdr.bh1.num_pkts;
    const uint8_t* at = block + descriptor->hdr.bh1.offset_to_first_pkt;
    for (unsigned i = 0; i < frames; ++i) {
        const auto* header = reinterpret_cast<const tpacket3_hdr*>(at);
        const uint8_t* frame = at + header->tp_mac;
        unsigned captured = header->tp_snaplen, length = header->tp_len;
        if ((header->tp_status & TP_STATUS_VLAN_VALID) != 0 && captured >= kAddresses) {
            // The kernel keeps a received VLAN tag beside the frame; the frame had it here.
            const uint16_t tpid =
                (header->tp_status & TP_STATUS_VLAN_TPID_VALID) != 0 ? header->hv1.tp_vlan_tpid : ETH_P_8021Q;
            const uint16_t tci = header->hv1.tp_vlan_tci;
            const uint8_t tag[kVlanTag] = {static_cast<uint8_t>(tpid >> 8), static_cast<uint8_t>(tpid),
                                           static_cast<uint8_t>(tci >> 8), static_cast<uint8_t>(tci)};
            if (captured >= kAddresses + 4 && !handled_is(port, frame + kAddresses)) ++port->kernel_unhandled;
            memcpy(port->staged, frame, kAddresses);
            memcpy(port->staged + kAddresses, tag, kVlanTag);
            memcpy(port->staged + kAddresses + kVlanTag, frame + kAddresses, captured - kAddresses);
            frame = port->staged;
            captured += kVlanTag;
            length += kVlanTag;
        }
        deliver(context, frame, captured, length);
        at += header->tp_next_offset;
    }
    __atomic_store_n(&descriptor->hdr.bh1.block_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
    port->block = (port->block + 1) % kLiveBlocks;
    return frames;
}

bool pe_live_queue(pe_live_port_t* port, const uint8_t* frame, unsigned length) {
    if (length > kLiveBatchBytes) return false;
    if (port->count == kLiveBatch || port->used + length > kLiveBatchBytes) pe_live_flush(port);
    uint8_t* copy = port->bytes + port->used;
    memcpy(copy, frame, length);
    port->frames[port->count] = iovec{copy, length};
    port->used += length;
    ++port->count;
    return true;
}

void pe_live_flush(pe_live_port_t* port) {
    // A refused frame is counted and skipped; sendmmsg stops at it and
    // tells its error on the next call.
    for (unsigned sent = 0; sent < port->count;) {
        const int result = sendmmsg(port->fd, port->messages + sent, port->count - sent, 0);
        if (result > 0) {
            sent += static_cast<unsigned>(result);
        } else if (result == 0 || errno != EINTR) {
            ++port->refused_frames;
            port->refused_bytes += port->frames[sent].iov_len;
            ++sent;
        }
    }
    port->count = 0;
    port->used = 0;
}

void pe_live_refused_take(pe_live_port_t* port, uint64_t* frames, uint64_t* bytes) {
    *frames = port->refused_frames;
    *bytes = port->refused_bytes;
    port->refused_frames = port->refused_bytes = 0;
}

int64_t pe_live_lost_take(pe_live_port_t* port) {
    tpacket_stats_v3 ring{};
    socklen_t size = sizeof ring;
    if (getsockopt(port->fd, SOL_PACKET, PACKET_STATISTICS, &ring, &size) == 0) port->ring_lost += ring.tp_drops;
    int64_t interface = -static_cast<int64_t>(port->kernel_unhandled);
    for (Statistic& statistic : port->drops) interface += static_cast<int64_t>(statistic.read() - statistic.at_open);
    const int64_t lost = static_cast<int64_t>(port->ring_lost) + (interface > 0 ? interface : 0);
    const int64_t change = lost - port->lost_told;
    port->lost_told = lost;
    return change;
}

void pe_live_input_stop(pe_live_port_t* port) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = 0;
    address.sll_ifindex = port->ifindex;
    bind(port->fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
}

bool pe_live_error_report(pe_live_port_t* port, FILE* err) {
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(port->fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error == 0) return false;
    fprintf(err, "corvex-pe: %s: %s\n", port->name.c_str(), strerror(error));
    return true;
}
