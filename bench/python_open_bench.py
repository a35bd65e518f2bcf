#!/usr/bin/python3
"""How fast dtl_data reads a large data file.

usage: python_open_bench.py BIN_DIR [--megabytes N] [--runs N]

Streams hft-sim (whole samples per datagram) into dtl-host from BIN_DIR until
a data file of about N MB (default 100) exists, then times, best of --runs:
opening the file (header, schema, memory map, end of data), selecting a one
second window with every counter, the rates of one counter over the whole
file, and the pandas frame of the whole file. The file is in the page cache
by then, so the figures are the reader's own cost, not the disk's.
"""
import argparse
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), os.pardir, "python"))
from dtl_data import DataFile  # noqa: E402

INTERFACES, COUNTERS = 64, "in-octets,out-octets,in-packets,out-packets,in-discards,out-errors"
START_S, INTERVAL_US = 1700000000, 100


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(check, seconds, what):
    deadline = time.monotonic() + seconds
    while not check():
        if time.monotonic() > deadline:
            sys.exit(f"python_open_bench: timed out waiting for {what}")
        time.sleep(0.05)


def make_file(bin_dir, directory, megabytes):
    block = 16 + 8 * INTERFACES * len(COUNTERS.split(","))
    samples = megabytes * 1_000_000 // block
    port, root, log = free_port(), os.path.join(directory, "data"), os.path.join(directory, "host.log")
    with open(log, "wb") as out:
        host = subprocess.Popen([os.path.join(bin_dir, "dtl-host"), "-o", f"ipfix-receiver-port={port}",
                                 "-o", f"ipfix-data-path={root}", "-o", "ipfix-receiver-workers=2",
                                 "--duration", "300"], stdout=out, stderr=subprocess.STDOUT)
    try:
        wait_for(lambda: "dtl-host: running" in open(log, errors="replace").read(), 30, "dtl-host")
        subprocess.run([os.path.join(bin_dir, "hft-sim"), "--target", f"127.0.0.1:{port}",
                        "--start-time", str(START_S), "--announce-period", "0", "--datagram", "sample",
                        "--samples", str(samples), "--rate", "20000", "--interfaces", str(INTERFACES),
                        "--counters", COUNTERS], check=True, timeout=300, stdout=subprocess.DEVNULL)
        time.sleep(1)  # let the receive queue drain; only the size matters here
    finally:
        host.send_signal(signal.SIGTERM)
        host.wait(timeout=60)
    files = [os.path.join(d, n) for d, _s, names in os.walk(root) for n in names if n.endswith(".bin")]
    return max(files, key=os.path.getsize)


def best(runs, action):
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        action()
        times.append(time.perf_counter() - start)
    return min(times)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[1])
    p.add_argument("bin_dir")
    p.add_argument("--megabytes", type=int, default=100)
    p.add_argument("--runs", type=int, default=5)
    args = p.parse_args()
    directory = tempfile.mkdtemp(prefix="dtl_open_bench_")
    try:
        path = make_file(args.bin_dir, directory, args.megabytes)
        f = DataFile(path)
        first = f.first_time_us
        counter = f.counters[0].column
        print(f"file: {os.path.getsize(path) / 1e6:.1f} MB, {f.block_count} blocks of "
              f"{f.header.block_size} bytes, {len(f.counters)} counters")
        figures = [
            ("open (header, schema, map, end of data)", lambda: DataFile(path)),
            ("select a 1 s window, all counters", lambda: f.select(first, first + 1_000_000)),
            ("rates of one counter, whole file", lambda: f.rates(counters=f"^{counter}$")),
            ("pandas frame, whole file", lambda: f.frame()),
        ]
        for label, action in figures:
            print(f"{label:45s} {best(args.runs, action) * 1e3:10.3f} ms (best of {args.runs})")
    finally:
        shutil.rmtree(directory, ignore_errors=True)


if __name__ == "__main__":
    main()
