// libpcap sources and sinks of corvex-pe.
#include "pe_pcap.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "pe_phases.h"

struct pe_io_t {
    struct Port {
        pcap_t* in = nullptr;
        pcap_dumper_t* dump = nullptr;
        pcap_t* dead = nullptr;
        const char* input = nullptr;  // a file, or the interface
        bool live = false;
        // The next frame of a file, read ahead for the timestamp merge.
        pcap_pkthdr* header = nullptr;
        const u_char* data = nullptr;
    };
    Port ports[PE_PORTS_MAX];
    unsigned nports = 0;
    bool live = false;
    FILE* err = stderr;
    timeval now{};  // timestamp given to frames written to files
};

namespace {

constexpr int kSnapLength = 65535;

double monotonic_seconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

pcap_t* live_open(const char* interface, FILE* err) {
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* handle = pcap_create(interface, error);
    if (handle == nullptr) {
        fprintf(err, "corvex-pe: %s: %s\n", interface, error);
        return nullptr;
    }
    pcap_set_snaplen(handle, kSnapLength);
    pcap_set_promisc(handle, 1);
    pcap_set_immediate_mode(handle, 1);
    if (pcap_activate(handle) < 0 || pcap_setnonblock(handle, 1, error) < 0 ||
        pcap_setdirection(handle, PCAP_D_IN) < 0) {
        fprintf(err, "corvex-pe: %s: %s\n", interface, pcap_geterr(handle));
        pcap_close(handle);
        return nullptr;
    }
    return handle;
}

bool port_open(pe_io_t::Port& port, const pe_port_io_t& wanted, FILE* err) {
    char error[PCAP_ERRBUF_SIZE] = "";
    if (wanted.interface != nullptr) {
        port.input = wanted.interface;
        port.live = true;
        port.in = live_open(wanted.interface, err);
        return port.in != nullptr;
    }
    if (wanted.input != nullptr) {
        port.input = wanted.input;
        // Opened here so that a missing file is told like any other fault.
        FILE* file = fopen(wanted.input, "rb");
        if (file == nullptr) {
            fprintf(err, "corvex-pe: %s: %s\n", wanted.input, strerror(errno));
            return false;
        }
        port.in = pcap_fopen_offline(file, error);  // closes file from now on
        if (port.in == nullptr) {
            fclose(file);
            fprintf(err, "corvex-pe: %s: %s\n", wanted.input, error);
            return false;
        }
        if (pcap_datalink(port.in) != DLT_EN10MB) {
            fprintf(err, "corvex-pe: %s: not an Ethernet capture\n", wanted.input);
            return false;
        }
    }
    if (wanted.output != nullptr) {
        port.dead = pcap_open_dead(DLT_EN10MB, kSnapLength);
        port.dump = port.dead == nullptr ? nullptr : pcap_dump_open(port.dead, wanted.output);
        if (port.dump == nullptr) {
            fprintf(err, "corvex-pe: %s: %s\n", wanted.output,
                    port.dead == nullptr ? "cannot write" : pcap_geterr(port.dead));
            return false;
        }
    }
    return true;
}

// Reads the next frame of a file port; false at its end. A damaged or
// truncated file is an error (status 2).
int file_next(pe_io_t::Port& port, FILE* err) {
    const int result = pcap_next_ex(port.in, &port.header, &port.data);
    if (result == 1) return 1;
    port.header = nullptr;
    if (result == PCAP_ERROR_BREAK) return 0;
    fprintf(err, "corvex-pe: %s: %s\n", port.input, pcap_geterr(port.in));
    return -1;
}

bool earlier(const timeval& a, const timeval& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec < b.tv_usec);
}

struct Progress {
    bool on;
    double next = monotonic_seconds() + 1;
    void tick(const pe_forwarder_t* forwarder, unsigned nports) {
        if (!on || monotonic_seconds() < next) return;
        next += 1;
        unsigned long long frames = 0;
        for (unsigned i = 0; i < nports; ++i) frames += forwarder->ports[i].rx_frames;
        fprintf(stderr, "corvex-pe: %llu frames so far\n", frames);
    }
};

// Frames from files go in batches of this many, each marked in the event
// ring (pe_phases.h), where the progress line is looked at.
constexpr unsigned long kFileBatch = 4096;

int files_run(pe_io_t* io, pe_forwarder_t* forwarder, volatile sig_atomic_t* stop, Progress& progress) {
    for (unsigned i = 0; i < io->nports; ++i)
        if (io->ports[i].in != nullptr && file_next(io->ports[i], io->err) < 0) return 2;
    auto batch = std::make_unique<PePhase>("forwarding batch");
    for (unsigned long frames = 0; !*stop; ++frames) {
        // The earliest frame of all ports goes first, as it would on the wire.
        pe_io_t::Port* next = nullptr;
        unsigned in_port = 0;
        for (unsigned i = 0; i < io->nports; ++i) {
            pe_io_t::Port& port = io->ports[i];
            if (port.header != nullptr && (next == nullptr || earlier(port.header->ts, next->header->ts))) {
                next = &port;
                in_port = i;
            }
        }
        if (next == nullptr) return 0;
        io->now = next->header->ts;
        pe_forward_frame(forwarder, in_port, next->data, next->header->caplen, next->header->len);
        if (file_next(*next, io->err) < 0) return 2;
        if ((frames + 1) % kFileBatch == 0) {
            batch.reset();
            progress.tick(forwarder, io->nports);
            batch = std::make_unique<PePhase>("forwarding batch");
        }
    }
    return 0;
}

struct LiveFrame {
    pe_forwarder_t* forwarder;
    unsigned port;
};

void live_frame(u_char* user, const pcap_pkthdr* header, const u_char* data) {
    const auto* frame = reinterpret_cast<const LiveFrame*>(user);
    pe_forward_frame(frame->forwarder, frame->port, data, header->caplen, header->len);
}

int live_run(pe_io_t* io, pe_forwarder_t* forwarder, unsigned seconds, volatile sig_atomic_t* stop,
             Progress& progress) {
    pollfd fds[PE_PORTS_MAX];
    unsigned polled[PE_PORTS_MAX];
    nfds_t nfds = 0;
    for (unsigned i = 0; i < io->nports; ++i) {
        if (io->ports[i].in == nullptr) continue;
        fds[nfds] = pollfd{pcap_get_selectable_fd(io->ports[i].in), POLLIN, 0};
        polled[nfds++] = i;
    }
    fprintf(stderr, "corvex-pe: forwarding between %u interfaces\n", static_cast<unsigned>(nfds));
    const double end = monotonic_seconds() + seconds;
    while (!*stop && (seconds == 0 || monotonic_seconds() < end)) {
        if (poll(fds, nfds, 100) < 0) continue;  // a signal: look at *stop
        PePhase batch("forwarding batch");
        for (nfds_t f = 0; f < nfds; ++f) {
            if ((fds[f].revents & POLLIN) == 0) continue;
            LiveFrame frame{forwarder, polled[f]};
            if (pcap_dispatch(io->ports[polled[f]].in, -1, live_frame, reinterpret_cast<u_char*>(&frame)) < 0) {
                fprintf(io->err, "corvex-pe: %s: %s\n", io->ports[polled[f]].input,
                        pcap_geterr(io->ports[polled[f]].in));
                return 2;
            }
        }
        progress.tick(forwarder, io->nports);
    }
    return 0;
}

}  // namespace

pe_io_t* pe_io_open(const pe_port_io_t* ports, unsigned nports, FILE* err) {
    auto* io = new pe_io_t;
    io->err = err;
    io->nports = nports;
    for (unsigned i = 0; i < nports; ++i) {
        if (!port_open(io->ports[i], ports[i], err)) {
            pe_io_close(io);
            return nullptr;
        }
        io->live = io->live || io->ports[i].live;
    }
    return io;
}

void pe_io_close(pe_io_t* io) {
    for (unsigned i = 0; i < io->nports; ++i) {
        pe_io_t::Port& port = io->ports[i];
        if (port.dump != nullptr) pcap_dump_close(port.dump);
        if (port.dead != nullptr) pcap_close(port.dead);
        if (port.in != nullptr) pcap_close(port.in);
    }
    delete io;
}

bool pe_io_emit(void* context, unsigned port_index, const packet_t* packet) {
    auto* io = static_cast<pe_io_t*>(context);
    pe_io_t::Port& port = io->ports[port_index];
    if (port.live) {
        if (pcap_inject(port.in, packet->frame_start, packet->length) < 0) {
            fprintf(io->err, "corvex-pe: %s: %s\n", port.input, pcap_geterr(port.in));
            return false;
        }
    } else if (port.dump != nullptr) {
        pcap_pkthdr header{};
        header.ts = io->now;
        header.caplen = header.len = packet->length;
        pcap_dump(reinterpret_cast<u_char*>(port.dump), &header, packet->frame_start);
    }
    return true;
}

int pe_io_run(pe_io_t* io, pe_forwarder_t* forwarder, unsigned seconds, volatile sig_atomic_t* stop, bool progress) {
    Progress ticker{progress};
    return io->live ? live_run(io, forwarder, seconds, stop, ticker) : files_run(io, forwarder, stop, ticker);
}
