// The forwarding model of corvex-pe: one upstream port toward the
// controlling bridge, extended ports each named by its E-CID, and multicast
// E-CIDs naming sets of extended ports. Read from a small text file.
#pragma once

#include <cstdint>
#include <cstdio>

#include "ethernet.h"
#include "heap.h"

// An E-CID as one number, as ethernet.h numbers them (0 to
// ETHER_802_ECID_MAX, multicast when ether_802_ecid_is_multicast).
using pe_ecid_t = uint32_t;
// Ports, the upstream port included: a group's members are bits of a
// 64-bit set.
constexpr unsigned PE_PORTS_MAX = 64;
// A port name's longest text; names become capture file names.
constexpr unsigned PE_NAME_MAX = 32;
constexpr unsigned PE_GROUPS_MAX = 256;
// The longest line of the file, its newline not counted.
constexpr unsigned PE_LINE_MAX = 4096;

// What an extended port does to the VLAN tags of its frames: keep them,
// strip the tag of the frames it receives, or be an access port (tag the
// untagged frames it receives, untag the frames of its VLAN it sends).
enum pe_vlan_action : uint8_t { PE_VLAN_KEEP, PE_VLAN_STRIP, PE_VLAN_ADD };

struct pe_port_t {
    char name[PE_NAME_MAX + 1];
    uint8_t priority;  // for untagged frames the port receives: 0 to 7
    pe_vlan_action vlan;
    uint16_t vlan_tci;  // for PE_VLAN_ADD: PCP and VID
    pe_ecid_t ecid;     // 0 for the upstream port
};

struct pe_group_t {
    pe_ecid_t ecid;
    uint64_t members;  // bit i: port i
};

// Port 0 is the upstream port. Ports and groups are sorted by E-CID
// (after port 0) so lookups are binary searches.
struct pe_config_t {
    heap_t* heap;
    unsigned nports;
    pe_port_t* ports;
    unsigned ngroups;
    pe_group_t* groups;
};

// Reads the configuration from in (named path in messages) into records
// allocated from heap. Returns 0, or -1 after one line on err naming the
// file, the line and the fault.
int pe_config_read(pe_config_t* config, FILE* in, const char* path, heap_t* heap, FILE* err);

// Gives the records back to their heap.
void pe_config_release(pe_config_t* config);

// Index of the extended port with this unicast E-CID, or -1.
int pe_config_port_by_ecid(const pe_config_t* config, pe_ecid_t ecid);
// The group with this multicast E-CID, or null.
const pe_group_t* pe_config_group_by_ecid(const pe_config_t* config, pe_ecid_t ecid);
// Index of the port with this name, or -1.
int pe_config_port_by_name(const pe_config_t* config, const char* name);
