#!/usr/bin/env python3
"""Writes corvex-pe's sample capture, one PORT.pcap per port of the
shipped corvex-pe.conf, into the folder given (default: sample/ beside this
script). Every kind of frame a port extender meets is there: LLDP with and
without the port-extender TLV (a cascaded port extender's on p1), unicast
and multicast E-tagged frames (one multicast pruned at its source port,
one carrying the access port's VLAN), VLAN-tagged frames with their
priorities, frames under 60 bytes, and frames that are short, truncated,
too long or for an unknown E-CID."""
import argparse
import os

import pe_frames as f

BRIDGE = f.mac(0x100)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0].replace("\n", " "))
    parser.add_argument("folder", nargs="?", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), "sample"),
                        help="where to write the PORT.pcap files (default: %(default)s)")
    folder = parser.parse_args().folder
    os.makedirs(folder, exist_ok=True)
    hosts = {port: f.mac(n) for n, port in enumerate(["p1", "p2", "p3", "p4"], 1)}
    frames = {"upstream": [], "p1": [], "p2": [], "p3": [], "p4": []}
    clock = [1_700_000_000_000_000]

    def put(port, data, wire=None):
        clock[0] += 1000
        frames[port].append((clock[0], data, wire))

    put("upstream", f.lldp(BRIDGE, pe_tlv=True))
    put("upstream", f.lldp(BRIDGE, pe_tlv=False, tag=f.vlan(1)))
    for n, (port, ecid) in enumerate([("p1", 0x001), ("p2", 0x002), ("p3", 0x003), ("p4", 0x104)], 1):
        put("upstream", f.frame(hosts[port], BRIDGE, f.etag(ecid), f.payload(n, 46 + 100 * n)))
        put(port, f.frame(BRIDGE, hosts[port], f.payload(10 + n, 60)))
    put("upstream", f.frame(f.mac(0xF01), BRIDGE, f.etag(0x1001), f.payload(20, 200)))
    put("upstream", f.frame(f.mac(0xF01), hosts["p2"], f.etag(0x1001, ingress_ecid=0x002), f.payload(21, 80)))
    put("upstream", f.frame(f.mac(0xF02), hosts["p4"], f.etag(0x2002, ingress_ecid=0x104), f.payload(22, 64)))
    put("upstream", f.frame(f.mac(0xF01), BRIDGE, f.etag(0x1001), f.vlan(100, 2), f.payload(23, 60)))
    put("upstream", f.frame(hosts["p2"], BRIDGE, f.etag(0x002), f.vlan(100), f.payload(24, 60)))
    put("p2", f.frame(BRIDGE, hosts["p2"], f.vlan(7, 3, dei=1), f.payload(30, 60)))
    put("p3", f.frame(BRIDGE, hosts["p3"], f.vlan(300, 6), f.payload(31, 60)))
    put("p3", f.frame(BRIDGE, hosts["p3"], f.payload(32, 20)))
    put("p1", f.lldp(hosts["p1"], pe_tlv=True, tag=f.vlan(1)))
    # What a port extender must survive.
    put("upstream", f.frame(f.mac(9), BRIDGE, f.etag(0x055), f.payload(40, 50)))
    put("upstream", f.frame(f.mac(9), BRIDGE, f.etag(0x3077), f.payload(41, 50)))
    put("upstream", f.frame(hosts["p1"], BRIDGE, f.payload(42, 50)))
    put("upstream", f.frame(hosts["p1"], BRIDGE, f.etag(0x001, reserved=2), f.payload(43, 38)))
    put("upstream", bytes(10))
    put("p1", f.frame(BRIDGE, hosts["p1"], f.vlan(5)[:3]))
    put("upstream", f.frame(hosts["p1"], BRIDGE, f.etag(0x001), f.payload(44, 40)), wire=1400)
    put("p4", f.frame(BRIDGE, hosts["p4"], f.etag(0x104), f.payload(45, 50)))
    put("p4", f.frame(BRIDGE, hosts["p4"], f.payload(46, 9300)))
    for port, records in frames.items():
        f.pcap_write(os.path.join(folder, port + ".pcap"), records)


if __name__ == "__main__":
    main()
