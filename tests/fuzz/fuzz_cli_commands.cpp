// Any line typed at the diagnostic command line, parsed against the
// library's own command tree on the demonstration host (heaps with blocks
// in use, packet pools with packets held and cloned): whatever the line,
// the parser and every command it reaches must neither read nor write
// outside what they were given nor stop the process. "show heap N address
// X" and "show packet dump X" take any value; so that values inside the
// heaps and on live packets come up too, "$h" followed by hex digits
// stands for that offset from the first heap's base and "$p" followed by
// hex digits for that offset from a held packet's header.
#include <cctype>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli_session.h"
#include "heap.h"
#include "host_setup.h"
#include "packet_var.h"

namespace {

struct Host {
    parser_config* session;
    uintptr_t heap_base;
    uintptr_t packet;
};

void discard(void*, const char*, size_t) {}

const Host& host() {
    static const Host started = [] {
        if (host_setup_start("fuzz_cli_commands") != 0) abort();
        host_setup_traffic();
        parser_config* session = cli_session_create(&libcorvex_vty_tree);
        if (session == nullptr) abort();
        cli_session_output_set(session, discard, nullptr);
        return Host{session, bcm_sdk_heap.base, reinterpret_cast<uintptr_t>(packet_get(64))};
    }();
    return started;
}

// The line with every "$h<hex>" and "$p<hex>" replaced by the address.
std::string line_expanded(const char* text, size_t size) {
    std::string line;
    for (size_t i = 0; i < size && text[i] != '\n' && text[i] != '\r' && text[i] != '\0'; ++i) {
        if (text[i] != '$' || i + 1 >= size || (text[i + 1] != 'h' && text[i + 1] != 'p')) {
            line += text[i];
            continue;
        }
        uintptr_t address = text[++i] == 'h' ? host().heap_base : host().packet;
        std::string digits;
        while (i + 1 < size && digits.size() < 8 && isxdigit(static_cast<unsigned char>(text[i + 1]))) {
            digits += text[++i];
        }
        address += digits.empty() ? 0 : strtoul(digits.c_str(), nullptr, 16);
        char number[24];
        snprintf(number, sizeof number, "0x%" PRIxPTR, address);
        line += number;
    }
    return line;
}

}  // namespace

// The library's log is formatted (its arguments checked) and dropped.
extern "C" void vsyslog(int, const char* format, va_list args) {
    char text[512];
    vsnprintf(text, sizeof text, format, args);
}
extern "C" void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line = line_expanded(reinterpret_cast<const char*>(data), size);
    cli_session_execute(host().session, line.c_str());
    return 0;
}
