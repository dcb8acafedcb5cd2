// CRC-32 of IEEE 802.3 (reflected polynomial 0xEDB88320) without the usual
// inversions, so that callers choose the starting register and results
// chain. The register after every input equals the one of the
// byte-at-a-time definition; two engines compute it faster:
//
// - everywhere: sixteen bytes per step through sixteen tables (slicing by
//   16). Table k gives the effect of a byte followed by k zero bytes, so a
//   block is the XOR of sixteen independent lookups instead of a chain of
//   sixteen dependent ones.
// - on x86 processors with carry-less multiplication (PCLMULQDQ, and
//   SSE4.1 for the final extraction): buffers of 64 bytes or more are
//   folded 64 bytes per step by multiplying with x^n mod P, then reduced
//   to 32 bits with a Barrett reduction; the tail goes through the tables.
//   The processor features are those glibc reports as usable, so
//   GLIBC_TUNABLES=glibc.cpu.hwcaps=-SSE4_1 selects the table engine.
#include <array>
#include <cstddef>
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
// glibc's feature header is written in C; clang's C++ lacks its _Bool.
#if defined(__clang__)
#define _Bool bool
#include <sys/platform/x86.h>
#undef _Bool
#else
#include <sys/platform/x86.h>
#endif
#define CORVEX_CRC_CLMUL 1
#endif

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

uint32_t crc_update_tables(uint32_t reg, const unsigned char* p, size_t len) {
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

#ifdef CORVEX_CRC_CLMUL

// Folding constants in the bit-reflected domain, each (x^n mod P)' << 1:
// n = 4 * 128 + 32 and 4 * 128 - 32 to fold 64 bytes forward, 128 + 32 and
// 128 - 32 to fold 16 bytes, 64 to go from 64 to 32 bits; then P' and
// the Barrett constant floor(x^64 / P)' (33 bits each).
constexpr uint64_t kFold64[2] = {0x154442bd4, 0x1c6e41596};
constexpr uint64_t kFold16[2] = {0x1751997d0, 0x0ccaa009e};
constexpr uint64_t kFold32 = 0x163cd6124;
constexpr uint64_t kBarrett[2] = {0x1db710641, 0x1f7011641};
constexpr size_t kClmulMinimum = 64;

#define CORVEX_CLMUL_TARGET __attribute__((target("pclmul,sse4.1")))

CORVEX_CLMUL_TARGET inline __m128i constants(const uint64_t (&pair)[2]) {
    return _mm_set_epi64x(static_cast<long long>(pair[1]), static_cast<long long>(pair[0]));
}

CORVEX_CLMUL_TARGET inline __m128i load128(const unsigned char* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// acc * x^128 (or x^512) mod P, plus the next data block.
CORVEX_CLMUL_TARGET inline __m128i fold(__m128i acc, __m128i k, __m128i next) {
    const __m128i low = _mm_clmulepi64_si128(acc, k, 0x00);
    const __m128i high = _mm_clmulepi64_si128(acc, k, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), next);
}

// Consumes len rounded down to 16 bytes (len >= 64) and returns the
// register after them.
CORVEX_CLMUL_TARGET uint32_t crc_update_clmul(uint32_t reg, const unsigned char* p, size_t len) {
    __m128i a = _mm_xor_si128(load128(p), _mm_cvtsi32_si128(static_cast<int>(reg)));
    __m128i b = load128(p + 16);
    __m128i c = load128(p + 32);
    __m128i d = load128(p + 48);
    p += 64;
    len -= 64;

    const __m128i k64 = constants(kFold64);
    for (; len >= 64; p += 64, len -= 64) {
        a = fold(a, k64, load128(p));
        b = fold(b, k64, load128(p + 16));
        c = fold(c, k64, load128(p + 32));
        d = fold(d, k64, load128(p + 48));
    }

    const __m128i k16 = constants(kFold16);
    a = fold(a, k16, b);
    a = fold(a, k16, c);
    a = fold(a, k16, d);
    for (; len >= 16; p += 16, len -= 16) {
        a = fold(a, k16, load128(p));
    }

    // 128 bits to 96: the low half times x^(128-32) into the high half.
    const __m128i low32_mask = _mm_setr_epi32(-1, 0, -1, 0);
    a = _mm_xor_si128(_mm_srli_si128(a, 8), _mm_clmulepi64_si128(a, k16, 0x10));
    // 96 bits to 64: the low 32 bits times x^64.
    const __m128i k32 = _mm_set_epi64x(0, static_cast<long long>(kFold32));
    a = _mm_xor_si128(_mm_srli_si128(a, 4), _mm_clmulepi64_si128(_mm_and_si128(a, low32_mask), k32, 0x00));
    // Barrett reduction of the 64 bits to the 32-bit remainder.
    const __m128i barrett = constants(kBarrett);
    __m128i t = _mm_clmulepi64_si128(_mm_and_si128(a, low32_mask), barrett, 0x10);
    t = _mm_clmulepi64_si128(_mm_and_si128(t, low32_mask), barrett, 0x00);
    return static_cast<uint32_t>(_mm_extract_epi32(_mm_xor_si128(a, t), 1));
}

// Decided once, when the library is loaded.
const bool clmul_usable = CPU_FEATURE_ACTIVE(PCLMULQDQ) && CPU_FEATURE_ACTIVE(SSE4_1);

#endif  // CORVEX_CRC_CLMUL

uint32_t crc_update(uint32_t reg, const unsigned char* p, size_t len) {
#ifdef CORVEX_CRC_CLMUL
    if (len >= kClmulMinimum && clmul_usable) {
        const size_t folded = len & ~static_cast<size_t>(15);
        reg = crc_update_clmul(reg, p, folded);
        p += folded;
        len -= folded;
    }
#endif
    return crc_update_tables(reg, p, len);
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
