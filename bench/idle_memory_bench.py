#!/usr/bin/env python3
"""What the collector costs when nothing happens, and what it holds in memory.

For each build given (a build folder with bin/dtl-host, bin/hft-sim and the
plug-in), runs dtl-host with default options and a data root, then reports:
  - CPU seconds used over an idle spell (no datagram at all), as a share of
    one core;
  - resident memory (VmRSS) at idle, before any session;
  - resident memory while N more exporters of hft-sim stream into it, for
    each N asked for, and the increase over idle per session held (sessions
    of earlier stages are still held: they last until the session timeout).
With --recv-bench it also runs that build's bin/ipfix-recv-bench (floor and
store sides) and prints its median store/floor CPU ratio beside the rest.

    bench/idle_memory_bench.py build-bench [OTHER_BUILD ...] [--idle-seconds 10]
"""

import argparse
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

CLOCK_TICKS = os.sysconf("SC_CLK_TCK")


def free_udp_port():
    with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as s:
        s.bind(("::", 0))
        return s.getsockname()[1]


def cpu_seconds(pid):
    """User plus system time of the whole process (every thread)."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS


def rss_mib(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024.0
    return float("nan")


def wait_for(condition, limit, what):
    deadline = time.monotonic() + limit
    while not condition():
        if time.monotonic() > deadline:
            raise RuntimeError("timed out waiting for " + what)
        time.sleep(0.05)


def udp_port_bound(port):
    suffix = ":%04X" % port
    for table in ("/proc/net/udp6", "/proc/net/udp"):
        try:
            with open(table) as f:
                next(f)  # heading
                if any(line.split()[1].endswith(suffix) for line in f):
                    return True
        except OSError:
            pass
    return False


class Host:
    """dtl-host of one build, with default options and a data root."""

    def __init__(self, build, port, root, log_path):
        self.log = open(log_path, "w")
        self.process = subprocess.Popen(
            [os.path.join(build, "bin", "dtl-host"), "-o", "ipfix-receiver-port=%d" % port,
             "-o", "ipfix-data-path=%s" % root],
            stdin=subprocess.DEVNULL, stdout=self.log, stderr=subprocess.STDOUT,
            env=dict(os.environ, DTL_API_LOG_LEVEL="4"))
        wait_for(lambda: udp_port_bound(port) or self.process.poll() is not None, 30, "dtl-host to bind")
        if self.process.poll() is not None:
            raise RuntimeError("dtl-host exited with %s (log %s)" % (self.process.returncode, log_path))

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
            try:
                self.process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.log.close()


def measure(build, args):
    work = tempfile.mkdtemp(prefix="dtl_idle_bench_", dir=args.data_dir)
    port = free_udp_port()
    result = {"build": build}
    host = Host(build, port, os.path.join(work, "root"), os.path.join(work, "host.log"))
    try:
        pid = host.process.pid
        time.sleep(args.settle_seconds)
        before = cpu_seconds(pid)
        time.sleep(args.idle_seconds)
        used = cpu_seconds(pid) - before
        result["idle_cpu_pct"] = 100.0 * used / args.idle_seconds
        result["idle_rss"] = rss_mib(pid)
        result["sessions"] = []
        for count in args.sessions:
            # Each exporter is one session (its own source port and domain);
            # sample time starts now so that every run writes new files.
            sim = subprocess.Popen(
                [os.path.join(build, "bin", "hft-sim"), "--target", "127.0.0.1:%d" % port,
                 "--exporters", str(count), "--domain", str(1000 * (count + 1)), "--rate",
                 str(args.sim_rate), "--duration", str(args.stream_seconds + 2)],
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(args.stream_seconds)
            rss = rss_mib(pid)
            sim.send_signal(signal.SIGINT)
            sim.wait(timeout=30)
            result["sessions"].append((count, rss))
    finally:
        host.stop()
        shutil.rmtree(work, ignore_errors=True)
    if args.recv_bench:
        bench = os.path.join(build, "bin", "ipfix-recv-bench")
        out = subprocess.run([bench, "--sinks", "floor,store", "--rate", str(args.recv_rate),
                              "--seconds", "5", "--rounds", str(args.recv_rounds)],
                             capture_output=True, text=True, timeout=1800).stdout
        match = re.search(r"median\s+ratio store/floor rate=\d+ = ([0-9.]+)", out)
        result["floor_ratio"] = float(match.group(1)) if match else float("nan")
    return result


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("builds", nargs="+", help="build folders to measure, in turn")
    parser.add_argument("--idle-seconds", type=float, default=10)
    parser.add_argument("--settle-seconds", type=float, default=2)
    parser.add_argument("--sessions", default="1,16,64", help="exporter counts to stream with")
    parser.add_argument("--sim-rate", type=int, default=200, help="samples/s per exporter")
    parser.add_argument("--stream-seconds", type=float, default=5)
    parser.add_argument("--data-dir", default=None, help="where the data roots go (default /tmp)")
    parser.add_argument("--recv-bench", action="store_true", help="also the store/floor CPU ratio")
    parser.add_argument("--recv-rate", type=int, default=300000)
    parser.add_argument("--recv-rounds", type=int, default=4)
    args = parser.parse_args(argv)
    args.sessions = [int(n) for n in args.sessions.split(",") if n]

    results = [measure(os.path.abspath(b), args) for b in args.builds]
    print("%-28s %10s %10s %s%s" % ("build", "idle CPU", "idle RSS",
                                    " ".join("%16s" % ("RSS %d sess" % n) for n in args.sessions),
                                    "  store/floor" if args.recv_bench else ""))
    for r in results:
        cells = []
        # Sessions outlive their exporter (until the session timeout), so
        # each stage adds to those of the stages before.
        sessions = 0
        for count, rss in r["sessions"]:
            sessions += count
            cells.append("%16s" % ("%.1f MiB (+%.2f)" % (rss, (rss - r["idle_rss"]) / sessions)))
        line = "%-28s %9.2f%% %6.1f MiB %s" % (os.path.relpath(r["build"]), r["idle_cpu_pct"], r["idle_rss"],
                                               " ".join(cells))
        if args.recv_bench:
            line += "  %.3f" % r["floor_ratio"]
        print(line)
    print("(idle CPU: share of one core over %.0f s without datagrams; RSS N sess: resident memory "
          "while N exporters stream, in brackets the increase per session in MiB)" % args.idle_seconds)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
