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
constexpr unsigned PE_PORTS_MAX = 64;
constexpr unsigned PE_NAME_MAX = 16;

// What an extended port does to the VLAN tag of the frames it receives.
enum pe_vlan_action : uint8_t { PE_VLAN_KEEP, PE_VLAN_STRIP, PE_VLAN_ADD };

struct pe_port_t {
    char name[PE_NAME_MAX];
    pe_ecid_t ecid;  // 0 for the upstream port
    pe_vlan_action vlan;
    uint16_t vlan_tci;  // for PE_VLAN_ADD: PCP and VID
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
