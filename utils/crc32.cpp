// CRC-32 of IEEE 802.3 (reflected polynomial 0xEDB88320) without the usual
// inversions, so that callers choose the starting register and results
// chain. Sixteen bytes are folded per step through sixteen tables (slicing
// by 16): table k gives the effect of a byte followed by k zero bytes, so a
// whole block is the XOR of sixteen independent lookups instead of a chain
// of sixteen dependent ones. The register after every input equals the one
// of the byte-at-a-time definition.
#include <array>
#include <cstddef>
#include <cstdint>

#include "hexdump.h"

namespace {

constexpr uint32_t kPolynomial = 0xEDB88320u;
constexpr size_t kSlice = 16;

using CrcTable = std::array<uint32_t, 256>;

constexpr std::array<CrcTable, kSlice> make_crc_tables() {
    std::array<CrcTable, kSlice> tables{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t reg = i;
        for (int bit = 0; bit < 8; ++bit) {
            reg = (reg & 1) != 0 ? (reg >> 1) ^ kPolynomial : reg >> 1;
        }
        tables[0][i] = reg;
    }
    for (size_t k = 1; k < kSlice; ++k) {
        for (uint32_t i = 0; i < 256; ++i) {
            const uint32_t prev = tables[k - 1][i];
            tables[k][i] = (prev >> 8) ^ tables[0][prev & 0xFF];
        }
    }
    return tables;
}

constexpr std::array<CrcTable, kSlice> crc_tables = make_crc_tables();
constexpr const CrcTable& crc32_tab = crc_tables[0];

static_assert(crc32_tab[1] == 0x77073096u && crc32_tab[128] == 0xEDB88320u && crc32_tab[255] == 0x2D02EF8Du);

// Bytes in wire order whatever the processor's order; compilers turn this
// into a single load on little-endian machines.
inline uint32_t load_le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

inline uint32_t fold_word(uint32_t word, size_t first_table) {
    const auto& t = crc_tables;
    return t[first_table][word & 0xFF] ^ t[first_table - 1][(word >> 8) & 0xFF] ^
           t[first_table - 2][(word >> 16) & 0xFF] ^ t[first_table - 3][word >> 24];
}

uint32_t crc_update(uint32_t reg, const unsigned char* p, size_t len) {
    while (len >= kSlice) {
        reg = fold_word(load_le32(p) ^ reg, 15) ^ fold_word(load_le32(p + 4), 11) ^ fold_word(load_le32(p + 8), 7) ^
              fold_word(load_le32(p + 12), 3);
        p += kSlice;
        len -= kSlice;
    }
    while (len-- > 0) {
        reg = crc32_tab[(reg ^ *p++) & 0xFF] ^ (reg >> 8);
    }
    return reg;
}

}  // namespace

extern "C" {

// The register is 32 bits: where long is wider, the upper bits of
// crc32val are not part of it.
unsigned int inc_crc32(const unsigned char* s, unsigned int len, long unsigned int crc32val) {
    return crc_update(static_cast<uint32_t>(crc32val), s, len);
}

unsigned int crc32(const unsigned char* s, unsigned int len) { return crc_update(0, s, len); }

}  // extern "C"
