// The counter table as JSON, for scripts and dashboards: the numbers the
// table prints, by the same names, nothing left out.
#include <cinttypes>

#include "diag_text.h"
#include "pe_forward.h"

void pe_counters_write_json(const pe_forwarder_t* forwarder, FILE* out) {
    const pe_config_t* config = forwarder->config;
    uint64_t rx_lost = 0, tx_lost = 0;
    fprintf(out, "{\"ports\": [");
    for (unsigned i = 0; i < config->nports; ++i) {
        const pe_port_counters_t& c = forwarder->ports[i];
        rx_lost += c.rx_lost;
        tx_lost += c.tx_lost;
        char ecid[16] = "null";
        if (i > 0) snprintf(ecid, sizeof ecid, "%u", static_cast<unsigned>(config->ports[i].ecid));
        fprintf(out,
                "%s\n  {\"name\": %s, \"ecid\": %s, \"rx_frames\": %" PRIu64 ", \"rx_bytes\": %" PRIu64
                ", \"tx_frames\": %" PRIu64 ", \"tx_bytes\": %" PRIu64 ", \"rx_lost\": %" PRIu64 ", \"tx_lost\": %" PRIu64
                ", \"lldp\": %" PRIu64 ", \"lldp_pe\": %" PRIu64 ", \"dropped\": %" PRIu64 ", \"pruned\": %" PRIu64 "}",
                i == 0 ? "" : ",", diag_json_quoted(config->ports[i].name).c_str(), ecid, c.rx_frames, c.rx_bytes,
                c.tx_frames, c.tx_bytes, c.rx_lost, c.tx_lost, c.lldp, c.lldp_pe, c.dropped, c.pruned);
    }
    fprintf(out, "\n],\n\"dropped_by_reason\": {");
    for (unsigned r = 0; r < PE_DROP_REASONS; ++r) {
        fprintf(out, "%s\n  %s: %" PRIu64, r == 0 ? "" : ",",
                diag_json_quoted(pe_drop_reason_name(static_cast<pe_drop_reason>(r))).c_str(), forwarder->drops[r]);
    }
    fprintf(out, "\n},\n\"lost\": {\"rx\": %" PRIu64 ", \"tx\": %" PRIu64 "}}\n", rx_lost, tx_lost);
}
