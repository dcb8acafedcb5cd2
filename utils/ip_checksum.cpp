// The Internet checksum (RFC 1071) over 16-bit words in the processor's
// order. The words are summed eight bytes per step: a 64-bit load holds four
// words, and masking every other one leaves two 32-bit lanes per
// accumulator, each with room for 65537 words before it could carry into
// its neighbour. The exact total is then reduced as a 32-bit sum, so even
// beyond 128 KiB, where that sum wraps, the result equals summing word by
// word into 32 bits and folding once at the end.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "hexdump.h"

namespace {

constexpr uint64_t kAlternateWords = 0x0000FFFF0000FFFFull;
// Steps of 16 bytes per chunk: each lane gains at most 0xFFFF per step.
constexpr size_t kStepsPerChunk = 32768;

inline uint64_t load64(const uint8_t* p) {
    uint64_t value;
    memcpy(&value, p, sizeof value);
    return value;
}

inline uint64_t lanes_total(uint64_t lanes) { return (lanes & 0xFFFFFFFFu) + (lanes >> 32); }

// The sum of all native 16-bit words in the first 2 * words bytes at p,
// without loss.
uint64_t sum_words(const uint8_t* p, size_t words) {
    uint64_t total = 0;
    size_t steps = words / 8;
    while (steps > 0) {
        const size_t chunk = steps < kStepsPerChunk ? steps : kStepsPerChunk;
        uint64_t even_a = 0, odd_a = 0, even_b = 0, odd_b = 0;
        for (size_t i = 0; i < chunk; ++i, p += 16) {
            const uint64_t a = load64(p);
            const uint64_t b = load64(p + 8);
            even_a += a & kAlternateWords;
            odd_a += (a >> 16) & kAlternateWords;
            even_b += b & kAlternateWords;
            odd_b += (b >> 16) & kAlternateWords;
        }
        total += lanes_total(even_a) + lanes_total(odd_a) + lanes_total(even_b) + lanes_total(odd_b);
        steps -= chunk;
    }
    for (size_t rest = words % 8; rest > 0; --rest, p += 2) {
        uint16_t word;
        memcpy(&word, p, sizeof word);
        total += word;
    }
    return total;
}

u_int16_t checksum(const u_int8_t* pkt, u_int32_t bytes, u_int32_t initsum) {
    // 32-bit arithmetic on purpose: the sum wraps where a 32-bit
    // accumulator would.
    uint32_t sum = initsum + static_cast<uint32_t>(sum_words(pkt, bytes / 2));
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
