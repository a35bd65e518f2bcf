"""Data made by the real programs: hft-sim streams over loopback UDP into
dtl-host storing under a temporary data root; dtl-read reads it back. Sample
i of counter k holds (i + 1) * 1000003 + k * 7919 + (k << 40) + B mod 2^64 at
time START_US + i * INTERVAL_US."""
import glob
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BIN = os.environ.get("DTL_BIN_DIR") or os.path.join(SOURCE_DIR, "build", "bin")
START_S, INTERVAL_US = 1700000000, 100
START_US = START_S * 1_000_000
WRAP_BASE = 2**64 - 10**9  # the first counter wraps after sample 998
RATE = 1000003 * 1e6 / INTERVAL_US  # every counter's rate


def value(i, k, base=0):
    return ((i + 1) * 1000003 + k * 7919 + (k << 40) + base) % 2**64


def program(name):
    path = os.path.join(BIN, name)
    if not os.access(path, os.X_OK):
        raise unittest.SkipTest(f"{path} is not built (set DTL_BIN_DIR)")
    return path


def wait_until(check, seconds, what):
    deadline = time.monotonic() + seconds
    while not check():
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out after {seconds} s waiting for {what}")
        time.sleep(0.02)


def _queued(port):
    """Bytes in the receive queues of the UDP sockets bound to port."""
    total = 0
    for table in ("/proc/net/udp", "/proc/net/udp6"):
        with open(table) as f:
            for fields in (line.split() for line in f.readlines()[1:]):
                if int(fields[1].rsplit(":", 1)[1], 16) == port:
                    total += int(fields[4].split(":")[1], 16)
    return total


def store(test_class, runs, *host_options):
    """In setUpClass: stores runs [(switch, samples, hft-sim args, interfaces,
    counters)] through one dtl-host; sets test_class.dir, .root and .stored."""
    cls = test_class
    cls.dir = tempfile.mkdtemp(prefix="dtl_data_test_")
    cls.addClassCleanup(shutil.rmtree, cls.dir, ignore_errors=True)
    cls.root, log = os.path.join(cls.dir, "data"), os.path.join(cls.dir, "host.log")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    options = [f"ipfix-receiver-port={port}", "ipfix-receiver-workers=2",
               f"ipfix-data-path={cls.root}", *host_options]
    with open(log, "wb") as out:
        host = subprocess.Popen([program("dtl-host"), *[a for o in options for a in ("-o", o)],
                                 "--duration", "120"], stdout=out, stderr=subprocess.STDOUT)
    cls.addClassCleanup(lambda: host.poll() is None and (host.kill(), host.wait(30)))

    def text():
        with open(log, errors="replace") as f:
            return f.read()
    wait_until(lambda: "dtl-host: running" in text() or host.poll() is not None, 30, "dtl-host")
    for switch, samples, extra, interfaces, counters in runs:
        done = subprocess.run(
            [program("hft-sim"), "--target", f"127.0.0.1:{port}", "--start-time", str(START_S),
             "--announce-period", "0", "--samples", str(samples), "--rate", "20000", "--switch-name",
             switch, "--interfaces", str(interfaces), "--counters", counters, *extra],
            capture_output=True, text=True, timeout=60)
        assert done.returncode == 0, done.stderr
    assert host.poll() is None, text()
    wait_until(lambda: _queued(port) == 0, 30, "dtl-host to drain its socket")
    host.send_signal(signal.SIGTERM)
    assert host.wait(timeout=60) == 0, text()
    cls.stored = int(re.search(r"dtl-host: done: .*?(\d+) samples stored", text()).group(1))


def files(root, switch):
    return sorted(glob.glob(os.path.join(root, "*", "*", switch, "*.bin")))


def dtl_read(*args):
    """dtl-read's exit status, heading and rows (lists of cells), standard error."""
    done = subprocess.run([program("dtl-read"), *map(str, args)], capture_output=True, text=True,
                          timeout=60)
    lines = [line.split(",") for line in done.stdout.splitlines()]
    return done.returncode, (lines[0] if lines else []), lines[1:], done.stderr


def number(cell):
    return float("nan") if cell == "" else float(cell) if "." in cell or "e" in cell else int(cell)


def copy_with(path, directory, name, edit):
    """A copy of a data file changed by edit(bytearray) -> bytes."""
    with open(path, "rb") as f:
        data = edit(bytearray(f.read()))
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "wb") as f:
        f.write(data)
    return os.path.join(directory, name)
