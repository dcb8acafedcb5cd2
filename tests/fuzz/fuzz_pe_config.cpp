// Any bytes as corvex-pe's configuration file: the reader refuses them with
// one line naming the file and the line, or gives a configuration that
// forwards a frame for every port and group without a drop. Either way the
// tables heap ends with the free bytes it had: nothing leaked.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "heap.h"
#include "packet_var.h"
#include "pe_config.h"
#include "pe_forward.h"

namespace {

heap_t tables;

bool heap_make(heap_t* heap, const char* name) {
    constexpr size_t kBytes = 1 << 20;
    const auto first = reinterpret_cast<uintptr_t>(aligned_alloc(64, kBytes));
    return first != 0 && heap_create(heap, first, first + kBytes, const_cast<char*>(name)) == 0;
}

bool setup() {
    static heap_t buffers;
    static const packet_sheaf_block_t pools[] = {{const_cast<char*>("clone"), 0, 0, 16, 4, nullptr},
                                                 {const_cast<char*>("small"), 128, 0, 16, 4, nullptr},
                                                 {nullptr, 0, 0, 0, 0, nullptr}};
    if (!heap_make(&tables, "tables") || !heap_make(&buffers, "buffers")) return false;
    packet_module_init();
    packet_pool_init(nullptr, pools, &buffers);
    return true;
}

bool emit_taken(void*, unsigned, const packet_t*) { return true; }

// "corvex-pe: fuzz.conf:LINE: " and more, the only newline last.
bool one_line_naming_file_and_line(const char* said, size_t size) {
    unsigned line = 0;
    int text = 0;
    return sscanf(said, "corvex-pe: fuzz.conf:%u: %n", &line, &text) == 1 && line > 0 && text > 0 &&
           strchr(said, '\n') == said + size - 1;
}

// A frame from the upstream port for ecid, and one from every extended port.
void traffic_run(pe_forwarder_t* forwarder, const pe_config_t& config, pe_ecid_t ecid) {
    ether_802_etag_t etag{};
    ether_802_etag_ecid_set(&etag, ecid);
    const uint8_t frame[] = {2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 0x89, 0x3F, 0, 0,
                             static_cast<uint8_t>(etag.etag_grp_ecid_base >> 8),
                             static_cast<uint8_t>(etag.etag_grp_ecid_base), 0, etag.etag_ecid_ext, 0x88, 0xB5};
    pe_forward_frame(forwarder, 0, frame, sizeof frame, sizeof frame);
    for (unsigned port = 1; port < config.nports; ++port)
        pe_forward_frame(forwarder, port, frame + 8, sizeof frame - 8, sizeof frame - 8);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = setup();
    if (!ready) abort();
    const size_t free_before = heap_get_free_bytes(&tables);
    FILE* in = fmemopen(const_cast<uint8_t*>(data), size, "r");
    char* said = nullptr;
    size_t said_size = 0;
    FILE* err = open_memstream(&said, &said_size);
    if (in == nullptr || err == nullptr) abort();
    pe_config_t config{};
    const int status = pe_config_read(&config, in, "fuzz.conf", &tables, err);
    fclose(in);
    fclose(err);
    if (status != 0) {
        if (!one_line_naming_file_and_line(said, said_size)) abort();
    } else {
        if (said_size != 0) abort();
        pe_forwarder_t forwarder;
        pe_forwarder_init(&forwarder, &config, emit_taken, nullptr);
        for (unsigned port = 1; port < config.nports; ++port) traffic_run(&forwarder, config, config.ports[port].ecid);
        for (unsigned group = 0; group < config.ngroups; ++group)
            traffic_run(&forwarder, config, config.groups[group].ecid);
        for (const uint64_t drops : forwarder.drops)
            if (drops != 0) abort();
        pe_config_release(&config);
    }
    free(said);
    if (heap_get_free_bytes(&tables) != free_before || packet_stats.get_successes != packet_stats.returns) abort();
    return 0;
}
