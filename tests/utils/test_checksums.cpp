// CRC-32 and the Internet checksum: the documented values, and equality with
// the plain definitions over many lengths, alignments and starting values;
// the hex dump's exact lines.
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "cli_capture.h"
#include "hexdump.h"
#include "reference_checksums.h"

namespace {

const unsigned char* bytes_of(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

TEST(Checksums, DocumentedValues) {
    EXPECT_EQ(crc32(bytes_of("123456789"), 9), 0x2DFD2D88u);
    // The standard CRC-32 comes out with the seed and final inversion; results chain.
    EXPECT_EQ(inc_crc32(bytes_of("123456789"), 9, 0xFFFFFFFFu) ^ 0xFFFFFFFFu, 0xCBF43926u);
    EXPECT_EQ(inc_crc32(bytes_of("6789"), 4, crc32(bytes_of("12345"), 5)), 0x2DFD2D88u);
    EXPECT_EQ(crc32(nullptr, 0), 0u);
    // RFC 1071's example, stored natively, reads in network order.
    uint8_t rfc1071[] = {0x00, 0x01, 0xF2, 0x03, 0xF4, 0xF5, 0xF6, 0xF7};
    const u_int16_t sum = ip_cksum(rfc1071, sizeof rfc1071);
    EXPECT_EQ(memcmp(&sum, "\x22\x0D", 2), 0);
    // An IPv4 header whose known checksum is 0xB861 verifies to 0 once it is in.
    uint8_t header[20] = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
                          0x00, 0x00, 0xC0, 0xA8, 0x00, 0x01, 0xC0, 0xA8, 0x00, 0xC7};
    const u_int16_t header_sum = in_checksum(header, 20, 0);
    memcpy(header + 10, &header_sum, 2);
    EXPECT_EQ(std::tuple(memcmp(header + 10, "\xB8\x61", 2), ip_cksum(header, 20)), std::tuple(0, 0));
    uint8_t odd[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0x00};
    EXPECT_EQ(ip_cksum(odd, 5), ip_cksum(odd, 6)) << "an odd length adds a zero-padded byte";
}

// Run again with the processor's CRC instructions hidden (see CMakeLists.txt).
TEST(Checksums, FastPathsEqualTheByteAndWordAtATimeDefinitions) {
    std::mt19937 generator(2024);
    std::vector<unsigned char> data(20000 + 16);
    for (auto& byte : data) byte = static_cast<unsigned char>(generator());
    // Lengths around every boundary of the fast paths (16-byte steps, the
    // 64-byte wide fold) plus random ones up to a few frames.
    std::vector<size_t> lengths;
    for (size_t n = 0; n <= 300; ++n) lengths.push_back(n);
    for (int i = 0; i < 200; ++i) lengths.push_back(generator() % 20000);
    for (size_t length : lengths) {
        const size_t offset = generator() % 16;  // unaligned starts too
        const uint32_t seed = generator();
        const uint32_t initsum = generator() % 4 == 0 ? static_cast<uint32_t>(generator()) : generator() % 65536;
        uint8_t* start = data.data() + offset;
        ASSERT_EQ(inc_crc32(start, static_cast<unsigned int>(length), seed),
                  corvex_reference::crc32(start, length, seed))
            << "length " << length << " offset " << offset;
        ASSERT_EQ(in_checksum(start, static_cast<u_int32_t>(length), initsum),
                  corvex_reference::in_checksum(start, static_cast<uint32_t>(length), initsum))
            << "length " << length << " offset " << offset << " initsum " << initsum;
    }
    // Beyond 128 KiB of 0xFF bytes the 32-bit sum wraps, as in the definition.
    std::vector<uint8_t> ones((size_t{1} << 20) + 4, 0xFF);
    for (size_t offset : {size_t{0}, size_t{1}}) {
        EXPECT_EQ(ip_cksum(ones.data() + offset, (1u << 20) + 3),
                  corvex_reference::in_checksum(ones.data() + offset, (1u << 20) + 3, 0));
    }
}

std::string dump(const char* leader, const void* data, size_t size) {
    corvex_test::CliCapture capture;
    hex_dump(leader, data, size);
    return capture.text();
}

TEST(HexDump, FullLinesAndPartialLinesOfTheSameWidth) {
    const char data[] = "0123456789abcdef\x01\x7f\x80 ~";
    const std::string hex = "30 31 32 33 34 35 36 37 - 38 39 61 62 63 64 65 66 ";
    EXPECT_EQ(dump("pkt: ", data, 21), "pkt: " + hex + "   0123456789abcdef\npkt: 01 7f 80 20 7e" +
                                           std::string(36, ' ') + "   ... ~\n");
    for (size_t count = 1; count < 16; ++count) {
        std::string cells = hex.substr(0, count * 3 + (count > 8 ? 2 : 0));
        cells.resize(hex.size(), ' ');
        EXPECT_EQ(dump(nullptr, data, count), cells + "   " + std::string(data, count) + "\n") << count;
    }
    EXPECT_EQ(dump("> ", data, 0) + dump("  ", nullptr, 16), "");
}

}  // namespace
