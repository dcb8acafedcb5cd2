/*
 * Ethernet frame headers and the LLDP port-extender check.
 *
 * Frames are in wire format: multi-byte fields are big-endian.
 */
#ifndef CORVEX_ETHERNET_H
#define CORVEX_ETHERNET_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

/* A MAC address. */
typedef struct l2_addr_s {
    u_int8_t addr[6];
} l2_addr_t;

/* An untagged frame: addresses, EtherType, payload. */
typedef struct ether_header_s {
    l2_addr_t dstaddr;
    l2_addr_t srcaddr;
    u_int16_t type;
    u_int8_t data[];
} ether_header_t;

/* A frame with one VLAN tag between the source address and the EtherType. */
typedef struct ether_header_vlan_s {
    u_int8_t ether_dhost[6];
    u_int8_t ether_shost[6];
    u_int16_t ether_tpid;
    u_int16_t ether_tci;
    u_int16_t ether_type;
    u_int8_t data[];
} ether_header_vlan_t;

/*
 * The value of the IEEE 802.1 port-extender TLV (LLDP type 127, OUI
 * 00-80-C2, subtype 15) after its OUI and subtype: 13 bytes.
 */
typedef struct lldp_tlv_port_extender_s {
    u_int8_t lldp_cascade_port_priority;
    l2_addr_t lldp_pe_address;
    l2_addr_t lldp_pe_csp_address;
} lldp_tlv_port_extender_t;

/*
 * 1 when the LLDP frame rx_buf (destination MAC first, untagged or with one
 * 0x8100 VLAN tag) of rx_buf_len bytes carries the port-extender TLV before
 * its End Of LLDPDU TLV, else 0. Reads nothing outside the rx_buf_len bytes.
 */
CORVEX_API int lldp_cb_pe_tlv_present(unsigned char* rx_buf, int rx_buf_len);

CORVEX_END_DECLS

#endif /* CORVEX_ETHERNET_H */
