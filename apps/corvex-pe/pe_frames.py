"""Ethernet frames of a port extender and pcap files, in plain Python.

Builds the frames that corvex-pe's sample capture and tests feed it: E-tags
(IEEE 802.1BR), VLAN tags (IEEE 802.1Q) and LLDP frames with or without the
port-extender TLV; reads and writes classic pcap files.
"""
import struct

ETAG_TPID = 0x893F
VLAN_TPID = 0x8100
LLDP_TYPE = 0x88CC
PAYLOAD_TYPE = 0x88B5  # local experimental EtherType
LLDP_MULTICAST = bytes.fromhex("0180c200000e")


def mac(n):
    """A locally administered unicast address numbered n."""
    return bytes([0x02, 0, 0, 0, (n >> 8) & 0xFF, n & 0xFF])


def ecid_fields(ecid):
    """E-CID_ext, GRP and E-CID_base of an E-CID numbered as one number
    (8:2:12 bits, as corvex-pe and ethernet.h number them); GRP is not 0
    for a multicast E-CID."""
    return ecid >> 14 & 0xFF, ecid >> 12 & 3, ecid & 0xFFF


def etag(ecid, ingress_ecid=0, pcp=0, dei=0, reserved=0):
    """The 8 wire bytes of an E-tag. The ingress E-CID is numbered alike,
    its GRP bits ignored. Fields in the E-tag's words: E-PCP(3) E-DEI(1)
    Ingress_E-CID_base(12), then reserved(2) GRP(2) E-CID_base(12)."""
    ext, grp, base = ecid_fields(ecid)
    ingress_ext, _, ingress_base = ecid_fields(ingress_ecid)
    return struct.pack(">HHHBB", ETAG_TPID, pcp << 13 | dei << 12 | ingress_base,
                       reserved << 14 | grp << 12 | base, ingress_ext, ext)


def frame_ecid(data):
    """The E-CID of the frame's E-tag as one number, or None when the frame
    carries no E-tag after its addresses."""
    if len(data) < 20 or data[12:14] != struct.pack(">H", ETAG_TPID):
        return None
    _, _, grp_base, _, ext = struct.unpack(">HHHBB", data[12:20])
    return ext << 14 | grp_base & 0x3FFF


def vlan(vid, pcp=0, dei=0):
    return struct.pack(">HH", VLAN_TPID, pcp << 13 | dei << 12 | vid)


def payload(n, size):
    """An EtherType and a payload of size bytes whose contents depend on n."""
    body = bytes((n * 7 + i) & 0xFF for i in range(size))
    return struct.pack(">H", PAYLOAD_TYPE) + body


def frame(dst, src, *parts):
    return dst + src + b"".join(parts)


def lldp(src, pe_tlv=True, tag=b""):
    """An LLDP frame: chassis ID, port ID, TTL, optionally the IEEE 802.1
    port-extender TLV, then End Of LLDPDU."""

    def tlv(kind, value):
        return struct.pack(">H", kind << 9 | len(value)) + value

    tlvs = tlv(1, b"\x04" + src) + tlv(2, b"\x07port") + tlv(3, b"\x00\x78")
    if pe_tlv:
        # priority, PE address, PE CSP address: 13 value bytes after OUI and subtype
        tlvs += tlv(127, b"\x00\x80\xc2\x0f" + b"\x01" + src + mac(0xFFF))
    tlvs += tlv(0, b"")
    return LLDP_MULTICAST + src + tag + struct.pack(">H", LLDP_TYPE) + tlvs


def pcap_write(path, records):
    """records: (timestamp in microseconds, frame bytes, wire length or None)."""
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for usec, data, wire in records:
            out.write(struct.pack("<IIII", usec // 1000000, usec % 1000000, len(data),
                                  len(data) if wire is None else wire))
            out.write(data)


def pcap_read(path):
    """The frames of a classic little-endian microsecond pcap file."""
    with open(path, "rb") as f:
        data = f.read()
    magic, _, _, _, _, _, linktype = struct.unpack_from("<IHHiIII", data)
    assert magic == 0xA1B2C3D4 and linktype == 1, path
    frames, offset = [], 24
    while offset < len(data):
        _, _, captured, _ = struct.unpack_from("<IIII", data, offset)
        frames.append(data[offset + 16:offset + 16 + captured])
        offset += 16 + captured
    return frames
