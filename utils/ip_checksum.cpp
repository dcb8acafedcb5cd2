// The Internet checksum (RFC 1071) over 16-bit words in the processor's
// order. The words are added into a 32-bit sum that wraps as a plain
// accumulator would and is folded once at the end; since only that sum
// modulo 2^32 matters, the words can be added in any grouping, in lanes
// that wrap independently: sixteen bytes a step in four 32-bit lanes, each
// lane adding the low and the high word of its 32 bits.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "hexdump.h"
#include "priv_simd.h"

namespace {

constexpr uint32_t kLowWord = 0xFFFF;

// The sum modulo 2^32 of the native 16-bit words in `words` * 2 bytes at p.
uint32_t sum_words_plain(const uint8_t* p, size_t words) {
    uint32_t sum = 0;
    for (; words >= 2; words -= 2, p += 4) {
        uint32_t pair;
        memcpy(&pair, p, sizeof pair);
        sum += (pair & kLowWord) + (pair >> 16);
    }
    if (words != 0) {
        uint16_t word;
        memcpy(&word, p, sizeof word);
        sum += word;
    }
    return sum;
}

CORVEX_VECTOR_TARGET uint32_t sum_words_vector(const uint8_t* p, size_t words) {
    using corvex::u32x4;
    const u32x4 low = {kLowWord, kLowWord, kLowWord, kLowWord};
    u32x4 sum_a = {0, 0, 0, 0};
    u32x4 sum_b = {0, 0, 0, 0};
    size_t bytes = words * 2;
    for (; bytes >= 32; bytes -= 32, p += 32) {
        u32x4 a, b;
        memcpy(&a, p, sizeof a);
        memcpy(&b, p + 16, sizeof b);
        sum_a += (a & low) + (a >> 16);
        sum_b += (b & low) + (b >> 16);
    }
    if (bytes >= 16) {
        u32x4 a;
        memcpy(&a, p, sizeof a);
        sum_a += (a & low) + (a >> 16);
        bytes -= 16;
        p += 16;
    }
    sum_a += sum_b;
    return sum_a[0] + sum_a[1] + sum_a[2] + sum_a[3] + sum_words_plain(p, bytes / 2);
}

u_int16_t checksum(const u_int8_t* pkt, u_int32_t bytes, u_int32_t initsum) {
    uint32_t sum = initsum;
    sum += corvex::cpu_has_vector_unit() ? sum_words_vector(pkt, bytes / 2) : sum_words_plain(pkt, bytes / 2);
    if ((bytes & 1) != 0) {
        sum += pkt[bytes - 1];
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<u_int16_t>(~sum);
}

}  // namespace

extern "C" {

u_int16_t ip_cksum(u_int8_t* pkt, u_int32_t bytes) { return checksum(pkt, bytes, 0); }

u_int16_t in_checksum(u_int8_t* pkt, u_int32_t bytes, u_int32_t initsum) { return checksum(pkt, bytes, initsum); }

}  // extern "C"
