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

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        lines.push_back(text.substr(start, end - start));
    }
    EXPECT_EQ(start, text.size()) << "text after the last newline";
    return lines;
}

TEST(HexDump, EighteenBytesMakeAFullAndAPaddedLine) {
    const char data[] = "ABCDEFGHIJKLMNOPQR";
    EXPECT_EQ(dump("  ", data, 18),
              "  41 42 43 44 45 46 47 48 - 49 4a 4b 4c 4d 4e 4f 50    ABCDEFGHIJKLMNOP\n"
              "  51 52" + std::string(48, ' ') + "QR\n");
}

TEST(HexDump, WholeLinesAndNothing) {
    std::vector<unsigned char> data(32);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>(0xA0 + i);
    }
    const std::string first = "a0 a1 a2 a3 a4 a5 a6 a7 - a8 a9 aa ab ac ad ae af    ................\n";
    const std::string second = "b0 b1 b2 b3 b4 b5 b6 b7 - b8 b9 ba bb bc bd be bf    ................\n";
    EXPECT_EQ(dump("", data.data(), 16), first);
    EXPECT_EQ(dump("", data.data(), 32), first + second);
    EXPECT_EQ(dump("> ", data.data(), 0), "");
}

TEST(HexDump, EveryPartialLineHasTheSameWidth) {
    const std::string leader = "pkt: ";
    const char data[] = "0123456789abcdef";
    for (size_t count = 1; count <= 16; ++count) {
        const auto lines = lines_of(dump(leader.c_str(), data, count));
        ASSERT_EQ(lines.size(), 1u) << count;
        const std::string& line = lines[0];
        // Leader, 16 hex columns and the "- " (or blanks), three blanks, characters.
        ASSERT_EQ(line.size(), leader.size() + 16 * 3 + 2 + 3 + count) << count;
        EXPECT_EQ(line.substr(0, leader.size()), leader);
        EXPECT_EQ(line.substr(line.size() - count), std::string(data, count)) << count;
        EXPECT_EQ(line.find("- ") != std::string::npos, count > 8) << count;
        std::string hex;
        for (size_t i = 0; i < count; ++i) {
            char cell[4];
            snprintf(cell, sizeof cell, "%02x ", static_cast<unsigned char>(data[i]));
            hex += cell;
            if (i == 7 && count > 8) hex += "- ";
        }
        EXPECT_EQ(line.substr(leader.size(), hex.size()), hex) << count;
        EXPECT_EQ(line.find_first_not_of(' ', leader.size() + hex.size()), line.size() - count) << count;
    }
}

TEST(HexDump, CharacterColumnShowsOnlyPrintableBytes) {
    const unsigned char data[] = {0x20, 0x00, 0x7F, 0x7E, 0x41, 0x80, 0xFF, 0x0A, 0x09};
    EXPECT_EQ(dump("", data, sizeof data),
              "20 00 7f 7e 41 80 ff 0a - 09" + std::string(1 + 7 * 3 + 3, ' ') + " ..~A....\n");
}

TEST(HexDump, LongRegionsAndMissingArguments) {
    std::vector<unsigned char> data(1000, 'z');
    const auto lines = lines_of(dump("\t", data.data(), data.size()));
    ASSERT_EQ(lines.size(), 63u);  // 62 full lines and 8 bytes
    EXPECT_EQ(lines[62], "\t" + std::string(8 * 3, ' ').replace(0, 24, "7a 7a 7a 7a 7a 7a 7a 7a ") +
                             std::string(2 + 8 * 3 + 3, ' ') + "zzzzzzzz");
    // No leader prints as an empty one; no data prints nothing.
    EXPECT_EQ(dump(nullptr, "A", 1), "41" + std::string(1 + 2 + 15 * 3 + 3, ' ') + "A\n");
    EXPECT_EQ(dump("  ", nullptr, 16), "");
}

}  // namespace
