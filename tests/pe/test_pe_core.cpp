// corvex-pe's forwarding core without its program: what the configuration
// reader accepts and the one line it says about what it refuses, and how
// the forwarder counts sends a port refused and clones the pools refused
// (this binary's pools have no clone pool).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "packet_pools.h"
#include "pe_config.h"
#include "pe_forward.h"

using namespace corvex_test;

namespace {

heap_t* tables_heap() {
    static heap_t* heap = make_heap(1 << 20, "tables");
    return heap;
}

// Reads text as the file "t.conf": what the reader said ("" when it read it).
std::string config_read(const std::string& text, pe_config_t* config) {
    FILE* in = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    char* said = nullptr;
    size_t said_size = 0;
    FILE* err = open_memstream(&said, &said_size);
    const int status = pe_config_read(config, in, "t.conf", tables_heap(), err);
    fclose(in);
    fclose(err);
    std::string message(said);
    free(said);
    EXPECT_EQ(status == 0, message.empty()) << message;
    return message;
}

std::string repeated(const std::string& part, unsigned times) {
    std::string text;
    while (times-- > 0) text += part;
    return text;
}

TEST(PeConfig, RefusesWithOneLineNamingFileLineAndFault) {
    const std::string up = "upstream up\n", name = "not a port name (1 to 32 letters, digits, '_', '-' or '.', "
                                                   "not starting with '.'): ";
    const struct {
        std::string text, said;
    } kCases[] = {
        {"", "t.conf:1: no upstream port (upstream NAME)"},
        {up + "port ../escaped 1\n", "t.conf:2: " + name + "../escaped"},
        {up + "port .hidden 1\n", "t.conf:2: " + name + ".hidden"},
        {up + "port " + repeated("n", 33) + " 1\n", "t.conf:2: " + name + repeated("n", 33)},
        {up + "group 0x1001 a/b\n", "t.conf:2: " + name + "a/b"},
        {"bridge\x1b[2J\n", "t.conf:1: unknown statement: bridge\\x1b[2J"},
        {up + "port a 1e3\n", "t.conf:2: not a unicast E-CID: 1e3"},
        {up + "port a -1\n", "t.conf:2: not a unicast E-CID: -1"},
        {up + "port a 0x\n", "t.conf:2: not a unicast E-CID: 0x"},
        {up + "port a 0x400000\n", "t.conf:2: not a unicast E-CID: 0x400000"},
        {up + "port a 0x1001\n", "t.conf:2: not a unicast E-CID: 0x1001"},
        {up + "group 0x1002 up\n", "t.conf:2: not an extended port: up"},
        {up + "port a 1 priority 8\n", "t.conf:2: not a priority (0 to 7): 8"},
        {up + "port a 1 vlan add 4095\n", "t.conf:2: not a VLAN ID (1 to 4094): 4095"},
        {up + "port a 1 vlan add 7 010\n", "t.conf:2: not a priority (0 to 7): 010"},
        {up + "port a 1 vlan strip priority 1\n",
         "t.conf:2: expected: port NAME E-CID [priority P] [vlan strip | vlan add VID [PCP]]"},
        {up + "port a 1\n# two\nport a 2\n", "t.conf:4: port named twice (first on line 2): a"},
        {up + "port up 1\n", "t.conf:2: port named twice (first on line 1): up"},
        {up + "upstream up2\n", "t.conf:2: second upstream port (first on line 1): up2"},
        {up + "port a 1\nport b 0x001\n", "t.conf:3: E-CID used twice (first on line 2): 0x001"},
        {up + "group 0x1001 a\nport a 1\ngroup 4097 a\n", "t.conf:4: E-CID used twice (first on line 2): 4097"},
        {up + "port a 1\ngroup 0x1001 a b a\n", "t.conf:3: port listed twice in the group: a"},
        {up + "group 0x1001" + repeated(" a", 64) + "\n", "t.conf:2: too many members (at most 63): 0x1001"},
        {up + "port a 1 " + repeated("x ", 70) + "\n", "t.conf:2: too many words (at most 66 a statement)"},
        {up + "#" + repeated("c", 4096) + "\n", "t.conf:2: line too long (at most 4096 bytes)"},
        {up + std::string("port a\0 1\n", 10), "t.conf:2: binary data (a NUL byte), not a configuration"},
    };
    for (const auto& c : kCases) {
        pe_config_t config{};
        EXPECT_EQ(config_read(c.text, &config), "corvex-pe: " + c.said + "\n") << c.text.substr(0, 80);
    }
}

TEST(PeConfig, ReadsNumbersPrioritiesAndRoomyLines) {
    // 60 ports of 32-character names and 3 more, all in one group on one line.
    std::string ports, members;
    for (unsigned i = 1; i <= 60; ++i) {
        std::string name = "port_" + std::to_string(i);
        name.resize(PE_NAME_MAX, '-');
        ports += "port " + name + " " + std::to_string(i) + "\n";
        members += " " + name;
    }
    const std::string text = "upstream up  # " + repeated("c", 300) + "\n" + ports +
                             "port a.B-c_9 0100 priority 3 vlan add 08\nport hex 0X3e vlan add 0x7 7\n" +
                             "port ext 0x4000 priority 2\ngroup 0x2001" + members + " a.B-c_9 hex ext\t# all\n";
    pe_config_t config{};
    ASSERT_EQ(config_read(text, &config), "");
    ASSERT_EQ(config.nports, 64u);
    EXPECT_EQ(pe_config_port_by_name(&config, members.substr(1, PE_NAME_MAX).c_str()), 1);
    const int decimal = pe_config_port_by_ecid(&config, 100), hex = pe_config_port_by_ecid(&config, 0x3e),
              ext = pe_config_port_by_ecid(&config, 0x4000);
    ASSERT_TRUE(decimal > 0 && hex > 0 && ext > 0) << "0100 is a hundred, 0X3e and 0x4000 hex";
    const pe_port_t &named = config.ports[decimal], &tagged = config.ports[hex];
    EXPECT_EQ(std::tuple(named.priority, named.vlan, named.vlan_tci), std::tuple(3, PE_VLAN_ADD, 3 << 13 | 8));
    EXPECT_EQ(std::tuple(tagged.priority, tagged.vlan_tci), std::tuple(0, 7 << 13 | 7));
    EXPECT_EQ(config.ports[ext].priority, 2);
    ASSERT_EQ(config.ngroups, 1u);
    EXPECT_EQ(config.groups[0].members, ~uint64_t{1});
    pe_config_release(&config);
    EXPECT_EQ(config_read(text + "port p64 0x3ff\n", &config),
              "corvex-pe: t.conf:66: too many ports (at most 63 extended ports): p64\n");
}

const packet_sheaf_block_t kPoolsWithoutClones[] = {{const_cast<char*>("512"), 512, 0, 16, 4, nullptr},
                                                    {const_cast<char*>("128"), 128, 0, 16, 4, nullptr},
                                                    {nullptr, 0, 0, 0, 0, nullptr}};

// A port that refuses every send; the others take them.
constexpr unsigned kRefusing = 2;
bool emit_unless_refusing(void*, unsigned port, const packet_t*) { return port != kRefusing; }

TEST(PeForward, CountsRefusedSendsAsLostAndAFailedCloneOncePerFrame) {
    packet_pool_init(nullptr, kPoolsWithoutClones, make_heap(1 << 20, "packets"));
    pe_config_t config{};
    ASSERT_EQ(config_read("upstream up\nport a 1\nport b 2\nport c 3\ngroup 0x1001 a b c\n", &config), "");
    pe_forwarder_t forwarder;
    pe_forwarder_init(&forwarder, &config, emit_unless_refusing, nullptr);
    // Addresses, an E-tag for E-CID 1, 2 or 0x1001 and an EtherType: 22 bytes, sent as 60.
    uint8_t frame[22] = {0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 0x89, 0x3F, 0, 0, 0, 1, 0, 0, 0x88, 0xB5};
    for (const uint8_t ecid : {1, 2}) {
        frame[17] = ecid;
        pe_forward_frame(&forwarder, 0, frame, sizeof frame, sizeof frame);
    }
    frame[16] = 0x10, frame[17] = 1;
    pe_forward_frame(&forwarder, 0, frame, sizeof frame, sizeof frame);
    using Sent = std::tuple<uint64_t, uint64_t, uint64_t>;  // frames, bytes, lost
    const auto sent = [&](unsigned port) {
        const pe_port_counters_t& c = forwarder.ports[port];
        return Sent(c.tx_frames, c.tx_bytes, c.tx_lost);
    };
    EXPECT_EQ(sent(1), Sent(1, 60, 0));
    EXPECT_EQ(sent(kRefusing), Sent(0, 0, 1));
    EXPECT_EQ(forwarder.drops[PE_DROP_NO_CLONE], 1u);
    EXPECT_EQ(forwarder.ports[0].dropped, 1u);
    pe_config_release(&config);
}

}  // namespace
