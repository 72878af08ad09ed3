#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The soak run's conductor, started by tests/soak/soak.sh in the host's namespace once the
world stands: runs the clients (soak_peers.py load) in the laptop namespace, injects the
faults on a schedule, samples the agent every second, and judges. Writes summary.txt,
samples.csv, faults.json and plot.svg into OUT; exit status 0 when every check held.

    soak_drive.py CONFIG_JSON

CONFIG_JSON names: agent_pid, client_ns, inet_ns, work, out, duration, warmup, workers,
burst, burst_every, gateway_cmd (list), config (the agent's SWGConfig.json), peers (path of
soak_peers.py), agent_log, settle_s, fd_slack, thread_slack, rss_slack_kib.
"""
import json
import os
import signal
import statistics
import subprocess
import sys
import threading
import time

GRACE_S = 3  # after a fault window, for the agent to see that the fault has gone
# Faults that replace the diversion rules. The kernel then drops the address translation of
# diverted connections in flight: the agent sees a reset and ends the job, but nothing it
# sends reaches the client any more, whose connection waits until the client gives up.
RULES_REPLACED = ("table-deleted", "config-valid", "config-broken")


class Agent:
    def __init__(self, pid):
        self.pid = pid
        self.start_ticks = self.stat()[19]
        self.samples = []  # (time, fds, threads, rss KiB, cpu seconds)
        self.lock = threading.Lock()
        self.lost = None

    def stat(self):
        """The fields of /proc/PID/stat after the command name: [0] is the state."""
        with open("/proc/%d/stat" % self.pid) as f:
            return f.read().rsplit(")", 1)[1].split()

    def sample(self):
        try:
            fields = self.stat()
            if fields[19] != self.start_ticks:
                raise OSError("another process has the pid")
            fds = len(os.listdir("/proc/%d/fd" % self.pid))
            status = open("/proc/%d/status" % self.pid).read()
        except OSError as e:
            self.lost = "the agent is gone (%s)" % e
            return None
        values = dict(line.split(":", 1) for line in status.splitlines() if ":" in line)
        cpu = (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
        row = (time.time(), fds, int(values["Threads"]), int(values["VmRSS"].split()[0]), cpu)
        with self.lock:
            self.samples.append(row)
        return row

    def settled(self, seconds):
        """The median of the last SECONDS samples."""
        time.sleep(seconds)
        with self.lock:
            rows = self.samples[-3:]
        return tuple(statistics.median_low(r[i] for r in rows) for i in range(5))


def sampler(agent, stop):
    while not stop.is_set():
        agent.sample()
        stop.wait(1.0)


def in_ns(ns, *command, **kwargs):
    return subprocess.run(["ip", "netns", "exec", ns] + list(command), capture_output=True,
                          text=True, timeout=60, **kwargs)


def wait_ready(path, seconds=10):
    end = time.time() + seconds
    while time.time() < end:
        if os.path.exists(path) and "ready" in open(path).read():
            return True
        time.sleep(0.05)
    return False


def running(pid):
    """False once PID has ended, also while it waits, a zombie, for a parent that is not us."""
    try:
        if os.waitpid(pid, os.WNOHANG)[0] == pid:
            return False
    except ChildProcessError:
        pass
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


def end_process(pid, seconds=10):
    for sig in (signal.SIGTERM, signal.SIGKILL):
        try:
            os.kill(pid, sig)
        except ProcessLookupError:
            return
        end = time.time() + seconds
        while time.time() < end and running(pid):
            time.sleep(0.05)
        if not running(pid):
            return


class Faults:
    """Each fault is applied, held for its window and taken back; the window, from the first
    change to the moment the world is whole again, is what excuses a failed client."""

    def __init__(self, c, agent):
        self.c = c
        self.agent = agent
        self.windows = []  # {"kind", "start", "end", "note"}
        self.gateway_pid = c["gateway_pid"]
        self.starts = 0
        self.problems = []
        self.down_since = None  # when the gateway killed by gateway-down was seen gone

    def table_present(self):
        return in_ns(self.c["client_ns"], "nft", "list", "table", "inet", "tsc_swg").returncode == 0

    def start_gateway(self):
        self.starts += 1
        log = os.path.join(self.c["work"], "gateway-%d.out" % self.starts)
        command = ["ip", "netns", "exec", self.c["inet_ns"]] + self.c["gateway_cmd"] + [
            "--log", os.path.join(self.c["work"], "gateway-%d.log" % self.starts)]
        self.gateway_pid = subprocess.Popen(command, stdout=open(log, "w"), stderr=subprocess.STDOUT).pid
        if not wait_ready(log):
            self.problems.append("the gateway did not come back")

    def gateway_down(self, seconds):
        end_process(self.gateway_pid)
        self.down_since = time.time()
        time.sleep(seconds)
        self.start_gateway()
        return "killed and restarted"

    def gateway_bad(self, mode, seconds):
        end_process(self.gateway_pid)
        log = os.path.join(self.c["work"], "badgw-%s.out" % mode)
        bad = subprocess.Popen(["ip", "netns", "exec", self.c["inet_ns"], "python3", self.c["peers"],
                                "badgw", mode], stdout=open(log, "w"), stderr=subprocess.STDOUT)
        wait_ready(log)
        time.sleep(seconds)
        end_process(bad.pid)
        self.start_gateway()
        return "gateway %s for %d s" % (mode, seconds)

    def resolver_silent(self, seconds):
        flag = os.path.join(self.c["work"], "dns-silent")
        open(flag, "w").close()
        time.sleep(seconds)
        os.unlink(flag)
        return "no answers for %d s" % seconds

    def table_deleted(self, _):
        deleted = in_ns(self.c["client_ns"], "nft", "delete", "table", "inet", "tsc_swg")
        if deleted.returncode != 0:
            return "refused: " + deleted.stderr.strip()[:60]
        end = time.time() + 30
        while time.time() < end and not self.table_present():
            time.sleep(0.1)
        if not self.table_present():
            self.problems.append("the deleted table was not rebuilt within 30 s")
        time.sleep(1)  # the table's sets and the IPv4 rule follow the table
        return "deleted, back after %.1f s" % (30 - (end - time.time()))

    def rewrite_config(self, broken):
        path = self.c["config"]
        if "config_text" not in self.c:
            with open(path) as f:
                self.c["config_text"] = f.read()
        config = json.loads(self.c["config_text"])
        ports = config["orgConfig"]["webTrafficMonitorPorts"]
        config["orgConfig"]["webTrafficMonitorPorts"] = [] if ports else ["8080"]
        text = json.dumps(config, indent=2)
        if not broken:
            self.c["config_text"] = text
        else:
            text = text[:len(text) // 2]
        with open(path + ".new", "w") as f:
            f.write(text)
        os.chmod(path + ".new", 0o644)
        os.rename(path + ".new", path)

    def config_valid(self, seconds):
        self.rewrite_config(False)
        time.sleep(seconds)  # the monitor's quiet period and the redirector's restart
        return "monitored ports changed"

    def config_broken(self, seconds):
        self.rewrite_config(True)
        time.sleep(seconds)
        self.rewrite_config(False)
        time.sleep(seconds)
        return "cut in half, then whole again"

    def sigpipe(self, _):
        os.kill(self.agent.pid, signal.SIGPIPE)
        return "sent"

    def schedule(self):
        return [
            ("gateway-down", self.gateway_down, 6),
            ("sigpipe", self.sigpipe, 0),
            ("resolver-silent", self.resolver_silent, 12),
            ("gateway-silent", lambda s: self.gateway_bad("silent", s), 6),
            ("table-deleted", self.table_deleted, 0),
            ("config-valid", self.config_valid, 8),
            ("gateway-reset", lambda s: self.gateway_bad("reset", s), 6),
            ("config-broken", self.config_broken, 6),
            ("gateway-halfclose", lambda s: self.gateway_bad("halfclose", s), 6),
        ]

    def run(self, until, gap):
        steps = self.schedule()
        i = 0
        time.sleep(gap)
        while time.time() + 12 < until and not self.agent.lost:
            kind, action, seconds = steps[i % len(steps)]
            start = time.time()
            self.down_since = None
            note = action(seconds)
            # A fault that needs no window (SIGPIPE is ignored) excuses nobody.
            end = time.time() if seconds or kind == "table-deleted" else start
            self.windows.append({"kind": kind, "start": start, "end": end, "note": note,
                                 "down": self.down_since})
            i += 1
            time.sleep(gap)


def excused(record, windows):
    """A failed client is excused by a window it overlapped, but not by a gateway that was
    already down when it started: with fail open that connection goes direct and must arrive."""
    for w in windows:
        if w["end"] <= w["start"] or not (record["s"] < w["end"] + GRACE_S and record["e"] > w["start"]):
            continue
        if w["down"] is not None and record["s"] > w["down"] + 0.5:
            continue
        return True
    return False


def read_results(path):
    with open(path) as f:
        return [json.loads(line) for line in f if line.strip()]


def run_load(c, name, seconds, burst):
    results = os.path.join(c["work"], name + ".jsonl")
    command = ["ip", "netns", "exec", c["client_ns"], "python3", c["peers"], "load", results,
               str(seconds), str(c["workers"]), str(burst), str(c["burst_every"]), str(os.getpid())]
    process = subprocess.Popen(command, stderr=open(os.path.join(c["work"], name + ".err"), "w"))
    return process, results


def plot(path, samples, windows, t0):
    """Descriptors, threads and resident memory over time, fault windows shaded."""
    width, height, left, top = 720, 150, 60, 24
    series = [("descriptors", 1, 1, "#1f5fa8"), ("threads", 2, 1, "#2e8b57"),
              ("resident memory (MiB)", 3, 1 / 1024, "#b8860b")]
    span = max(1.0, samples[-1][0] - t0)
    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" font-family="sans-serif" '
           'font-size="11">' % (width + left + 20, len(series) * (height + top + 16) + 20)]
    for n, (title, column, scale, colour) in enumerate(series):
        y0 = n * (height + top + 16) + top
        values = [s[column] * scale for s in samples]
        low, high = min(values), max(values)
        high = high if high > low else low + 1
        out.append('<text x="%d" y="%d">%s: %.0f to %.0f</text>' % (left, y0 - 6, title, low, high))
        out.append('<rect x="%d" y="%d" width="%d" height="%d" fill="none" stroke="#999"/>' % (left, y0, width, height))
        for w in windows:
            x = left + (w["start"] - t0) / span * width
            wide = max(1.0, (w["end"] - w["start"]) / span * width)
            out.append('<rect x="%.1f" y="%d" width="%.1f" height="%d" fill="#f4c7c3" opacity="0.6"/>' %
                       (x, y0, wide, height))
        points = " ".join("%.1f,%.1f" % (left + (s[0] - t0) / span * width,
                                         y0 + height - (v - low) / (high - low) * height)
                          for s, v in zip(samples, values))
        out.append('<polyline fill="none" stroke="%s" stroke-width="1.2" points="%s"/>' % (colour, points))
        out.append('<text x="%d" y="%d" text-anchor="end">%.0f</text>' % (left - 4, y0 + 10, high))
        out.append('<text x="%d" y="%d" text-anchor="end">%.0f</text>' % (left - 4, y0 + height, low))
    out.append('<text x="%d" y="%d">seconds 0 to %.0f; shaded: fault windows</text>' %
               (left, len(series) * (height + top + 16) + 10, span))
    out.append("</svg>")
    with open(path, "w") as f:
        f.write("\n".join(out) + "\n")


def main():
    c = json.load(open(sys.argv[1]))
    agent = Agent(c["agent_pid"])
    stop = threading.Event()
    threading.Thread(target=sampler, args=(agent, stop), daemon=True).start()
    t0 = time.time()
    failures = []

    # Warm-up: the same mix with one burst, no faults; then the level everything must return to.
    process, warm_path = run_load(c, "warmup", c["warmup"], c["burst"])
    process.wait(timeout=c["warmup"] + 60)
    base = agent.settled(c["settle_s"])
    if not c["rss_slack_kib"]:
        c["rss_slack_kib"] = max(32768, base[3] // 4)

    # The run itself, faults on their schedule beside it.
    main_start = time.time()
    process, results_path = run_load(c, "load", c["duration"], c["burst"])
    faults = Faults(c, agent)
    # A short run meets each fault once; a long one leaves clean stretches between them, in
    # which every client that must be answered is held to it.
    gap = 3 if c["duration"] <= 300 else 20
    fault_thread = threading.Thread(target=faults.run, args=(main_start + c["duration"], gap))
    fault_thread.start()
    fault_thread.join()
    try:
        process.wait(timeout=max(1, main_start + c["duration"] + 45 - time.time()))
    except subprocess.TimeoutExpired:
        process.kill()
        failures.append("the clients did not finish within 45 s of the end of the load")
    load_end = time.time()

    # After the load: descriptors and threads back within the settle time, memory near the base.
    settle_end = load_end + c["settle_s"] + 10
    final = agent.sample()
    while final and time.time() < settle_end and (final[1] > base[1] + c["fd_slack"] or
                                                  final[2] > base[2] + c["thread_slack"]):
        time.sleep(1)
        final = agent.sample()
    settle_s = time.time() - load_end
    if final:
        time.sleep(2)
        final = agent.sample() or final
    stop.set()

    records = read_results(warm_path) + read_results(results_path)
    windows = faults.windows
    lost = [r for r in records if r["m"] and r["x"] and not excused(r, windows)]
    hangs = [r for r in records if r["x"] and "hang" in r["x"] and not excused(
        r, [w for w in windows if w["kind"] in RULES_REPLACED])]
    if agent.lost:
        failures.append(agent.lost)
    failures += faults.problems
    # A burst can fill the pool's share for jobs before the relay (decision 0016): the pool
    # then closes the oldest such job, which its client sees as a close without a byte. Up
    # to as many such closes as the agent logged are its policy, not a loss.
    log = open(c["agent_log"], errors="replace").read() if os.path.exists(c["agent_log"]) else ""
    pool_closed = log.count("Closed before the relay to keep threads for other clients")
    closed_empty = [r for r in lost if "(0 bytes)" in r["x"]]
    if closed_empty and len(closed_empty) <= pool_closed:
        lost = [r for r in lost if "(0 bytes)" not in r["x"]]
    if lost:
        failures.append("%d clients outside fault windows did not get exactly their bytes" % len(lost))
    if hangs:
        failures.append("%d clients hung (no end within 30 s) outside the windows that replace the rules"
                        % len(hangs))
    if final:
        if final[1] > base[1] + c["fd_slack"]:
            failures.append("descriptors %d, after warm-up %d" % (final[1], base[1]))
        if final[2] > base[2] + c["thread_slack"]:
            failures.append("threads %d, after warm-up %d" % (final[2], base[2]))
        if final[3] > base[3] + c["rss_slack_kib"]:
            failures.append("resident memory %d KiB, after warm-up %d KiB (bound +%d)" %
                            (final[3], base[3], c["rss_slack_kib"]))

    samples = agent.samples
    peak = tuple(max(s[i] for s in samples) for i in range(1, 4))
    by_kind = {}
    lost_ids = {id(r) for r in lost}
    for r in records:
        entry = by_kind.setdefault(r["k"], [0, 0, 0, 0])
        entry[0] += 1
        entry[1] += r["x"] is None
        entry[2] += bool(r["x"]) and id(r) not in lost_ids
        entry[3] += id(r) in lost_ids
    fault_counts = {}
    for w in windows:
        fault_counts[w["kind"]] = fault_counts.get(w["kind"], 0) + 1
    lines = [
        "soak run: %.0f s in all (warm-up %d s, load %d s), %d connections, %d workers, bursts of %d" %
        (load_end - t0, c["warmup"], c["duration"], len(records), c["workers"], c["burst"]),
        "agent pid %d, %s" % (agent.pid, "alive throughout" if not agent.lost else agent.lost),
        "",
        "%-20s %8s %8s %14s %10s" % ("clients", "count", "ok", "failed-allowed", "LOST"),
    ]
    for kind in sorted(by_kind):
        e = by_kind[kind]
        lines.append("%-20s %8d %8d %14d %10d" % (kind, e[0], e[1], e[2], e[3]))
    lines += ["", "faults injected: %d (%s)" % (len(windows), ", ".join(
        "%s %d" % kv for kv in sorted(fault_counts.items())))]
    for w in windows[:12]:
        lines.append("  %6.1f s %-18s %5.1f s  %s" % (w["start"] - t0, w["kind"], w["end"] - w["start"], w["note"]))
    if len(windows) > 12:
        lines.append("  ... %d more in faults.json" % (len(windows) - 12))
    lines += ["", "%-22s %12s %12s %12s" % ("agent", "after warm-up", "peak", "final"),
              "%-22s %12d %12d %12s" % ("descriptors", base[1], peak[0], final[1] if final else "-"),
              "%-22s %12d %12d %12s" % ("threads", base[2], peak[1], final[2] if final else "-"),
              "%-22s %12d %12d %12s" % ("resident memory KiB", base[3], peak[2], final[3] if final else "-"),
              "cpu seconds: %.1f; settled %.1f s after the load; jobs the pool closed before the relay: %d"
              % ((final or samples[-1])[4], settle_s, pool_closed)]
    for r in (lost + [h for h in hangs if h not in lost])[:10]:
        lines.append("LOST %s at %.1f s after %.1f s: %s" % (r["k"], r["s"] - t0, r["e"] - r["s"], r["x"]))
    lines += [""] + ["FAIL: " + f for f in failures]
    lines.append("result: " + ("FAIL" if failures else "PASS"))
    os.makedirs(c["out"], exist_ok=True)
    text = "\n".join(lines) + "\n"
    open(os.path.join(c["out"], "summary.txt"), "w").write(text)
    json.dump(windows, open(os.path.join(c["out"], "faults.json"), "w"), indent=1)
    with open(os.path.join(c["out"], "failed-clients.jsonl"), "w") as f:
        for r in records:
            if r["x"]:
                f.write(json.dumps(dict(r, s=round(r["s"] - t0, 2), e=round(r["e"] - t0, 2),
                                        excused=excused(r, windows))) + "\n")
    with open(os.path.join(c["out"], "samples.csv"), "w") as f:
        f.write("seconds,descriptors,threads,rss_kib,cpu_s\n")
        for s in samples:
            f.write("%.1f,%d,%d,%d,%.2f\n" % (s[0] - t0, s[1], s[2], s[3], s[4]))
    plot(os.path.join(c["out"], "plot.svg"), samples, windows, t0)
    sys.stdout.write(text)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
