/*
 * Ethernet frames of a port extender: IEEE 802.1BR E-tags and IEEE 802.1Q
 * VLAN tags edited in place in a packet's frame.
 */
#ifndef CORVEX_ETHERNET_H
#define CORVEX_ETHERNET_H

#include "corvex_types.h"
#include "packet_var.h"

CORVEX_BEGIN_DECLS

/* ---- E-tag and VLAN tag editing ------------------------------------------ */

#define ETHER_802_ETAG_TPID 0x893Fu /* EtherType of an E-tag */
#define ETHER_802_ETAG_BYTES 8      /* E-tag on the wire */
#define ETHER_VLAN_TAG_BYTES 4      /* VLAN tag on the wire */

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
