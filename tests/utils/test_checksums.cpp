// CRC-32 and the Internet checksum: the documented values, and equality with
// the plain definitions over many lengths, alignments and starting values.
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "hexdump.h"
#include "reference_checksums.h"

namespace {

const unsigned char* bytes_of(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

std::vector<unsigned char> random_bytes(std::mt19937& generator, size_t size) {
    std::vector<unsigned char> bytes(size);
    for (auto& byte : bytes) byte = static_cast<unsigned char>(generator());
    return bytes;
}

// Lengths around every boundary of the fast paths (16-byte steps, the
// 64-byte wide fold) plus random ones up to a few frames.
std::vector<size_t> interesting_lengths(std::mt19937& generator) {
    std::vector<size_t> lengths;
    for (size_t n = 0; n <= 300; ++n) lengths.push_back(n);
    for (size_t base : {1024u, 1500u, 4096u, 9000u}) {
        for (size_t delta = 0; delta < 20; ++delta) lengths.push_back(base + delta - 10);
    }
    for (int i = 0; i < 200; ++i) lengths.push_back(generator() % 20000);
    return lengths;
}

TEST(Crc32, DocumentedValuesAndChaining) {
    EXPECT_EQ(crc32(bytes_of("abc"), 3), 0xCA6598D0u);
    EXPECT_EQ(crc32(bytes_of("123456789"), 9), 0x2DFD2D88u);
    // The standard CRC-32 comes out with the seed and final inversion.
    EXPECT_EQ(inc_crc32(bytes_of("123456789"), 9, 0xFFFFFFFFu) ^ 0xFFFFFFFFu, 0xCBF43926u);
    EXPECT_EQ(inc_crc32(bytes_of("6789"), 4, crc32(bytes_of("12345"), 5)), 0x2DFD2D88u);
    // From a zero register one byte yields its table entry.
    const unsigned char bytes[] = {0x01, 0x80, 0xFF};
    const unsigned int entries[] = {0x77073096u, 0xEDB88320u, 0x2D02EF8Du};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(crc32(&bytes[i], 1), entries[i]);
    // No bytes leave the register alone.
    EXPECT_EQ(crc32(nullptr, 0), 0u);
    for (unsigned long seed : {1ul, 0xFFFFFFFFul}) EXPECT_EQ(inc_crc32(bytes_of("x"), 0, seed), seed);

    std::mt19937 generator(7);
    const auto data = random_bytes(generator, 5000);
    for (unsigned int split : {0u, 1u, 15u, 16u, 17u, 63u, 64u, 65u, 1000u, 4999u, 5000u}) {
        EXPECT_EQ(inc_crc32(data.data() + split, 5000 - split, crc32(data.data(), split)), crc32(data.data(), 5000))
            << "split at " << split;
    }
    if constexpr (sizeof(long unsigned int) > 4) {
        // Bits above the 32-bit register do not leak into it.
        const unsigned long wide = static_cast<unsigned long>(UINT64_C(0xABCD00000000) | 0x1234u);
        std::vector<unsigned char> block(256, 0x5A);
        EXPECT_EQ(inc_crc32(block.data(), 256, wide), corvex_reference::crc32(block.data(), 256, 0x1234u));
    }
}

TEST(InternetChecksum, DocumentedValuesOddLengthsAndVerification) {
    EXPECT_EQ(ip_cksum(nullptr, 0), 0xFFFF);
    uint8_t rfc1071[] = {0x00, 0x01, 0xF2, 0x03, 0xF4, 0xF5, 0xF6, 0xF7};
    const u_int16_t sum = ip_cksum(rfc1071, sizeof rfc1071);
    EXPECT_EQ(memcmp(&sum, "\x22\x0D", 2), 0) << "a native store gives network order";
    // An odd length adds a zero-padded byte.
    uint8_t padded[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0x00};
    EXPECT_EQ(ip_cksum(padded, 5), ip_cksum(padded, 6));
    uint8_t single[] = {0xFF, 0x00};
    EXPECT_EQ(ip_cksum(single, 1), ip_cksum(single, 2));

    // An IPv4 header with its checksum field zeroed, whose known checksum is 0xB861.
    uint8_t header[20] = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
                          0x00, 0x00, 0xC0, 0xA8, 0x00, 0x01, 0xC0, 0xA8, 0x00, 0xC7};
    EXPECT_EQ(in_checksum(header, 20, 0), ip_cksum(header, 20));
    const u_int16_t header_sum = ip_cksum(header, 20);
    memcpy(header + 10, &header_sum, 2);
    EXPECT_EQ(memcmp(header + 10, "\xB8\x61", 2), 0);
    EXPECT_EQ(ip_cksum(header, 20), 0);
    // A partial sum carried in equals summing its words in place.
    uint8_t joined[24] = {0x12, 0x34, 0xAB, 0xCD};
    memcpy(joined + 4, header, 20);
    uint16_t words[2];
    memcpy(words, joined, 4);
    EXPECT_EQ(in_checksum(header, 20, static_cast<u_int32_t>(words[0]) + words[1]), ip_cksum(joined, 24));
}

// Run again with the processor's CRC instructions hidden (see CMakeLists.txt).
TEST(FastPaths, EqualTheByteAndWordAtATimeDefinitions) {
    std::mt19937 generator(2024);
    auto data = random_bytes(generator, 20000 + 16);
    for (size_t length : interesting_lengths(generator)) {
        const size_t offset = generator() % 16;  // unaligned starts too
        const uint32_t seed = generator();
        const uint32_t initsum = (generator() % 4 == 0) ? static_cast<uint32_t>(generator()) : generator() % 65536;
        uint8_t* start = data.data() + offset;
        ASSERT_EQ(inc_crc32(start, static_cast<unsigned int>(length), seed), corvex_reference::crc32(start, length, seed))
            << "length " << length << " offset " << offset << " seed " << seed;
        ASSERT_EQ(in_checksum(start, static_cast<u_int32_t>(length), initsum),
                  corvex_reference::in_checksum(start, static_cast<uint32_t>(length), initsum))
            << "length " << length << " offset " << offset << " initsum " << initsum;
    }
    EXPECT_EQ(in_checksum(data.data(), 64, 0xFFFFFFFFu), corvex_reference::in_checksum(data.data(), 64, 0xFFFFFFFFu));
    // Beyond 128 KiB of 0xFF bytes the 32-bit sum wraps, as in the definition.
    for (size_t length : {size_t{262144}, (size_t{1} << 20) + 3}) {
        std::vector<uint8_t> ones(length + 1, 0xFF);
        for (size_t offset : {size_t{0}, size_t{1}}) {
            EXPECT_EQ(ip_cksum(ones.data() + offset, static_cast<u_int32_t>(length)),
                      corvex_reference::in_checksum(ones.data() + offset, static_cast<uint32_t>(length), 0))
                << "length " << length;
        }
    }
}

}  // namespace
