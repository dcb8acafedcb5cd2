// Any bytes as the capture file of two ports of corvex-pe: opening and
// reading it must fail cleanly or forward every frame it holds, and every
// packet and clone taken for the frames must be back in its pool after.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "heap.h"
#include "packet_var.h"
#include "pe_config.h"
#include "pe_forward.h"
#include "pe_io.h"

namespace {

const char kConfig[] =
    "upstream up\n"
    "port a 0x001 vlan strip\n"
    "port b 0x002 vlan add 100\n"
    "group 0x1001 a b\n";

heap_t buffers;
pe_config_t config;
FILE* quiet;

bool emit_nothing(void*, unsigned, const packet_t*) { return true; }

bool setup() {
    static const packet_sheaf_block_t pools[] = {{const_cast<char*>("large"), 1518, 0, 16, 4, nullptr},
                                                 {const_cast<char*>("clone"), 0, 0, 16, 4, nullptr},
                                                 {const_cast<char*>("small"), 128, 0, 16, 4, nullptr},
                                                 {nullptr, 0, 0, 0, 0, nullptr}};
    constexpr size_t kBytes = 1 << 20;
    const auto first = reinterpret_cast<uintptr_t>(aligned_alloc(64, kBytes));
    if (first == 0 || heap_create(&buffers, first, first + kBytes, const_cast<char*>("fuzz")) != 0) return false;
    packet_module_init();
    packet_pool_init(nullptr, pools, &buffers);
    FILE* text = fmemopen(const_cast<char*>(kConfig), sizeof kConfig - 1, "r");
    quiet = fopen("/dev/null", "w");
    return text != nullptr && quiet != nullptr && pe_config_read(&config, text, "fuzz", &buffers, stderr) == 0 &&
           fclose(text) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = setup();
    if (!ready) abort();
    const int fd = memfd_create("capture", 0);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) abort();
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    // The upstream port and port a read the same capture.
    const pe_port_io_t ports[] = {{path, nullptr, nullptr}, {path, nullptr, nullptr}, {nullptr, nullptr, nullptr}};
    pe_io_t* io = pe_io_open(ports, 3, DiagInputs{}, quiet);
    if (io != nullptr) {
        pe_forwarder_t forwarder;
        pe_forwarder_init(&forwarder, &config, emit_nothing, io);
        volatile sig_atomic_t stop = 0;
        pe_io_run(io, &forwarder, 0, &stop, false, nullptr);
        pe_io_close(io, false);
    }
    close(fd);
    if (packet_stats.get_successes != packet_stats.returns) abort();
    return 0;
}
