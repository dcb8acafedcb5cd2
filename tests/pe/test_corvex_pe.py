#!/usr/bin/env python3
"""End-to-end tests of corvex-pe.

  test_corvex_pe.py files CORVEX_PE    a generated capture through the program:
                                       counters, every output frame byte for
                                       byte, tshark's decoding, the pools and
                                       heaps at exit; bad input files and
                                       command lines; the defaults
  test_corvex_pe.py sample             the shipped sample is its generator's
"""
import collections
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
PE_DIR = os.path.join(HERE, "..", "..", "apps", "corvex-pe")
sys.path.insert(0, PE_DIR)
import pe_frames as f  # noqa: E402

CONFIG = """upstream up
port a 0x001 priority 6
port b 0x002 vlan add 100 5
port c 0x003 vlan strip
port d 0x4005
port e 0x005 priority 4 vlan add 200
group 0x1001 a b c
group 0x5002 b d
group 0x2003 a e
group 0x3004 b c e
"""
ECID = {"a": 0x001, "b": 0x002, "c": 0x003, "d": 0x4005, "e": 0x005}
PORTS = ["up"] + list(ECID)
BRIDGE, HOST = f.mac(0x100), f.mac(7)
LONGEST = 9216


def untag(data, size):
    """The frame without the size tag bytes after its addresses."""
    return data[:12] + data[12 + size:]


def tagged(data, *tags):
    return data[:12] + b"".join(tags) + data[12:]


def case(port, data, out=None, drop=None, lldp=None, pruned="", wire=None, etag=None):
    """A frame received on port and what comes of it: the frame each port sends (padded here to 60
    bytes), the drop reason, the LLDP kind, the ports it is pruned at; etag: the E-CID, E-PCP, E-DEI
    and VLAN ID tshark must read in the frame sent upstream."""
    out = {p: d + bytes(max(60 - len(d), 0)) for p, d in (out or {}).items()}
    return dict(port=port, data=data, out=out, drop=drop, lldp=lldp, pruned=pruned, wire=wire, etag=etag)


def upward(port, data, pcp, dei=0, added=None, stripped=False, **kw):
    """data from an extended port goes upstream with an E-tag of priority pcp and dei, after the
    VLAN tag its port adds (VID added, PCP pcp) or strips."""
    body = untag(data, 4) if stripped else data
    tags = [f.etag(ECID[port], pcp=pcp, dei=dei)] + ([f.vlan(added, pcp)] if added else [])
    kept = data[12:14] == b"\x81\x00" and not stripped
    vid = added or (int.from_bytes(data[14:16], "big") & 0xFFF if kept else None)
    return case(port, data, out={"up": tagged(body, *tags)}, etag=(ECID[port], pcp, dei, vid), **kw)


def cases():
    """The rows, and the E-tags of the frames from upstream: (frame, E-CID, Ingress E-CID, reserved)."""
    sent_down = []

    def up(ecid, n, size=None, tags=(), ingress_ecid=0, reserved=0):
        frame = f.frame(HOST, BRIDGE, f.etag(ecid, ingress_ecid, reserved=reserved), *tags,
                        f.payload(n, 60 + n if size is None else size))
        sent_down.append((frame, ecid, ingress_ecid, reserved))
        return frame

    def plain(n, *tags, size=None):
        return f.frame(BRIDGE, HOST, *tags, f.payload(n, 50 + n if size is None else size))

    def down(ecid, n, removed, pruned="", drop=None, **kw):
        """A frame from upstream and the tag bytes each port it reaches removes."""
        frame = up(ecid, n, **kw)
        return case("up", frame, out={p: untag(frame, size) for p, size in removed.items()}, pruned=pruned, drop=drop)

    v100 = f.vlan(100, 3)
    # LLDP on the upstream port ends there; on an extended port it is the controlling bridge's.
    rows = [case("up", f.lldp(BRIDGE, True), lldp="pe"),
            case("up", f.lldp(BRIDGE, False), lldp="plain"),
            case("up", f.lldp(BRIDGE, True, tag=f.vlan(5)), lldp="pe"),
            upward("a", f.lldp(HOST, True, tag=f.vlan(5, 2)), 2, lldp="pe"),
            upward("e", f.lldp(HOST, False), 4, added=200, lldp="plain")]
    rows += [down(ECID[port], n, {port: 8}) for n, port in enumerate(ECID, 1)]
    # Multicast with every GRP; no copy goes back to the port whose E-CID, extension included, the
    # frame entered by. Reserved bits are ignored. Small copies are padded each.
    rows += [down(0x1001, 10, dict(a=8, b=8, c=8)), down(0x1001, 11, dict(a=8, c=8), "b", ingress_ecid=0x002),
             down(0x1001, 12, dict(a=8, b=8), "c", ingress_ecid=0x003), down(0x2003, 14, dict(a=8, e=8)),
             down(0x5002, 13, dict(b=8), "d", ingress_ecid=0x4005),
             down(0x3004, 15, dict(b=8, c=8), "e", ingress_ecid=0x005),
             down(0x3004, 16, dict(b=8, c=8, e=8), ingress_ecid=0x4003),
             down(0x1001, 17, dict(b=8, c=8), "a", ingress_ecid=0x001, reserved=3, size=8),
             down(0x001, 18, dict(a=8), reserved=1, size=20)]
    # Access ports send the frames of their VLAN untagged, others as they are.
    rows += [down(0x002, 20, dict(b=12), tags=[v100]), down(0x002, 21, dict(b=8), tags=[f.vlan(9)]),
             down(0x005, 22, dict(e=8), tags=[v100]), down(0x1001, 23, dict(a=8, b=12, c=8), tags=[v100]),
             down(0x3004, 24, dict(b=8, c=8, e=12), tags=[f.vlan(200)])]
    # Priority: the frame's 802.1Q tag, the added tag's, else the port's.
    rows += [upward("a", plain(30), 6), upward("a", plain(31, f.vlan(9, 2, dei=1)), 2, 1),
             upward("b", plain(32), 5, added=100), upward("b", plain(33, f.vlan(9, 1)), 1),
             upward("c", plain(34, f.vlan(9, 7, dei=1)), 7, 1, stripped=True), upward("c", plain(35), 0),
             upward("d", plain(36), 0), upward("e", plain(37), 4, added=200), upward("a", plain(38, size=10), 6)]
    # The size limit holds for the frame as it leaves, tags included.
    rows += [upward("a", plain(40, size=LONGEST - 22), 6),
             case("a", plain(41, size=LONGEST - 21), drop="oversize frame")]
    rows += [down(0x002, 42, dict(b=12), tags=[v100], size=LONGEST - 14),
             down(0x1001, 43, dict(b=12), drop="oversize frame", tags=[v100], size=LONGEST - 14),
             down(0x001, 44, {}, drop="oversize frame", size=LONGEST - 13),
             down(0x002, 45, {}, drop="oversize frame", tags=[v100], size=LONGEST - 13)]
    # Frames shorter than their headers, on every port.
    rows += [case("up", bytes(13), drop="short frame"),
             case("up", up(0x001, 50)[:21], drop="short frame"),
             case("up", up(0x001, 51, tags=[v100])[:23], drop="short frame"),
             case("a", plain(52)[:12] + b"\x81\x00\x00", drop="short frame"),
             case("c", plain(53)[:12] + b"\x81\x00\x00", drop="short frame"),
             case("b", up(0x001, 54)[:19], drop="short frame")]
    rows += [case("up", up(0x077, 60), drop="unknown E-CID"),
             case("up", up(0x3077, 61), drop="unknown E-CID"),
             case("up", plain(62), drop="no E-tag from upstream"),
             case("up", up(0x001, 63), drop="truncated capture", wire=1000),
             case("d", up(0x002, 64), drop="E-tag on extended port")]
    return rows, sent_down


# What a bounded wait allows before it calls the program stuck; a wait ends
# as soon as what it waits for comes.
WAIT = 120


def run(argv, **kw):
    return subprocess.run(argv, capture_output=True, text=True, timeout=WAIT, **kw)


def check(condition, what):
    if not condition:
        sys.exit("FAILED: " + what)


def counter_rows(stdout):
    """{port: [rx frames, rx bytes, tx frames, tx bytes, rx/tx lost, lldp, lldp-pe, dropped, pruned]}, {reason: n}."""
    ports, reasons = {}, {}
    for line in stdout.splitlines():
        words = line.split()
        if len(words) == 12 and words[0] in PORTS:
            ports[words[0]] = [int(w) for w in words[2:]]
        m = re.fullmatch(r"  (\S.*?) +(\d+)", line)
        if m:
            reasons[m.group(1)] = int(m.group(2))
    return ports, reasons


def expected_counters(rows):
    ports = {p: [0] * 10 for p in PORTS}
    for row in rows:
        c = ports[row["port"]]
        c[0] += 1
        c[1] += row["wire"] or len(row["data"])
        c[6] += row["lldp"] is not None
        c[7] += row["lldp"] == "pe"
        c[8] += row["drop"] is not None
        for port, data in row["out"].items():
            ports[port][2] += 1
            ports[port][3] += len(data)
        for port in row["pruned"]:
            ports[port][9] += 1
    return ports, dict(collections.Counter(row["drop"] for row in rows if row["drop"]))


def files_test(program):
    rows, sent_down = cases()
    work = tempfile.mkdtemp(prefix="corvex-pe-")
    try:
        config = os.path.join(work, "pe.conf")
        with open(config, "w") as out:
            out.write(CONFIG)
        inputs = {p: [] for p in PORTS}
        for t, row in enumerate(rows):
            inputs[row["port"]].append((1_000_000 + t, row["data"], row["wire"]))
        os.mkdir(os.path.join(work, "in"))
        for port in PORTS:
            f.pcap_write(os.path.join(work, "in", port + ".pcap"), inputs[port])
        result = run([program, "--config=" + config, "--in", os.path.join(work, "in"), "--out",
                      os.path.join(work, "out"), "-q", "-c", "show packet statistics", "--command=show heap"])
        check(result.returncode == 0, "corvex-pe failed:\n" + result.stdout + result.stderr)
        check(result.stderr == "", "corvex-pe complained:\n" + result.stderr)

        ports, reasons = counter_rows(result.stdout)
        want_ports, want_reasons = expected_counters(rows)
        check(ports == want_ports, "port counters %s, expected %s" % (ports, want_ports))
        reasons = {reason: count for reason, count in reasons.items() if count}
        check(reasons == want_reasons, "drops by reason %s, expected %s" % (reasons, want_reasons))

        for port in PORTS:
            want = [row["out"][port] for row in rows if port in row["out"]]
            got = f.pcap_read(os.path.join(work, "out", port + ".pcap"))
            check(got == want, "%s.pcap: %s, expected %s" % (port, [g.hex() for g in got], [w.hex() for w in want]))

        # Every frame that got a packet, and every copy, was a get and a return.
        gets = sum(1 for r in rows if r["drop"] not in ("short frame", "truncated capture")
                   and len(r["data"]) <= LONGEST + 12)
        clones = sum(len(r["out"]) for r in rows if f.ecid_fields(f.frame_ecid(r["data"]) or 0)[1])
        for label, value in [("get requests", gets + clones), ("returns", gets + clones),
                             ("clone returns", clones), ("active", 0)]:
            check(re.search(r"^ +%d %s$" % (value, label), result.stdout, re.M), "%s not %d" % (label, value))
        check("Heaps at exit: 4 walk clean, free bytes as at start-up" in result.stdout, "heaps at exit")
        tshark_check(work, rows, sent_down)
        bad_input_test(program, work)
        options_test(program, work)
    finally:
        shutil.rmtree(work)


def tshark_expect(path, fields, want):
    check(shutil.which("tshark"), "tshark is not installed (Debian package tshark)")
    result = run(["tshark", "-r", path, "-T", "fields"] + sum((["-e", x] for x in fields), []))
    check(result.returncode == 0, "tshark: " + result.stderr)
    check(result.stdout.splitlines() == want, "%s: tshark decoded:\n%sexpected:\n%s" % (path, result.stdout,
                                                                                       "\n".join(want)))


def tshark_check(work, rows, sent_down):
    """tshark reads in the E-tags sent upstream the port's E-CID, the frame's priority, no reserved
    bit, no GRP, no Ingress E-CID; and in those of the test's frames from upstream what they mean."""
    tag = ["etag.resv", "etag.group", "etag.ecid_ext", "etag.ecid_base", "etag.iecid_ext", "etag.iecid_base"]
    tshark_expect(os.path.join(work, "out", "up.pcap"), ["etag.pcp", "etag.dei"] + tag + ["vlan.id"],
                  ["%d\t%d\t0\t0\t0x%02x\t0x%04x\t0x00\t0x0000\t%s" % (pcp, dei, ecid >> 14, ecid & 0xFFF, vid or "")
                   for ecid, pcp, dei, vid in (r["etag"] for r in rows if r["etag"])])
    path = os.path.join(work, "sent_down.pcap")
    f.pcap_write(path, [(t, frame, None) for t, (frame, _, _, _) in enumerate(sent_down)])
    tshark_expect(path, tag, ["%d\t%d\t0x%02x\t0x%04x\t0x%02x\t0x%04x" % (
        reserved, ecid >> 12 & 3, ecid >> 14, ecid & 0xFFF, ingress >> 14, ingress & 0xFFF)
        for _, ecid, ingress, reserved in sent_down])


def bad_input_test(program, work):
    """Each bad configuration ends the run with status 2 and one line naming it (bad captures: test_pe_io.py)."""
    with open(os.path.join(work, "in", "up.pcap"), "rb") as fin:
        data = fin.read()
    bad = os.path.join(work, "bad")
    for name, capture, text, message in [
            ("unknown statement", data, CONFIG + "bridge x\n", bad + ".conf:11: unknown statement: bridge"),
            ("folder as configuration", data, None, work + ": is a directory")]:
        if os.path.exists(bad):
            os.remove(bad)
        if capture is not None:
            with open(bad, "wb") as out:
                out.write(capture)
        config = work
        if text is not None:
            config = bad + ".conf"
            with open(config, "w") as out:
                out.write(text)
        result = run([program, "--config", config, "--in", "up=" + bad, "--out", bad + ".out", "-q"])
        check(result.returncode == 2 and result.stderr.startswith("corvex-pe: " + message)
              and result.stderr.count("\n") == 1, "%s: status %d, stderr %r" % (name, result.returncode, result.stderr))


def options_test(program, work):
    """A refused command line ends with status 2 and one line naming the option. Without options
    corvex-pe runs its installed sample, prints the table the README shows and writes into the
    user's state folder, nowhere else."""
    seconds = ": not a whole number of seconds from 1 to 4294967295"
    for argv, message in [
            (["--duration", "abc", "--port", "up=x"], "--duration abc" + seconds),
            (["--port=up=x", "--duration=-1"], "--duration -1" + seconds),
            (["--duration", "5"], "--duration: applies to live interfaces only (--port)"),
            (["--port", "up=x", "--out", "o"], "--out: applies to capture files only, not with --port"),
            (["--in", "d", "--port", "up=x"], "--in: not with --port: capture files or live interfaces"),
            (["--port", "up"], "--port up: not PORT=IFACE"), (["--in", "=f"], "--in =f: not DIR or PORT=FILE"),
            (["--frob"], "--frob: unknown option"), (["--co", "x"], "--co: ambiguous: --config, --command, --counters"),
            (["--quiet=1"], "--quiet=1: takes no value"), (["-qx"], "-x: unknown option"),
            (["--config"], "--config: needs a value"), (["-q", "-c"], "-c: needs a value"),
            (["--out="], "--out: needs a value, not an empty one"),
            (["-q", "here"], "here: unexpected argument: every input is given by an option")]:
        result = run([program] + argv)
        check((result.returncode, result.stdout, result.stderr) == (2, "", "corvex-pe: %s\n" % message),
              "%s: status %d, stderr %r" % (argv, result.returncode, result.stderr))
    check(re.fullmatch(r"corvex-pe \d+\.\d+\.\d+\n", run([program, "--version"]).stdout), "--version")
    home, cwd = os.path.join(work, "home"), os.path.join(work, "cwd")
    os.makedirs(cwd)
    env = dict(os.environ, HOME=home)
    env.pop("XDG_STATE_HOME", None)
    result = run([program, "-c", "show heap"], cwd=cwd, env=env)
    out = os.path.join(home, ".local", "state", "corvex-pe", "out")
    check(result.returncode == 0 and result.stderr == "corvex-pe: the ports' captures go to %s\n" % out
          and sorted(os.listdir(out)) == ["p1.pcap", "p2.pcap", "p3.pcap", "p4.pcap", "upstream.pcap"]
          and os.listdir(cwd) == [], "default run: %d %r %r" % (result.returncode, result.stderr, os.listdir(cwd)))
    with open(os.path.join(HERE, "..", "..", "README.md")) as readme:
        shown = re.search(r"\n(    Port .*?\n    +no clone +\d+\n)", readme.read(), re.S).group(1)
    table = re.sub(r"(?m)^    ", "", shown)
    check(result.stdout.startswith(table), "the shipped sample's table, not as the README shows it:\n" + result.stdout)


def sample_test():
    work = tempfile.mkdtemp(prefix="corvex-pe-sample-")
    try:
        subprocess.run([sys.executable, os.path.join(PE_DIR, "gen_sample.py"), work], check=True)
        for name in sorted(os.listdir(work)):
            with open(os.path.join(work, name), "rb") as a, open(os.path.join(PE_DIR, "sample", name), "rb") as b:
                check(a.read() == b.read(), "apps/corvex-pe/sample/%s differs from what gen_sample.py writes" % name)
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    mode = sys.argv[1]
    {"files": lambda: files_test(sys.argv[2]), "sample": sample_test}[mode]()
    print("passed")
