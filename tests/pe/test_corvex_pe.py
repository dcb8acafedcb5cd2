#!/usr/bin/env python3
"""End-to-end tests of corvex-pe.

  test_corvex_pe.py files CORVEX_PE    a generated capture through the program:
                                       counters, every output frame byte for
                                       byte, tshark's decoding, the pools and
                                       heaps at exit; bad input files and
                                       command lines; the defaults
  test_corvex_pe.py sample             the shipped sample is its generator's
"""
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
port a 0x001
port b 0x002 vlan add 100 5
port c 0x003 vlan strip
port d 0x4005
group 0x1001 a b c
group 0x5002 b d
"""
ECID = {"a": 0x001, "b": 0x002, "c": 0x003, "d": 0x4005}
PORTS = ["up", "a", "b", "c", "d"]
BRIDGE, HOST = f.mac(0x100), f.mac(7)


def untag(data, size):
    """The frame without the size tag bytes after its addresses."""
    return data[:12] + data[12 + size:]


def tagged(data, *tags):
    return data[:12] + b"".join(tags) + data[12:]


def case(port, data, out=None, drop=None, lldp=None, pruned=(), wire=None):
    return dict(port=port, data=data, out=out or {}, drop=drop, lldp=lldp, pruned=pruned, wire=wire)


def cases():
    up = lambda ecid, n, **kw: f.frame(HOST, BRIDGE, f.etag(ecid, **kw), f.payload(n, 60 + n))
    plain = lambda n, *tags: f.frame(BRIDGE, HOST, *tags, f.payload(n, 50 + n))
    rows = [case("up", f.lldp(BRIDGE, True), lldp="pe"),
            case("up", f.lldp(BRIDGE, False), lldp="plain"),
            case("a", f.lldp(HOST, True, tag=f.vlan(5)), lldp="pe")]
    for n, port in enumerate(ECID, 1):
        frame = up(ECID[port], n)
        rows.append(case("up", frame, out={port: untag(frame, 8)}))
    for n, ingress, members, pruned in [(10, 0, "abc", ""), (11, 0x002, "ac", "b"), (12, 0x003, "ab", "c")]:
        frame = up(0x1001, n, ingress_ecid=ingress)
        rows.append(case("up", frame, out={p: untag(frame, 8) for p in members}, pruned=pruned))
    frame = up(0x5002, 13, ingress_ecid=0x4005)
    rows.append(case("up", frame, out={"b": untag(frame, 8)}, pruned="d"))
    for n, port in enumerate(ECID, 20):
        frame = plain(n)
        tags = [f.etag(ECID[port])] + ([f.vlan(100, 5)] if port == "b" else [])
        rows.append(case(port, frame, out={"up": tagged(frame, *tags)}))
    frame = plain(30, f.vlan(9))
    rows.append(case("b", frame, out={"up": tagged(frame, f.etag(0x002))}))
    rows.append(case("c", frame, out={"up": tagged(untag(frame, 4), f.etag(0x003))}))
    rows.append(case("a", frame, out={"up": tagged(frame, f.etag(0x001))}))
    rows += [case("up", up(0x077, 40), drop="unknown E-CID"),
             case("up", up(0x3077, 41), drop="unknown E-CID"),
             case("up", plain(42), drop="no E-tag from upstream"),
             case("up", up(0x001, 43, reserved=1), drop="malformed E-tag"),
             case("up", bytes(13), drop="short frame"),
             case("up", up(0x001, 44)[:21], drop="short frame"),
             case("c", plain(45)[:12] + b"\x81\x00\x00", drop="short frame"),
             case("up", up(0x001, 46), drop="truncated capture", wire=1000),
             case("d", up(0x002, 47), drop="E-tag on extended port"),
             case("a", plain(9300), drop="oversize frame")]
    return rows


# What a bounded wait allows before it calls the program stuck; a wait ends
# as soon as what it waits for comes.
WAIT = 120


def run(argv, **kw):
    return subprocess.run(argv, capture_output=True, text=True, timeout=WAIT, **kw)


def check(condition, what):
    if not condition:
        sys.exit("FAILED: " + what)


def counter_rows(stdout):
    """{port: [rx frames, rx bytes, tx frames, tx bytes, lldp, lldp-pe, dropped, pruned]}, {reason: n}."""
    ports, reasons = {}, {}
    for line in stdout.splitlines():
        words = line.split()
        if len(words) == 10 and words[0] in PORTS:
            ports[words[0]] = [int(w) for w in words[2:]]
        m = re.fullmatch(r"  (\S.*?) +(\d+)", line)
        if m:
            reasons[m.group(1)] = int(m.group(2))
    return ports, reasons


def expected_counters(rows):
    ports = {p: [0] * 8 for p in PORTS}
    reasons = {}
    for row in rows:
        c = ports[row["port"]]
        c[0] += 1
        c[1] += row["wire"] or len(row["data"])
        c[4] += row["lldp"] is not None
        c[5] += row["lldp"] == "pe"
        if row["drop"]:
            c[6] += 1
            reasons[row["drop"]] = reasons.get(row["drop"], 0) + 1
        for port, data in row["out"].items():
            ports[port][2] += 1
            ports[port][3] += len(data)
        for port in row["pruned"]:
            ports[port][7] += 1
    return ports, reasons


def files_test(program):
    rows = cases()
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
        for reason, count in reasons.items():
            check(count == want_reasons.get(reason, 0), "%s: %d drops, expected %s" % (reason, count, want_reasons))

        for port in PORTS:
            want = [row["out"][port] for row in rows if port in row["out"]]
            got = f.pcap_read(os.path.join(work, "out", port + ".pcap"))
            check(got == want, "%s.pcap: %s, expected %s" % (port, [g.hex() for g in got], [w.hex() for w in want]))

        # Every frame that got a packet, and every copy, was a get and a return.
        gets = sum(1 for r in rows if 14 <= len(r["data"]) <= 9216 and r["wire"] is None)
        clones = sum(len(r["out"]) for r in rows if f.ecid_fields(f.frame_ecid(r["data"]) or 0)[1])
        for label, value in [("get requests", gets + clones), ("returns", gets + clones),
                             ("clone returns", clones), ("active", 0)]:
            check(re.search(r"^ +%d %s$" % (value, label), result.stdout, re.M), "%s not %d" % (label, value))
        check("Heaps at exit: 4 walk clean, free bytes as at start-up" in result.stdout, "heaps at exit")
        tshark_check(os.path.join(work, "out", "up.pcap"), rows)
        bad_input_test(program, work)
        options_test(program, work)
    finally:
        shutil.rmtree(work)


def tshark_check(path, rows):
    check(shutil.which("tshark"), "tshark is not installed (Debian package tshark)")
    fields = ["etag.ecid_ext", "etag.group", "etag.ecid_base", "etag.iecid_base", "vlan.id"]
    result = run(["tshark", "-r", path, "-T", "fields"] + sum((["-e", x] for x in fields), []))
    check(result.returncode == 0, "tshark: " + result.stderr)
    want = []
    for row in rows:
        if "up" in row["out"]:
            ecid = ECID[row["port"]]
            vid = "100" if row["port"] == "b" and row["data"][12:14] != b"\x81\x00" else \
                "9" if row["data"][12:14] == b"\x81\x00" and row["port"] != "c" else ""
            want.append("0x%02x\t%d\t0x%04x\t0x0000\t%s" % (f.ecid_fields(ecid) + (vid,)))
    check(result.stdout.splitlines() == want, "tshark decoded:\n%s\nexpected:\n%s" % (result.stdout, "\n".join(want)))


def bad_input_test(program, work):
    """Each bad configuration ends the run with status 2 and one line naming it (bad captures: test_pe_io.py)."""
    with open(os.path.join(work, "in", "up.pcap"), "rb") as fin:
        data = fin.read()
    bad = os.path.join(work, "bad")
    for name, capture, text, message in [
            ("unknown statement", data, CONFIG + "bridge x\n", bad + ".conf:8: unknown statement: bridge"),
            ("multicast port", data, "upstream up\nport a 0x1001\n", bad + ".conf:2: not a unicast E-CID: 0x1001"),
            ("group of nothing", data, CONFIG + "group 0x1002 up\n", bad + ".conf:8: not an extended port: up")]:
        if os.path.exists(bad):
            os.remove(bad)
        if capture is not None:
            with open(bad, "wb") as out:
                out.write(capture)
        with open(bad + ".conf", "w") as out:
            out.write(text)
        result = run([program, "--config", bad + ".conf", "--in", "up=" + bad, "--out", bad + ".out", "-q"])
        check(result.returncode == 2 and result.stderr.startswith("corvex-pe: " + message)
              and result.stderr.count("\n") == 1, "%s: status %d, stderr %r" % (name, result.returncode, result.stderr))


def options_test(program, work):
    """A refused command line ends with status 2 and one line naming the option. Without options
    corvex-pe runs its installed sample and writes into the user's state folder, nowhere else."""
    seconds = ": not a whole number of seconds from 1 to 4294967295"
    for argv, message in [
            (["--duration", "abc", "--port", "up=x"], "--duration abc" + seconds),
            (["--port=up=x", "--duration=-1"], "--duration -1" + seconds),
            (["--duration", "5"], "--duration: applies to live interfaces only (--port)"),
            (["--port", "up=x", "--out", "o"], "--out: applies to capture files only, not with --port"),
            (["--in", "d", "--port", "up=x"], "--in: not with --port: capture files or live interfaces"),
            (["--port", "up"], "--port up: not PORT=IFACE"), (["--in", "=f"], "--in =f: not DIR or PORT=FILE"),
            (["--frob"], "--frob: unknown option"), (["--co", "x"], "--co: ambiguous: --config, --command"),
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
