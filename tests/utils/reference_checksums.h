// The checksums exactly as defined, one byte or one word per step, with a
// CRC table of their own. Tests compare the library with these; the
// benchmarks measure the library against them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace corvex_reference {

inline constexpr std::array<uint32_t, 256> kCrcTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t reg = i;
        for (int bit = 0; bit < 8; ++bit) {
            reg = (reg & 1) != 0 ? (reg >> 1) ^ 0xEDB88320u : reg >> 1;
        }
        table[i] = reg;
    }
    return table;
}();

// register = table[(register ^ byte) & 0xFF] ^ (register >> 8), no inversions.
inline uint32_t crc32(const unsigned char* s, size_t len, uint32_t reg) {
    for (size_t i = 0; i < len; ++i) {
        reg = kCrcTable[(reg ^ s[i]) & 0xFF] ^ (reg >> 8);
    }
    return reg;
}

// 16-bit words in the processor's order into a 32-bit sum that is folded
// only at the end (so it wraps for very long buffers), the odd byte added
// as a value, and the one's complement of the folded sum.
inline uint16_t in_checksum(const uint8_t* p, uint32_t bytes, uint32_t initsum) {
    uint32_t sum = initsum;
    for (uint32_t i = 0; i + 1 < bytes; i += 2) {
        uint16_t word;
        memcpy(&word, p + i, sizeof word);
        sum += word;
    }
    if ((bytes & 1) != 0) {
        sum += p[bytes - 1];
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

}  // namespace corvex_reference
