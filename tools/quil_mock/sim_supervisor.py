"""Runs hft-sim the way a switch exports: at most one, with the arguments
the applied configuration asks for, restarted when they change."""

import signal
import subprocess
import sys
import threading

from quil_state import dig, log


# ---------------------------------------------------------------------------
# hft-sim supervision


class SimSupervisor:
    """Keeps at most one hft-sim running with the arguments the applied
    configuration asks for."""

    def __init__(self, options, journal):
        self.options = options
        self.journal = journal
        self.process = None
        self.args = None
        self.lock = threading.Lock()

    def wanted_args(self, applied):
        hft = dig(applied, "system", "telemetry", "hft") or {}
        ipfix = dig(applied, "system", "telemetry", "export", "ipfix") or {}
        if dig(hft, "export", "state") != "enabled":
            return None
        destination = ipfix.get("destination")
        if ipfix.get("state") != "enabled" or not isinstance(destination, str) or not destination:
            return None
        host = "[%s]" % destination if ":" in destination else destination
        args = ["--target", "%s:%d" % (host, self.options.ipfix_port),
                "--switch-name", self.options.switch_name]
        counters = hft.get("counter")
        if isinstance(counters, dict) and counters:
            args += ["--counters", ",".join(counters.keys())]
        interfaces = []
        for name, config in (applied.get("interface") or {}).items():
            if dig(config, "telemetry", "hft", "state") == "enabled":
                interfaces.append(name)
        if not interfaces:
            interfaces = self.options.interface_list
        args += ["--interfaces", ",".join(interfaces)]
        classes = dig(hft, "egress-buffer", "traffic-class")
        if isinstance(classes, dict) and classes:
            args += ["--traffic-classes", ",".join(classes.keys())]
        interval = hft.get("sample-interval-usec")
        if isinstance(interval, (int, float)) and not isinstance(interval, bool) and interval > 0:
            args += ["--interval-us", str(int(interval))]
        duration = hft.get("duration")
        if isinstance(duration, (int, float)) and not isinstance(duration, bool) and duration > 0:
            args += ["--duration", str(int(duration))]
        args += ["--rate", str(self.options.sim_rate)]
        args += self.options.hft_sim_arg
        return args

    def update(self, applied):
        """Starts, restarts or stops hft-sim after an apply."""
        with self.lock:
            wanted = self.wanted_args(applied)
            if wanted == self.args:
                return
            self._stop_locked()
            if wanted is not None:
                self._start_locked(wanted)

    def stop(self):
        with self.lock:
            self._stop_locked()

    def _start_locked(self, args):
        try:
            # hft-sim's summary line goes to our stderr: stdout carries only
            # the listening line that starters wait for.
            self.process = subprocess.Popen([self.options.hft_sim] + args,
                                            stdin=subprocess.DEVNULL, stdout=sys.stderr)
        except OSError as error:
            log("cannot start hft-sim %s: %s" % (self.options.hft_sim, error))
            self.journal.write({"event": "hft-sim failed", "args": args, "error": str(error)})
            self.args = args  # do not retry the same arguments on every apply
            return
        self.args = args
        log("hft-sim started (pid %d): %s" % (self.process.pid, " ".join(args)))
        self.journal.write({"event": "hft-sim started", "args": args})

    def _stop_locked(self):
        process, self.process, self.args = self.process, None, None
        if process is None:
            return
        if process.poll() is None:
            process.send_signal(signal.SIGTERM)
            try:
                process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        log("hft-sim stopped (pid %d, exit %s)" % (process.pid, process.returncode))
        self.journal.write({"event": "hft-sim stopped"})
