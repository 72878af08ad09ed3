#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reads the raw results of peer-bench.sh in OUT/raw and prints one table of medians, with
the agent's ratios to redsocks and to direct. Writes the table to OUT/table.md too.

    peer_report.py OUT
"""
import json
import os
import re
import statistics
import sys

UNITS = {"us": 1e-3, "ms": 1.0, "s": 1e3, "m": 60e3}


def wrk_figures(path):
    """Requests per second, p50 and p99 in ms, errors, from one wrk --latency output."""
    text = open(path).read()
    rate = re.search(r"Requests/sec:\s+([\d.]+)", text)
    p50 = re.search(r"^\s+50%\s+([\d.]+)(us|ms|s|m)\b", text, re.M)
    p99 = re.search(r"^\s+99%\s+([\d.]+)(us|ms|s|m)\b", text, re.M)
    errors = re.search(r"Socket errors: connect (\d+), read (\d+), write (\d+), timeout (\d+)", text)
    non2xx = re.search(r"Non-2xx or 3xx responses: (\d+)", text)
    if not rate or not p50 or not p99:
        return None
    failed = sum(int(x) for x in errors.groups()) if errors else 0
    failed += int(non2xx.group(1)) if non2xx else 0
    return {
        "rate": float(rate.group(1)),
        "p50": float(p50.group(1)) * UNITS[p50.group(2)],
        "p99": float(p99.group(1)) * UNITS[p99.group(2)],
        "errors": failed,
    }


def bulk_figures(path):
    """Gbit/s and bytes received, from one iperf3 -J output."""
    try:
        data = json.load(open(path))
        received = data["end"]["sum_received"]
        return {"gbps": received["bits_per_second"] / 1e9, "bytes": received["bytes"]}
    except (ValueError, KeyError, OSError):
        return None


def main():
    out = sys.argv[1]
    raw = os.path.join(out, "raw")
    ticks = os.sysconf("SC_CLK_TCK")
    samples = {}  # (setup, figure) -> list of values

    def add(setup, figure, value):
        samples.setdefault((setup, figure), []).append(value)

    setups = open(os.path.join(raw, "setups")).read().split()
    for line in open(os.path.join(raw, "cpu.txt")):
        setup, kind, rnd, relay, _gateway = line.split()
        bulk = bulk_figures(os.path.join(raw, "%s-%s-%s.json" % (setup, kind, rnd)))
        if not bulk:
            continue
        add(setup, kind + " Gbit/s", bulk["gbps"])
        if relay != "-" and bulk["bytes"] > 0:
            add(setup, kind + " relay CPU s/GB", int(relay) / ticks / (bulk["bytes"] / 1e9))
    for name in sorted(os.listdir(raw)):
        match = re.match(r"(\w+)-(keepalive|per-request)-(\d+)-(\d+)\.txt$", name)
        if not match:
            continue
        setup, kind, clients = match.group(1), match.group(2), match.group(3)
        figures = wrk_figures(os.path.join(raw, name))
        if not figures:
            continue
        label = "%s, %s client%s" % (kind, clients, "" if clients == "1" else "s")
        add(setup, label + ": req/s", figures["rate"])
        add(setup, label + ": p50 ms", figures["p50"])
        add(setup, label + ": p99 ms", figures["p99"])
        add(setup, label + ": failed", figures["errors"])
    for line in open(os.path.join(raw, "memory.txt")):
        setup, _rnd, held, before, after = line.split()
        if int(held) > 0:
            add(setup, "memory per held connection KiB", (int(after) - int(before)) / int(held))

    order = ["bulk-up Gbit/s", "bulk-down Gbit/s", "bulk-up relay CPU s/GB",
             "bulk-down relay CPU s/GB"]
    for kind in ("per-request", "keepalive"):
        for clients in ("50 clients", "1 client"):
            for what in ("req/s", "p50 ms", "p99 ms", "failed"):
                order.append("%s, %s: %s" % (kind, clients, what))
    order.append("memory per held connection KiB")

    def median(setup, figure):
        values = samples.get((setup, figure))
        return statistics.median(values) if values else None

    def show(value):
        if value is None:
            return "-"
        return "%.0f" % value if abs(value) >= 100 else "%.3g" % value

    agents = [s for s in setups if s in ("agent", "base")]
    head = ["figure"] + setups + ["%s/redsocks" % a for a in agents] + ["%s/direct" % a for a in agents]
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    for figure in order:
        row = [figure] + [show(median(s, figure)) for s in setups]
        for peer in ("redsocks", "direct"):
            for agent in agents:
                a, p = median(agent, figure), median(peer, figure)
                row.append("%.2f" % (a / p) if a is not None and p else "-")
        lines.append("| " + " | ".join(row) + " |")
    table = "\n".join(lines)
    load = open(os.path.join(raw, "load.txt")).read().strip()
    text = "%s\n\nMedians of every run; raw results in %s.\nLoad during the run:\n%s\n" % (
        table, raw, load)
    print(text)
    with open(os.path.join(out, "table.md"), "w") as handle:
        handle.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
