// The sources and sinks of corvex-pe and the loops that drive them.
#include "pe_io.h"

#include <poll.h>

#include <ctime>
#include <optional>

#include "pe_capture.h"
#include "pe_live.h"
#include "pe_phases.h"

struct pe_io_t {
    struct Port {
        pe_capture_reader_t reader;
        bool reading = false;  // reader holds the port's next frame
        pe_capture_writer_t writer;
        pe_live_port_t* live = nullptr;
    };
    Port ports[PE_PORTS_MAX];
    unsigned nports = 0;
    bool live = false;
    bool failed = false;  // an output could not be written
    FILE* err = stderr;
    uint64_t now_ns = 0;  // timestamp given to frames written to files
};

namespace {

double monotonic_seconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// The forwarder's totals over all ports, once a second.
struct Progress {
    bool on;
    double next = monotonic_seconds() + 1;
    bool due() const { return on && monotonic_seconds() >= next; }
    void print(const pe_forwarder_t* forwarder, unsigned nports) {
        next = monotonic_seconds() + 1;
        unsigned long long rx = 0, tx = 0, dropped = 0, rx_lost = 0, tx_lost = 0;
        for (unsigned i = 0; i < nports; ++i) {
            const pe_port_counters_t& port = forwarder->ports[i];
            rx += port.rx_frames, tx += port.tx_frames, dropped += port.dropped;
            rx_lost += port.rx_lost, tx_lost += port.tx_lost;
        }
        fprintf(stderr, "corvex-pe: Rx %llu, Tx %llu, dropped %llu, Rx lost %llu, Tx lost %llu\n", rx, tx, dropped,
                rx_lost, tx_lost);
    }
};

bool file_next(pe_io_t::Port& port, FILE* err) {
    const int read = pe_capture_read(&port.reader, err);
    port.reading = read > 0;
    return read >= 0;
}

// Frames from files go in batches of this many, each marked in the event
// ring (pe_phases.h); between two, the progress line is looked at.
constexpr unsigned long kFileBatch = 4096;

int files_run(pe_io_t* io, pe_forwarder_t* forwarder, volatile sig_atomic_t* stop, Progress& progress) {
    for (unsigned i = 0; i < io->nports; ++i)
        if (io->ports[i].reader.file != nullptr && !file_next(io->ports[i], io->err)) return 2;
    std::optional<PePhase> batch;
    batch.emplace("forwarding batch");
    for (unsigned long frames = 1; !*stop; ++frames) {
        // The earliest frame of all ports goes first, as it would on the wire.
        unsigned next = io->nports;
        for (unsigned i = 0; i < io->nports; ++i)
            if (io->ports[i].reading &&
                (next == io->nports || io->ports[i].reader.time_ns < io->ports[next].reader.time_ns))
                next = i;
        if (next == io->nports) break;
        pe_capture_reader_t& reader = io->ports[next].reader;
        io->now_ns = reader.time_ns;
        pe_forward_frame(forwarder, next, reader.data, reader.captured, reader.length);
        if (io->failed || !file_next(io->ports[next], io->err)) return 2;
        if (frames % kFileBatch != 0) continue;
        batch.reset();
        if (progress.due()) progress.print(forwarder, io->nports);
        batch.emplace("forwarding batch");
    }
    return 0;
}

struct Delivery {
    pe_forwarder_t* forwarder;
    unsigned port;
};

void live_deliver(void* context, const uint8_t* frame, unsigned captured, unsigned length) {
    const auto* delivery = static_cast<const Delivery*>(context);
    pe_forward_frame(delivery->forwarder, delivery->port, frame, captured, length);
}

// One batch: a ready block from every port that has one, then every
// port's sends. Returns the frames received.
unsigned live_batch(pe_io_t* io, pe_forwarder_t* forwarder) {
    PePhase batch("forwarding batch");
    unsigned frames = 0;
    for (unsigned i = 0; i < io->nports; ++i) {
        if (io->ports[i].live == nullptr) continue;
        Delivery delivery{forwarder, i};
        frames += pe_live_receive(io->ports[i].live, live_deliver, &delivery);
    }
    for (unsigned i = 0; i < io->nports; ++i)
        if (io->ports[i].live != nullptr) pe_live_flush(io->ports[i].live);
    return frames;
}

// Settles the counters at the end of a batch: refused sends leave Tx for
// Tx lost; with lost set, the interfaces' losses are added to Rx lost.
void live_settle(pe_io_t* io, pe_forwarder_t* forwarder, bool lost) {
    for (unsigned i = 0; i < io->nports; ++i) {
        pe_live_port_t* live = io->ports[i].live;
        if (live == nullptr) continue;
        pe_port_counters_t& counters = forwarder->ports[i];
        uint64_t frames, bytes;
        pe_live_refused_take(live, &frames, &bytes);
        counters.tx_frames -= frames;
        counters.tx_bytes -= bytes;
        counters.tx_lost += frames;
        if (!lost) continue;
        // The change may be negative for a moment; never below the 0 that
        // clear pe counters may have set.
        const int64_t change = pe_live_lost_take(live);
        counters.rx_lost = change >= 0 || static_cast<uint64_t>(-change) <= counters.rx_lost
                               ? counters.rx_lost + static_cast<uint64_t>(change)
                               : 0;
    }
}

// How long the loop may sleep with nothing to read: until the next
// progress line or the end, whichever comes first; null: no limit.
const timespec* idle_limit(const Progress& progress, double end, timespec* limit) {
    double until = end;
    if (progress.on && (until == 0 || progress.next < until)) until = progress.next;
    if (until == 0) return nullptr;
    const double seconds = until > monotonic_seconds() ? until - monotonic_seconds() : 0;
    limit->tv_sec = static_cast<time_t>(seconds);
    limit->tv_nsec = static_cast<long>((seconds - static_cast<double>(limit->tv_sec)) * 1e9);
    return limit;
}

int live_run(pe_io_t* io, pe_forwarder_t* forwarder, unsigned seconds, volatile sig_atomic_t* stop,
             Progress& progress, pe_control_t* control) {
    pollfd fds[PE_PORTS_MAX + 1];
    unsigned polled[PE_PORTS_MAX];
    nfds_t nfds = 0;
    for (unsigned i = 0; i < io->nports; ++i) {
        if (io->ports[i].live == nullptr) continue;
        fds[nfds] = pollfd{pe_live_fd(io->ports[i].live), POLLIN, 0};
        polled[nfds++] = i;
    }
    const nfds_t ports = nfds;
    if (control != nullptr) fds[nfds++] = pollfd{pe_control_fd(control), POLLIN, 0};
    // The stopping signals wait while frames are handled and come in ppoll,
    // so none is missed between the look at *stop and the sleep.
    sigset_t stopping, open_mask;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopping, &open_mask);
    fprintf(io->err, "corvex-pe: forwarding between %u interfaces\n", static_cast<unsigned>(ports));
    const double end = seconds == 0 ? 0 : monotonic_seconds() + seconds;
    const timespec no_wait{0, 0};
    timespec limit;
    for (bool busy = false; !*stop && (end == 0 || monotonic_seconds() < end);) {
        if (ppoll(fds, nfds, busy ? &no_wait : idle_limit(progress, end, &limit), &open_mask) < 0) continue;
        for (nfds_t f = 0; f < ports; ++f)
            if ((fds[f].revents & POLLERR) != 0) pe_live_error_report(io->ports[polled[f]].live, io->err);
        busy = live_batch(io, forwarder) > 0;
        // A batch boundary: nothing in flight. The counters are settled
        // whole for a progress line and for the console's commands.
        const bool tick = progress.due(), asked = control != nullptr && pe_control_asked(control);
        live_settle(io, forwarder, tick || asked);
        if (tick) progress.print(forwarder, io->nports);
        if (asked && pe_control_serve(control)) break;
    }
    // The frames the rings hold when the run ends are forwarded too, once
    // the interfaces give no more and the blocks being filled are handed over.
    for (nfds_t f = 0; f < ports; ++f) pe_live_input_stop(io->ports[polled[f]].live);
    const timespec handover{0, 10 * kLiveRetireMs * 1000000L};
    nanosleep(&handover, nullptr);
    while (live_batch(io, forwarder) > 0) {}
    live_settle(io, forwarder, true);
    sigprocmask(SIG_SETMASK, &open_mask, nullptr);
    return 0;
}

}  // namespace

pe_io_t* pe_io_open(const pe_port_io_t* ports, unsigned nports, const DiagInputs& inputs, FILE* err) {
    auto* io = new pe_io_t;
    io->err = err;
    io->nports = nports;
    bool opened = true;
    for (unsigned i = 0; opened && i < nports; ++i)
        if (ports[i].input != nullptr) opened = pe_capture_open(&io->ports[i].reader, ports[i].input, err);
    for (unsigned i = 0; opened && i < nports; ++i) {
        if (ports[i].interface == nullptr) continue;
        io->live = true;
        io->ports[i].live = pe_live_open(ports[i].interface, err);
        opened = io->ports[i].live != nullptr;
        for (unsigned j = 0; opened && j < i; ++j) {
            if (io->ports[j].live == nullptr ||
                pe_live_ifindex(io->ports[j].live) != pe_live_ifindex(io->ports[i].live))
                continue;
            fprintf(err, "corvex-pe: %s and %s: one interface, given to two ports\n", ports[j].interface,
                    ports[i].interface);
            opened = false;
        }
    }
    for (unsigned i = 0; opened && i < nports; ++i)
        if (ports[i].output != nullptr) opened = pe_capture_create(&io->ports[i].writer, ports[i].output, inputs, err);
    if (!opened) {
        pe_io_close(io, false);
        return nullptr;
    }
    return io;
}

int pe_io_close(pe_io_t* io, bool publish) {
    bool written = publish;
    for (unsigned i = 0; written && i < io->nports; ++i)
        if (io->ports[i].writer.output) written = pe_capture_finish(&io->ports[i].writer);
    for (unsigned i = 0; written && i < io->nports; ++i)
        if (io->ports[i].writer.output) written = pe_capture_publish(&io->ports[i].writer);
    for (unsigned i = 0; i < io->nports; ++i) {
        pe_io_t::Port& port = io->ports[i];
        pe_capture_discard(&port.writer);
        pe_capture_close(&port.reader);
        if (port.live != nullptr) pe_live_close(port.live);
    }
    delete io;
    return written || !publish ? 0 : 2;
}

bool pe_io_emit(void* context, unsigned port_index, const packet_t* packet) {
    auto* io = static_cast<pe_io_t*>(context);
    pe_io_t::Port& port = io->ports[port_index];
    if (port.live != nullptr) return pe_live_queue(port.live, packet->frame_start, packet->length);
    // Live, a port given no interface takes nothing: its frames are Tx lost.
    if (!port.writer.output) return false;
    if (!io->failed && !pe_capture_write(&port.writer, io->now_ns, packet->frame_start, packet->length))
        io->failed = true;
    return !io->failed;
}

int pe_io_run(pe_io_t* io, pe_forwarder_t* forwarder, unsigned seconds, volatile sig_atomic_t* stop, bool progress,
              pe_control_t* control) {
    Progress ticker{progress};
    const int run = io->live ? live_run(io, forwarder, seconds, stop, ticker, control)
                             : files_run(io, forwarder, stop, ticker);
    if (control != nullptr) pe_control_finish(control);
    return run;
}
