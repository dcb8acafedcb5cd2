// Hex dump of memory on the CLI terminal. Each line is built whole and
// printed with one call, so a line never interleaves with other output of
// the same terminal.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "hexdump.h"
#include "host_cli.h"

namespace {

constexpr size_t kBytesPerLine = 16;
constexpr size_t kHalfLine = 8;

// The hex column of a line: "xx " per byte and "- " before the ninth, or
// blanks of the same width for missing bytes, and a terminator.
constexpr size_t kHexRoom = kBytesPerLine * 3 + 2 + 1;

void print_line(const char* leader, const unsigned char* bytes, size_t count) {
    static constexpr char kHex[] = "0123456789abcdef";
    char line[kHexRoom];
    char chars[kBytesPerLine + 1];
    size_t at = 0;
    for (size_t i = 0; i < count; ++i) {
        if (i == kHalfLine) {
            line[at++] = '-';
            line[at++] = ' ';
        }
        line[at++] = kHex[bytes[i] >> 4];
        line[at++] = kHex[bytes[i] & 0xF];
        line[at++] = ' ';
        chars[i] = isprint(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
    }
    chars[count] = '\0';
    if (count < kBytesPerLine) {
        // Blanks where the missing bytes (and the "- ") would be, so every
        // character column starts at the same place.
        size_t blanks = (kBytesPerLine - count) * 3 + (count <= kHalfLine ? 2 : 0);
        while (blanks-- > 0) {
            line[at++] = ' ';
        }
    }
    line[at] = '\0';
    parser_printf("%s%s   %s\n", leader, line, chars);
}

}  // namespace

extern "C" void hex_dump(const char* leader, const void* data, size_t size) {
    if (data == nullptr) {
        return;
    }
    if (leader == nullptr) {
        leader = "";
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (size_t offset = 0; offset < size; offset += kBytesPerLine) {
        const size_t rest = size - offset;
        print_line(leader, bytes + offset, rest < kBytesPerLine ? rest : kBytesPerLine);
    }
}
