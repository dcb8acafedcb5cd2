#include "pe_diagnostics.h"

#include <cstdlib>
#include <ctime>

#include "diag_heap_map.h"
#include "diag_trace.h"
#include "time_util.h"

namespace {

constexpr char kName[] = "corvex-pe";
// The ring's records: a run of the sample marks a few dozen.
constexpr int kRingRecords = 16384;

}  // namespace

PeDiagnostics::PeDiagnostics(const pe_options_t& options)
    : options_(options), drops_(kName, stderr), trace_(kName, stderr), counters_(kName, stderr) {}

void PeDiagnostics::ring_start() const {
    if (!options_.trace.empty()) event_timestamp_record_init(kRingRecords);
}

void PeDiagnostics::inputs_note(const std::vector<pe_port_io_t>& ports) {
    inputs_.add(options_.config.c_str());
    for (const pe_port_io_t& port : ports)
        if (port.input != nullptr) inputs_.add(port.input);
}

bool PeDiagnostics::open(const pe_config_t& config, const std::vector<pe_port_io_t>& ports, pe_forwarder_t* forwarder) {
    if (!options_.trace.empty() && !trace_.open(options_.trace, inputs_)) return false;
    if (!options_.counters.empty() && !counters_.open(options_.counters, inputs_)) return false;
    if (options_.drops.empty()) return true;
    std::vector<std::pair<std::string, std::string>> interfaces;
    for (unsigned i = 0; i < config.nports; ++i) {
        const pe_port_io_t& port = ports[i];
        interfaces.emplace_back(config.ports[i].name, port.interface != nullptr ? std::string("interface ") + port.interface
                                                      : port.input != nullptr     ? port.input
                                                                                  : "");
    }
    if (!drops_.open(options_.drops, inputs_, interfaces)) return false;
    pe_forwarder_drops_watch(forwarder, drop_note, this);
    return true;
}

void PeDiagnostics::drop_note(void* self, unsigned port, pe_drop_reason reason, uint64_t number, const uint8_t* frame,
                              unsigned captured, unsigned length) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t time_ns = static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
    static_cast<PeDiagnostics*>(self)->drops_.add(port, pe_drop_reason_name(reason), number, time_ns, frame, captured,
                                                  length);
}

bool PeDiagnostics::maps_write() const {
    return options_.heap_map_dir.empty() || diag_heap_maps_write(options_.heap_map_dir, inputs_, kName, stderr);
}

void PeDiagnostics::leaks_report(bool heaps_came_back) const {
    if (options_.leaks || !heaps_came_back) leaks_.report(stdout, "start-up");
}

void PeDiagnostics::counters_note(const pe_forwarder_t& forwarder) {
    if (options_.counters.empty()) return;
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    if (out == nullptr) return;
    pe_counters_write_json(&forwarder, out);
    fclose(out);
    counters_text_.assign(text, size);
    free(text);
}

bool PeDiagnostics::finish() {
    bool written = options_.drops.empty() || drops_.commit();
    if (counters_.file() != nullptr) {
        fputs(counters_text_.c_str(), counters_.file());
        written = counters_.commit() && written;
    }
    if (trace_.file() != nullptr) {
        diag_trace_write(diag_trace_events(diag_trace_marks_read()), kName, trace_.file());
        written = trace_.commit() && written;
    }
    return written;
}
