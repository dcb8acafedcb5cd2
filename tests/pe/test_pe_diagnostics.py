#!/usr/bin/env python3
"""corvex-pe's diagnostics on the shipped sample: the trace parsed, its slices nested and naming the
run's phases; every dropped frame read back by tshark with its reason and number as the comment;
the counters as JSON equal to the table; the heap maps valid SVG; the accounting report's call
sites named; no output over an input, none left half written.

  test_pe_diagnostics.py CORVEX_PE
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree


def check(condition, what):
    if not condition:
        sys.exit("FAILED: " + what)


def run(argv):
    return subprocess.run(argv, capture_output=True, text=True, timeout=120)


def trace_check(path):
    events = json.load(open(path))["traceEvents"]
    slices = [e for e in events if e["ph"] == "X"]
    check(not [e for e in events if e["ph"] == "i"], "unmatched marks in a run that ended well: %s" % events)
    for a in slices:
        for b in slices:
            a_end, b_end = a["ts"] + a["dur"], b["ts"] + b["dur"]
            nested = a_end <= b["ts"] or b_end <= a["ts"] or (a["ts"] <= b["ts"] and b_end <= a_end) or (
                b["ts"] <= a["ts"] and a_end <= b_end)
            check(nested, "slices %s and %s overlap without nesting" % (a, b))
    names = [e["name"] for e in slices]
    check(names == ["start-up", "configuration", "forwarding", "forwarding batch", "commands", "heap check"],
          "phases: %s" % names)
    forwarding, batch = slices[2], slices[3]
    check(forwarding["ts"] <= batch["ts"] and batch["ts"] + batch["dur"] <= forwarding["ts"] + forwarding["dur"],
          "the batch lies inside the forwarding")


def table_of(stdout):
    """The counter table's rows by port, and the drops by reason."""
    rows = [line.split() for line in stdout.splitlines() if len(line.split()) == 12 and line.split()[2].isdigit()]
    reasons = dict((m.group(1), int(m.group(2))) for m in re.finditer(r"(?m)^  (\S.*?) +(\d+)$", stdout))
    return {row[0]: [int(v) for v in row[2:]] for row in rows}, reasons


def main(program):
    work = tempfile.mkdtemp(prefix="corvex-pe-diag-")
    try:
        out = {name: os.path.join(work, name) for name in ("trace.json", "drops.pcapng", "counters.json", "maps")}
        result = run([program, "-q", "--out", os.path.join(work, "out"), "--trace", out["trace.json"], "--drops",
                      out["drops.pcapng"], "--counters", out["counters.json"], "--heap-map", out["maps"], "--leaks",
                      "-c", "show heap 0 accounting pc"])
        check(result.returncode == 0 and result.stderr == "", "run: %d %s" % (result.returncode, result.stderr))
        trace_check(out["trace.json"])

        ports, reasons = table_of(result.stdout)
        counters = json.load(open(out["counters.json"]))
        fields = ["rx_frames", "rx_bytes", "tx_frames", "tx_bytes", "rx_lost", "tx_lost", "lldp", "lldp_pe", "dropped",
                  "pruned"]
        check({p["name"]: [p[f] for f in fields] for p in counters["ports"]} == ports, "counters: %s" % counters)
        check(counters["dropped_by_reason"] == reasons, "drops by reason: %s" % counters)

        shown = run(["tshark", "-r", out["drops.pcapng"], "-T", "fields", "-e", "frame.interface_name", "-e",
                     "frame.comment"])
        check(shown.returncode == 0, "tshark: " + shown.stderr)
        drops = [line.split("\t") for line in shown.stdout.splitlines()]
        check(sorted(p for p, _ in drops) == sorted(p for p, row in ports.items() for _ in range(row[8])),
              "dropped frames by port: %s" % drops)
        said = [re.fullmatch(r"(.*): frame (\d+) of its input", comment) for _, comment in drops]
        check(all(said) and sum(1 for _ in said) == sum(reasons.values()), "comments: %s" % drops)
        check({r: sum(1 for m in said if m.group(1) == r) for r in reasons} == reasons, "reasons: %s" % drops)

        maps = sorted(os.listdir(out["maps"]))
        check(maps == ["heap-0-bcm_sdk.svg", "heap-1-io_mem.svg", "heap-2-dma_desc.svg", "heap-3-packet_buffers.svg"],
              "maps: %s" % maps)
        for name in maps:
            blocks = ElementTree.parse(os.path.join(out["maps"], name)).getroot().iter("{http://www.w3.org/2000/svg}g")
            check([g for g in blocks if g.get("class", "").startswith("block")], name + ": no block")
        check(re.search(r"(?m)^   [0-9a-f]+ +1 +224  pe_config_read\+0x[0-9a-f]+(  apps/corvex-pe/pe_config\.cpp:\d+)?$",
                        result.stdout), "the accounting report's call sites:\n" + result.stdout)
        check("Blocks allocated since start-up and not given back, by call site:\n  none\n" in result.stdout, "leaks")

        # An output over an input, or in a folder that is missing, is refused before the traffic, and
        # no file is left behind.
        config = os.path.join(work, "pe.conf")
        shutil.copy(os.path.join(os.path.dirname(program), "..", "share", "corvex-pe", "corvex-pe.conf"), config)
        for argv, message in [(["--config", config, "--trace", config], config + ": would overwrite the input " + config),
                              (["--counters", os.path.join(work, "none", "c.json")],
                               os.path.join(work, "none", "c.json") + ": No such file or directory")]:
            before = sorted(os.listdir(work))
            result = run([program, "-q", "--out", os.path.join(work, "out")] + argv)
            check(result.returncode == 2 and result.stderr == "corvex-pe: %s\n" % message,
                  "%s: %d %r" % (argv, result.returncode, result.stderr))
            check(sorted(os.listdir(work)) == before, "files left: %s" % os.listdir(work))
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main(sys.argv[1])
    print("passed")
