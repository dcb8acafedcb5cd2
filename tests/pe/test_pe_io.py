#!/usr/bin/env python3
"""corvex-pe's frames in and out, end to end.

  test_pe_io.py files CORVEX_PE   capture files in every classic pcap variant,
                                  damaged inputs, write errors, outputs never
                                  over inputs, outputs kept at SIGINT, the
                                  options about files and interfaces
  test_pe_io.py live CORVEX_PE    packet-socket rings between veth pairs in a
                                  network namespace of its own: frames both
                                  ways, and more frames offered than the
                                  program can take, every one accounted for;
                                  the console while frames flow, as rounds
                                  of commands (--every) and at a prompt
                                  (skipped where not allowed)
"""
import fcntl
import os
import pty
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.dont_write_bytecode = True  # nothing written into the source tree
from test_corvex_pe import BRIDGE, HOST, WAIT, check, counter_rows, f, run, tagged, untag  # noqa: E402

CONFIG = "upstream up\nport a 0x001\nport b 0x002\n"
PORTS = ["up", "a", "b"]
SECOND = 10 ** 9


def capture(records, order="<", nano=False, magic=None, version=2, link=1):
    """A classic pcap file: records are (nanoseconds, bytes, captured length or None, wire length or None)."""
    head = struct.pack(order + "IHHiIII", magic or (0xA1B23C4D if nano else 0xA1B2C3D4), version, 4, 0, 0, 65535, link)
    body = b""
    for ns, data, captured, wire in records:
        fraction = ns % SECOND if nano else ns % SECOND // 1000
        body += struct.pack(order + "IIII", ns // SECOND, fraction, len(data) if captured is None else captured,
                            len(data) if wire is None else wire) + data
    return head + body


def traffic():
    """{port: input records}, {port: expected output records}: upstream frames to a and b, a and b frames up,
    their times interleaved so that up.pcap shows the ports' merge."""
    down = lambda ecid, n: f.frame(HOST, BRIDGE, f.etag(ecid), f.payload(n, 70))
    plain = lambda n: f.frame(BRIDGE, HOST, f.payload(n, 70))
    inputs, outputs = {p: [] for p in PORTS}, {p: [] for p in PORTS}
    for n, (port, frame) in enumerate([("up", down(0x001, 1)), ("a", plain(2)), ("b", plain(3)),
                                       ("up", down(0x002, 4)), ("a", plain(5)), ("up", down(0x001, 6))]):
        ns = 1_700_000_000 * SECOND + n * 1_250_000
        inputs[port].append((ns, frame, None, None))
        if port == "up":
            outputs["a" if f.frame_ecid(frame) == 0x001 else "b"].append((ns, untag(frame, 8), None, None))
        else:
            outputs["up"].append((ns, tagged(frame, f.etag(0x001 if port == "a" else 0x002)), None, None))
    return inputs, outputs


def write(path, data):
    with open(path, "wb") as out:
        out.write(data)


def listing(folder):
    return sorted(os.listdir(folder)) if os.path.isdir(folder) else []


def pe(program, work, *argv, **kw):
    return run([program, "--config", os.path.join(work, "pe.conf"), "-q"] + list(argv), **kw)


def formats_test(program, work):
    """Either byte order, micro- or nanoseconds: the same outputs, written little-endian in microseconds."""
    inputs, outputs = traffic()
    for order in "<>":
        for nano in (False, True):
            folder = os.path.join(work, "in%s%d" % ("le" if order == "<" else "be", nano))
            os.mkdir(folder)
            for port in PORTS:
                write(os.path.join(folder, port + ".pcap"), capture(inputs[port], order, nano))
            out = os.path.join(work, "out" + folder[-3:])
            result = pe(program, work, "--in", folder, "--out", out)
            check(result.returncode == 0 and result.stderr == "", "%s: %r" % (folder, result.stderr))
            check(listing(out) == [p + ".pcap" for p in sorted(PORTS)], "%s: outputs %s" % (out, listing(out)))
            for port in PORTS:
                with open(os.path.join(out, port + ".pcap"), "rb") as written:
                    check(written.read() == capture(outputs[port]), "%s/%s.pcap is not as expected" % (out, port))


def damaged_test(program, work):
    """Each damaged input: status 2, one line naming the file (and record), no table, no output."""
    inputs, _ = traffic()
    good = inputs["up"][0]
    bad = os.path.join(work, "bad.pcap")
    whole = capture([good, good])
    for data, message in [
            (None, "No such file or directory"),
            (b"", "not a pcap capture: shorter than its file header"),
            (b"not a capture at all\n" * 4, "not a pcap capture"),
            (struct.pack("<I", 0x0A0D0D0A) + bytes(40), "a pcapng capture: only classic pcap is read"),
            (capture([good], version=1), "not a pcap capture of version 2"),
            (capture([good], link=105), "not an Ethernet capture"),
            (whole[:-len(good[1]) - 5], "record 2: cut short: the file ends inside it"),
            (whole[:-10], "record 2: cut short: the file ends inside it"),
            (capture([good, (good[0], good[1], 100, 60)]), "record 2: captured length 100 exceeds its wire length 60"),
            (capture([good, (good[0], b"", 0, 0xFFFFFFFF)]),
             "record 2: wire length 4294967295 is beyond any frame (at most 262144 bytes)"),
            ("folder", "is a directory")]:
        if os.path.isdir(bad):
            os.rmdir(bad)
        elif os.path.exists(bad):
            os.remove(bad)
        if data == "folder":
            os.mkdir(bad)
        elif data is not None:
            write(bad, data)
        out = os.path.join(work, "damaged-out")
        shutil.rmtree(out, ignore_errors=True)
        result = pe(program, work, "--in", "up=" + bad, "--in", "a=" + os.path.join(work, "inle0", "a.pcap"),
                    "--out", out)
        # A damaged record shows once the outputs are open: they are removed, their folder stays.
        check((result.returncode, result.stdout, result.stderr) == (2, "", "corvex-pe: %s: %s\n" % (bad, message))
              and (listing(out) == [] if "record" in message else not os.path.exists(out)), "%s: status %d, stderr %r, outputs %s" % (message, result.returncode,
                                                                                       result.stderr, listing(out)))


def limited(limit):
    """A child whose files may not grow past limit bytes."""
    import resource
    return lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))


def write_errors_test(program, work):
    """A full disk or a file size limit is told once, naming the output; outputs are then absent. A full
    standard output is an error too, the captures being complete."""
    frames = [(n * 1000, f.frame(BRIDGE, HOST, f.payload(n, 1000)), None, None) for n in range(300)]
    big = os.path.join(work, "big.pcap")
    write(big, capture(frames))
    out = os.path.join(work, "limited")
    result = pe(program, work, "--in", "a=" + big, "--out", out, preexec_fn=limited(64 * 1024))
    check((result.returncode, result.stdout, result.stderr) ==
          (2, "", "corvex-pe: %s/up.pcap: File too large\n" % out) and listing(out) == [],
          "file size limit: %d %r %s" % (result.returncode, result.stderr, listing(out)))
    tiny = os.path.join(work, "tiny")
    os.mkdir(tiny)
    mounted = run(["unshare", "--mount", "sh", "-c", 'mount -t tmpfs -o size=64k tmpfs "$1" && shift && exec "$@"',
                   "-", tiny, program, "--config", os.path.join(work, "pe.conf"), "-q", "--in", "a=" + big, "--out", tiny])
    if "mount" in mounted.stderr or "unshare" in mounted.stderr:
        print("tmpfs row skipped: %s" % mounted.stderr.strip())
    else:
        check((mounted.returncode, mounted.stderr) == (2, "corvex-pe: %s/up.pcap: No space left on device\n" % tiny),
              "small tmpfs: %d %r" % (mounted.returncode, mounted.stderr))
    out = os.path.join(work, "full-stdout")
    with open("/dev/full", "w") as full:
        result = subprocess.run([program, "--config", os.path.join(work, "pe.conf"), "-q", "--in", "a=" + big, "--out",
                                 out], stdout=full, stderr=subprocess.PIPE, text=True, timeout=WAIT)
    check((result.returncode, result.stderr) == (2, "corvex-pe: standard output: No space left on device\n")
          and len(f.pcap_read(os.path.join(out, "up.pcap"))) == 300, "stdout to /dev/full: %d %r"
          % (result.returncode, result.stderr))


def outputs_test(program, work):
    """An output is never an input nor a folder; a SIGINT ends a run that keeps its outputs."""
    folder = os.path.join(work, "inle0")
    before = {p: open(os.path.join(folder, p + ".pcap"), "rb").read() for p in PORTS}
    os.symlink(os.path.join(folder, "a.pcap"), os.path.join(work, "a-link.pcap"))
    os.mkdir(os.path.join(work, "dir-out"))
    os.mkdir(os.path.join(work, "dir-out", "b.pcap"))
    config_out = os.path.join(work, "config-out")
    os.mkdir(config_out)
    shutil.copy(os.path.join(work, "pe.conf"), os.path.join(config_out, "a.pcap"))
    for argv, message in [
            (["--in", folder, "--out", folder], "%s/up.pcap: would overwrite the input %s/up.pcap" % (folder, folder)),
            (["--in", "up=" + os.path.join(work, "a-link.pcap"), "--out", folder],
             "%s/a.pcap: would overwrite the input %s/a-link.pcap" % (folder, work)),
            (["--in", folder, "--out", os.path.join(work, "dir-out")], "%s/dir-out/b.pcap: is a directory" % work),
            (["--config", os.path.join(config_out, "a.pcap"), "--in", folder, "--out", config_out],
             "%s/a.pcap: would overwrite the input %s/a.pcap" % (config_out, config_out))]:
        result = pe(program, work, *argv)
        check((result.returncode, result.stderr) == (2, "corvex-pe: %s\n" % message),
              "%s: %d %r" % (argv, result.returncode, result.stderr))
    for p in PORTS:
        check(open(os.path.join(folder, p + ".pcap"), "rb").read() == before[p], "input %s.pcap changed" % p)
    interrupt_test(program, work)


def handler_installed(pid, signum):
    with open("/proc/%d/status" % pid) as status:
        caught = int(re.search(r"^SigCgt:\s*([0-9a-f]+)$", status.read(), re.M).group(1), 16)
    return caught >> (signum - 1) & 1


def interrupt_test(program, work):
    """SIGINT while the input is still coming: the run ends there, as well as at its end: every output
    in place, a whole capture holding what was forwarded."""
    inputs, outputs = traffic()
    fifo = os.path.join(work, "up.fifo")
    os.mkfifo(fifo)
    out = os.path.join(work, "interrupted")
    proc = subprocess.Popen([program, "--config", os.path.join(work, "pe.conf"), "--in", "up=" + fifo, "--out", out],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        with open(fifo, "wb") as pipe:
            pipe.write(capture(inputs["up"]))
            pipe.flush()
            deadline = time.monotonic() + WAIT
            while not handler_installed(proc.pid, signal.SIGINT) and time.monotonic() < deadline:
                time.sleep(0.01)
            proc.send_signal(signal.SIGINT)
        stdout, stderr = proc.communicate(timeout=WAIT)
    finally:
        if proc.poll() is None:
            proc.kill()
    check(proc.returncode == 0 and stdout.startswith("Interrupted.\n"), "interrupted: %d %r" % (proc.returncode, stderr))
    check(listing(out) == [p + ".pcap" for p in sorted(PORTS)], "interrupted run's outputs: %s" % listing(out))
    ports, _ = counter_rows(stdout)
    for port in PORTS:
        got = f.pcap_read(os.path.join(out, port + ".pcap"))
        check(got == [r[1] for r in outputs[port]][:len(got)] and len(got) == ports[port][2],
              "interrupted %s.pcap: %d frames, %d sent" % (port, len(got), ports[port][2]))


def options_test(program, work):
    """Options about files and interfaces: refusals name both places; a port without a capture is told."""
    folder = os.path.join(work, "inle0")
    for argv, message in [
            (["--in", "a=x", "--in", "b=y", "--in", "a=z"], "--in a=z: port a is given twice: here and in --in a=x"),
            (["--port", "up=x", "--port", "up=y"], "--port up=y: port up is given twice: here and in --port up=x"),
            (["--port", "up=x", "--port", "a=x"], "--port a=x: interface x is given twice: here and in --port up=x"),
            (["--in", os.path.join(folder, "a.pcap")],
             "--in %s/a.pcap: not a directory (one port's capture: --in PORT=FILE)" % folder),
            (["--config", work], "%s: is a directory" % work),
            (["--in", folder, "--in", "c=x"], "no port named c in %s/pe.conf" % work)]:
        result = pe(program, work, *argv)
        check((result.returncode, result.stdout, result.stderr) == (2, "", "corvex-pe: %s\n" % message),
              "%s: %d %r" % (argv, result.returncode, result.stderr))
    partial = os.path.join(work, "partial")
    os.mkdir(partial)
    shutil.copy(os.path.join(folder, "up.pcap"), partial)
    out = os.path.join(work, "partial-out")
    result = pe(program, work, "--in", partial, "--in", "b=" + os.path.join(folder, "b.pcap"), "--out", out)
    check((result.returncode, result.stderr) == (0, "corvex-pe: warning: %s/a.pcap: no such file: port a receives "
                                                  "nothing\n" % partial), "warning: %r" % result.stderr)
    with open(os.path.join(work, "escape.conf"), "w") as conf:
        conf.write("upstream up\nport ../escaped 0x001\n")
    result = run([program, "--config", os.path.join(work, "escape.conf"), "--in", folder, "--out",
                  os.path.join(work, "escape", "out"), "-q"])
    check(result.returncode == 2 and result.stderr.count("\n") == 1 and "escaped" in result.stderr
          and not os.path.exists(os.path.join(work, "escape", "escaped.pcap")), "escape: %r" % result.stderr)


def files_test(program):
    work = tempfile.mkdtemp(prefix="corvex-pe-io-")
    try:
        with open(os.path.join(work, "pe.conf"), "w") as conf:
            conf.write(CONFIG)
        formats_test(program, work)
        damaged_test(program, work)
        write_errors_test(program, work)
        outputs_test(program, work)
        options_test(program, work)
    finally:
        shutil.rmtree(work)


def live_test(program):
    if os.geteuid() != 0 or not shutil.which("ip"):
        print("SKIPPED: the live test needs root and ip(8) for a network namespace")
        sys.exit(77)
    namespace = "corvex-pe-%d" % os.getpid()
    if run(["ip", "netns", "add", namespace]).returncode != 0:
        print("SKIPPED: this machine allows no network namespace")
        sys.exit(77)
    try:
        # Its own bounded waits end it first.
        result = subprocess.run(["ip", "netns", "exec", namespace, sys.executable, __file__, "live-inside", program],
                                capture_output=True, text=True, timeout=5 * WAIT)
        sys.stdout.write(result.stdout)
        if result.returncode == 77:
            sys.exit(77)
        check(result.returncode == 0, "live test:\n" + result.stdout + result.stderr)
    finally:
        run(["ip", "netns", "delete", namespace])


class Live:
    """corvex-pe forwarding between up0 and a0, the test on their peers up1 and a1."""

    def __init__(self, program, work, *argv, stdin=None):
        self.started = time.monotonic()
        self.pe = subprocess.Popen([program, "--config", os.path.join(work, "pe.conf"), "--port", "up=up0",
                                    "--port", "a=a0", *argv], stdin=stdin,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                   # a terminal given as stdin is the controlling one: Ctrl-C signals
                                   start_new_session=stdin is not None,
                                   preexec_fn=(lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0)) if stdin else None)
        started = self.line()
        check(started and "forwarding between 2 interfaces" in started, "corvex-pe did not start: %r" % started)
        self.sockets, self.offered, self.counts = {}, {"up": 0, "a": 0}, None
        for port in ("up", "a"):
            s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0003))
            s.bind((port + "1", 0))
            self.sockets[port] = s

    def line(self):
        return select.select([self.pe.stderr], [], [], WAIT)[0] and self.pe.stderr.readline()

    def offer(self, port, data):
        """Sends data into port's interface; a frame its receive queue refuses was offered all the same."""
        self.offered[port] += 1
        try:
            self.sockets[port].send(data)
        except OSError as error:
            check(error.errno == 105, "send: %s" % error)  # ENOBUFS: dropped on the way in, and counted there

    def receive(self, port):
        got, deadline = b"", time.monotonic() + WAIT
        while not got and time.monotonic() < deadline:
            self.sockets[port].settimeout(max(deadline - time.monotonic(), 0.001))
            try:
                got, address = self.sockets[port].recvfrom(65536)
            except socket.timeout:
                break
            if address[2] == socket.PACKET_OUTGOING or got[12:14] not in (b"\x88\xb5", b"\x89\x3f", b"\x81\x00"):
                got = b""  # the kernel's own traffic, or the frame going out
        return got

    def progress_until(self, condition):
        """The first progress line whose counts satisfy condition."""
        while True:
            line = self.line()
            check(line, "no progress line")
            m = re.fullmatch(r"corvex-pe: Rx (\d+), Tx (\d+), dropped (\d+), Rx lost (\d+), Tx lost (\d+)\n", line)
            if m:
                counts = dict(zip(["rx", "tx", "dropped", "rx_lost", "tx_lost"], map(int, m.groups())))
                if condition(counts):
                    return counts


def live_inside(program):
    run(["sysctl", "-qw", "net.ipv6.conf.all.disable_ipv6=1", "net.ipv6.conf.default.disable_ipv6=1"])
    for port in ("up", "a"):
        for argv in (["ip", "link", "add", port + "0", "type", "veth", "peer", "name", port + "1"],
                     ["ip", "link", "set", port + "0", "up"], ["ip", "link", "set", port + "1", "up"],
                     # a0 takes no 1000-byte frame: the overload's frames are refused sends.
                     ["ip", "link", "set", port + "0", "mtu", "500" if port == "a" else "1500"]):
            if run(argv).returncode != 0:
                print("SKIPPED: this machine allows no veth pair: " + " ".join(argv))
                sys.exit(77)
    work = tempfile.mkdtemp(prefix="corvex-pe-live-")
    try:
        with open(os.path.join(work, "pe.conf"), "w") as out:
            out.write("upstream up\nport a 0x001\nport b 0x002\n")  # b: no interface
        if run(["ip", "link", "property", "add", "dev", "up0", "altname", "upalt"]).returncode == 0:
            result = run([program, "--config", os.path.join(work, "pe.conf"), "--port", "up=up0", "--port",
                          "a=upalt", "-q"])
            check((result.returncode, result.stderr) == (2, "corvex-pe: up0 and upalt: one interface, given to two "
                                                            "ports\n"), "altname: %r" % result.stderr)
        console_test(program, work)
        generated_test(program, work)
        live = Live(program, work, "-c", "show packet statistics", "-c", "show pe counters", "--every", "1")
        try:
            forwarding(live)
            overload(live)
            time.sleep(max(0, live.started + 1.5 - time.monotonic()))  # one round of the commands at least
            live.pe.send_signal(signal.SIGINT)
            stdout, _ = live.pe.communicate(timeout=WAIT)
        finally:
            if live.pe.poll() is None:
                live.pe.kill()
    finally:
        shutil.rmtree(work)
    check(live.pe.returncode == 0 and "\nInterrupted.\n" in stdout, "after SIGINT: %d\n%s"
          % (live.pe.returncode, stdout))
    ports, _ = counter_rows(stdout[stdout.index("\nInterrupted.\n"):])
    check(ports["up"][0] + ports["a"][0] == live.counts["rx"], "table and progress line differ:\n" + stdout)
    check(re.search(r"^ +0 active$", stdout, re.M), "packets left active:\n" + stdout)
    check(ports["b"][2] == 0 and ports["b"][5] == 1, "a frame for the port without an interface: %s" % ports["b"])
    rounds = re.findall(r"^At (\d+) s:\nPacket Statistics:\n.*?^Port +E-CID +Rx frames ", stdout, re.M | re.S)
    check(rounds and rounds[0] == "1", "no round of the commands while frames flowed:\n" + stdout)


def generated_test(program, work):
    """corvex-gen's frames through corvex-pe as fast as they come: every frame sent is received or
    counted lost, every frame received is sent upstream or counted, and what it sent arrives."""
    live = Live(program, work, "-q")
    try:
        arrived = int(open("/sys/class/net/up1/statistics/rx_packets").read())
        gen = run([os.path.join(os.path.dirname(program), "corvex-gen"), "-i", "a1", "--frames", "20000"])
        check(gen.returncode == 0 and gen.stdout.startswith("a1: sent 20000 frames, "), "corvex-gen: %r %r"
              % (gen.stdout, gen.stderr))
        time.sleep(0.2)  # the rings hand their last blocks over
        live.pe.send_signal(signal.SIGINT)
        stdout, _ = live.pe.communicate(timeout=WAIT)
        arrived = int(open("/sys/class/net/up1/statistics/rx_packets").read()) - arrived
    finally:
        if live.pe.poll() is None:
            live.pe.kill()
    ports, _ = counter_rows(stdout)
    up, a = ports["up"], ports["a"]  # rx frames, rx bytes, tx frames, tx bytes, rx lost, tx lost, ..., dropped
    check(a[0] + a[4] == 20000 and a[0] == up[2] + up[5] + a[8] and up[2] == arrived,
          "20000 frames sent, %d arrived:\n%s" % (arrived, stdout))


def prompts_wait(pe, shown, count):
    """What pe shows on its standard output once it has shown its prompt count times."""
    deadline = time.monotonic() + WAIT
    while shown.count(b"corvex-pe> ") < count and time.monotonic() < deadline:
        if select.select([pe.stdout], [], [], 0.1)[0]:
            shown += os.read(pe.stdout.fileno(), 4096)
    return shown


def console_test(program, work):
    """At the console's prompt while frames flow: Ctrl-C clearing the line, the host's commands beside
    the library's, and quit ending the traffic."""
    terminal, console = pty.openpty()
    live = Live(program, work, "-q", stdin=console)
    os.close(console)
    try:
        upward = f.frame(BRIDGE, HOST, f.payload(2, 60))
        live.offer("a", upward)
        check(live.receive("up") == tagged(upward, f.etag(0x001)), "no frame forwarded at the prompt")
        shown = prompts_wait(live.pe, b"", 1)
        os.write(terminal, b"show pe cou\x03")  # Ctrl-C: the line cleared, the traffic goes on
        shown = prompts_wait(live.pe, shown, 2)
        check(shown.count(b"corvex-pe> ") == 2 and live.pe.poll() is None,
              "Ctrl-C at the prompt: %r, status %s" % (shown, live.pe.poll()))
        os.write(terminal, b"show pe config\nshow pe counters\nclear pe counters\nshow pe counters\n"
                           b"show heap 0 sanity\nquit\n")
        stdout, stderr = live.pe.communicate(timeout=WAIT)
        stdout = shown.decode() + stdout
    finally:
        if live.pe.poll() is None:
            live.pe.kill()
        os.close(terminal)
    check(live.pe.returncode == 0 and stderr == "", "after quit: %d\n%s" % (live.pe.returncode, stderr))
    config = ("Port                                E-CID Priority  VLAN             Interface\n"
              "up                               upstream        -  -                up0\n"
              "a                                   0x001        0  -                a0\n"
              "b                                   0x002        0  -                -\n")
    check(config in stdout, "show pe config:\n" + stdout)
    a_rows = re.findall(r"^a +0x001 +(\d+) +\d+ +\d+ ", stdout, re.M)
    # The line Ctrl-C cleared ("show pe cou") ran no command: three tables only.
    check(a_rows == ["1", "0", "0"], "port a's Rx frames before and after clear, and at exit: %s\n%s"
          % (a_rows, stdout))
    check("PE counters cleared\n" in stdout and "passed Heap block sanity check" in stdout, "console:\n" + stdout)


def forwarding(live):
    """A frame each way, and a VLAN-tagged one, whose tag the kernel keeps beside the frame; one for the
    port without an interface, which goes nowhere and is counted so."""
    down = f.frame(HOST, BRIDGE, f.etag(0x001), f.payload(1, 60))
    upward = f.frame(BRIDGE, HOST, f.payload(2, 60))
    vlan = f.frame(BRIDGE, HOST, f.vlan(9), f.payload(3, 60))
    for port, data, out_port, want in [("up", down, "a", untag(down, 8)),
                                       ("a", upward, "up", tagged(upward, f.etag(0x001))),
                                       ("a", vlan, "up", tagged(vlan, f.etag(0x001)))]:
        live.offer(port, data)
        got = live.receive(out_port)
        check(got == want, "live %s -> %s: %s, expected %s" % (port, out_port, got.hex(), want.hex()))
    live.offer("up", f.frame(HOST, BRIDGE, f.etag(0x002), f.payload(5, 60)))


def overload(live):
    """With the program stopped, more frames than its ring holds: after it resumes, every frame offered
    is received or counted lost, and every frame received is sent, dropped or counted lost: a0 refuses
    them all (its MTU), the three frames before went out."""
    live.pe.send_signal(signal.SIGSTOP)
    frame = f.frame(HOST, BRIDGE, f.etag(0x001), f.payload(4, 1000))
    for _ in range(8000):
        live.offer("up", frame)
    live.pe.send_signal(signal.SIGCONT)
    offered = live.offered["up"] + live.offered["a"]
    live.counts = live.progress_until(lambda c: c["rx"] + c["rx_lost"] == offered)
    c = live.counts
    check(c["rx_lost"] > 0, "nothing lost: the ring took %d frames" % c["rx"])
    check(c["rx"] == c["tx"] + c["tx_lost"] + c["dropped"] and c["tx"] == 3, "received %s" % c)


if __name__ == "__main__":
    mode = sys.argv[1]
    {"files": lambda: files_test(sys.argv[2]), "live": lambda: live_test(sys.argv[2]),
     "live-inside": lambda: live_inside(sys.argv[2])}[mode]()
    print("passed")
