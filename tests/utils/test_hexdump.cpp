// hex_dump: the exact text of full, partial and empty lines.
#include <string>

#include <gtest/gtest.h>

#include "cli_capture.h"
#include "hexdump.h"

namespace {

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
