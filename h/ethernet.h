/*
 * Ethernet frames of a port extender: frame headers, IEEE 802.1BR E-tags
 * and IEEE 802.1Q VLAN tags edited in place in a packet's frame, and the
 * LLDP port-extender check.
 *
 * Frames are in wire format: multi-byte fields are big-endian.
 */
#ifndef CORVEX_ETHERNET_H
#define CORVEX_ETHERNET_H

#include "corvex_types.h"
#include "packet_var.h"

CORVEX_BEGIN_DECLS

/* ---- frame headers and the LLDP check ------------------------------------ */

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


/* ---- E-tag and VLAN tag editing ------------------------------------------ */

#define ETHER_802_ETAG_TPID 0x893Fu /* EtherType of an E-tag */
#define ETHER_802_ETAG_BYTES 8      /* E-tag on the wire */
#define ETHER_VLAN_TAG_BYTES 4      /* VLAN tag on the wire */
#define ETHER_VLAN_PCP_SHIFT 13     /* in a VLAN tag's TCI: PCP(3) DEI(1) VID(12) */
#define ETHER_VLAN_DEI 0x1000u      /* the TCI's DEI */
#define ETHER_VLAN_VID 0x0FFFu      /* the TCI's VID */

/*
 * An E-tag as exchanged with callers: the three 16-bit words in host byte
 * order (composed and taken apart by the caller), the two bytes as on the
 * wire.
 */
typedef struct ether_802_etag_ {
    u_int16_t etag_tpid;            /* 0x893F */
    u_int16_t etag_pd_ig_ecid_base; /* E-PCP(3) E-DEI(1) Ingress_E-CID_base(12) */
    u_int16_t etag_grp_ecid_base;   /* reserved(2) GRP(2) E-CID_base(12) */
    u_int8_t etag_igr_ecid_ext;     /* Ingress_E-CID_ext */
    u_int8_t etag_ecid_ext;         /* E-CID_ext */
    u_int8_t data[];
} ether_802_etag_t;

/*
 * The fields inside the E-tag's 16-bit words (IEEE 802.1BR), named once for
 * callers that compose and take apart ether_802_etag_t:
 *   etag_pd_ig_ecid_base: E-PCP(3) E-DEI(1) Ingress_E-CID_base(12)
 *   etag_grp_ecid_base:   reserved(2) GRP(2) E-CID_base(12)
 * An E-CID as one number has E-CID_ext (8 bits) above GRP and E-CID_base,
 * 0 to ETHER_802_ECID_MAX; it is multicast when its GRP is not 0. An
 * Ingress E-CID, unicast by nature, is numbered alike with GRP 0.
 */
#define ETHER_802_ETAG_PCP_SHIFT 13 /* E-PCP */
#define ETHER_802_ETAG_PCP 0xE000u
#define ETHER_802_ETAG_DEI 0x1000u
#define ETHER_802_ETAG_RESERVED 0xC000u
#define ETHER_802_ETAG_GRP 0x3000u
#define ETHER_802_ETAG_ECID_BASE 0x0FFFu /* E-CID_base and Ingress_E-CID_base */
#define ETHER_802_ECID_EXT_SHIFT 14
#define ETHER_802_ECID_MAX 0x3FFFFFu

static inline int ether_802_ecid_is_multicast(u_int32_t ecid) {
    return (ecid & ETHER_802_ETAG_GRP) != 0;
}

/* The E-tag's E-CID as one number. */
static inline u_int32_t ether_802_etag_ecid(const ether_802_etag_t* etag) {
    return ((u_int32_t)etag->etag_ecid_ext << ETHER_802_ECID_EXT_SHIFT) |
           (etag->etag_grp_ecid_base & (ETHER_802_ETAG_GRP | ETHER_802_ETAG_ECID_BASE));
}

/* The E-tag's Ingress E-CID as one number. */
static inline u_int32_t ether_802_etag_ingress_ecid(const ether_802_etag_t* etag) {
    return ((u_int32_t)etag->etag_igr_ecid_ext << ETHER_802_ECID_EXT_SHIFT) |
           (etag->etag_pd_ig_ecid_base & ETHER_802_ETAG_ECID_BASE);
}

/* Sets GRP, E-CID_base and E-CID_ext from ecid; the reserved bits stay. */
static inline void ether_802_etag_ecid_set(ether_802_etag_t* etag, u_int32_t ecid) {
    etag->etag_grp_ecid_base = (u_int16_t)((etag->etag_grp_ecid_base & ETHER_802_ETAG_RESERVED) |
                                           (ecid & (ETHER_802_ETAG_GRP | ETHER_802_ETAG_ECID_BASE)));
    etag->etag_ecid_ext = (u_int8_t)(ecid >> ETHER_802_ECID_EXT_SHIFT);
}

/* Sets E-PCP (0 to 7) and E-DEI (0 or 1); Ingress_E-CID_base stays. */
static inline void ether_802_etag_priority_set(ether_802_etag_t* etag, unsigned pcp, unsigned dei) {
    etag->etag_pd_ig_ecid_base = (u_int16_t)(((pcp << ETHER_802_ETAG_PCP_SHIFT) & ETHER_802_ETAG_PCP) |
                                             (dei ? ETHER_802_ETAG_DEI : 0u) |
                                             (etag->etag_pd_ig_ecid_base & ETHER_802_ETAG_ECID_BASE));
}

/*
 * Tags are inserted by moving the 12 address bytes back into the headroom
 * and removed by moving them forward over the tag: the payload never moves.
 * Insertions return 0, or -1 (packet untouched) when the headroom is too
 * small. Removals never fail: a frame that carries no such tag, or is too
 * short, is left alone and the TPID output is set to 0.
 */
CORVEX_API void packet_etag_remove(packet_t* pkt, ether_802_etag_t* etag_ret);
CORVEX_API void packet_vlan_tag_remove(packet_t* pkt, u_int16_t* vtag_tpid, u_int16_t* vtag_tci);
CORVEX_API int packet_etag_insert(packet_t* pkt, ether_802_etag_t* etag);
CORVEX_API int packet_vlan_tag_insert(packet_t* pkt, u_int16_t vtag_tpid, u_int16_t vtag_tci);
CORVEX_API int packet_etag_vlan_tag_insert(packet_t* pkt, ether_802_etag_t* etag, u_int16_t vtag_tpid,
                                           u_int16_t vtag_tci);

CORVEX_END_DECLS

#endif /* CORVEX_ETHERNET_H */
