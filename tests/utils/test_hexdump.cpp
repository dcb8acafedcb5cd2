// hex_dump: the exact text of full, partial and empty lines.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli_capture.h"
#include "hexdump.h"

using corvex_test::CliCapture;

namespace {

std::string dump(const char* leader, const void* data, size_t size) {
    CliCapture capture;
    hex_dump(leader, data, size);
    return capture.text();
}

TEST(HexDump, FullPaddedAndEmptyLines) {
    EXPECT_EQ(dump("  ", "ABCDEFGHIJKLMNOPQR", 18),
              "  41 42 43 44 45 46 47 48 - 49 4a 4b 4c 4d 4e 4f 50    ABCDEFGHIJKLMNOP\n"
              "  51 52" + std::string(48, ' ') + "QR\n");
    std::vector<unsigned char> data(32);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(0xA0 + i);
    EXPECT_EQ(dump("", data.data(), 32),
              "a0 a1 a2 a3 a4 a5 a6 a7 - a8 a9 aa ab ac ad ae af    ................\n"
              "b0 b1 b2 b3 b4 b5 b6 b7 - b8 b9 ba bb bc bd be bf    ................\n");
    // Only printable bytes show as characters.
    const unsigned char mixed[] = {0x20, 0x00, 0x7F, 0x7E, 0x41, 0x80, 0xFF, 0x0A, 0x09};
    EXPECT_EQ(dump("", mixed, sizeof mixed), "20 00 7f 7e 41 80 ff 0a - 09" + std::string(25, ' ') + " ..~A....\n");
    // No leader prints as an empty one; no data prints nothing.
    EXPECT_EQ(dump(nullptr, "A", 1), "41" + std::string(51, ' ') + "A\n");
    EXPECT_EQ(dump("> ", data.data(), 0), "");
    EXPECT_EQ(dump("  ", nullptr, 16), "");
}

TEST(HexDump, EveryPartialLineHasTheSameWidth) {
    const char data[] = "0123456789abcdef";
    const std::string full = dump("pkt: ", data, 16);
    const std::string hex_columns = "30 31 32 33 34 35 36 37 - 38 39 61 62 63 64 65 66 ";
    ASSERT_EQ(full, "pkt: " + hex_columns + "   " + data + "\n");
    for (size_t count = 1; count < 16; ++count) {
        std::string cells = hex_columns.substr(0, count * 3 + (count > 8 ? 2 : 0));
        cells.resize(hex_columns.size(), ' ');
        EXPECT_EQ(dump("pkt: ", data, count), "pkt: " + cells + "   " + std::string(data, count) + "\n") << count;
    }
    // 1000 bytes: 62 full lines and one of 8.
    const std::vector<unsigned char> zs(1000, 'z');
    const std::string text = dump("\t", zs.data(), zs.size());
    const std::string full_z = "\t7a 7a 7a 7a 7a 7a 7a 7a - 7a 7a 7a 7a 7a 7a 7a 7a    zzzzzzzzzzzzzzzz\n";
    std::string expected;
    for (int i = 0; i < 62; ++i) expected += full_z;
    EXPECT_EQ(text, expected + full_z.substr(0, 25) + std::string(29, ' ') + "zzzzzzzz\n");
}

}  // namespace
