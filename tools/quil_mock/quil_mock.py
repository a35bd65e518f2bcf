#!/usr/bin/env python3
"""quil-mock: a stand-in for a switch's HTTPS configuration API (/quil_v1).

Configuration changes go through revisions: POST /quil_v1/revision creates
one, PATCH <path>?rev=ID merges a JSON body into it at <path>, and
PATCH /quil_v1/revision/ID with {"state": "apply"} applies its patches, in
order, to the running ("applied") tree. GET <path>[?rev=applied|ID] reads a
subtree back. When the applied tree enables the HFT export towards an IPFIX
destination, the mock starts hft-sim towards it, as a switch would start
exporting; disabling the export stops it again.

Every request is appended to the journal as one JSON line; faults, delays and
non-JSON answers can be injected from the command line for tests.
"""

import argparse
import base64
import http.server
import json
import os
import re
import select
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

API_PREFIX = "/quil_v1"
SCRIPT_DIR = os.path.dirname(os.path.abspath(__file__))
DEFAULT_HFT_SIM = os.path.normpath(os.path.join(SCRIPT_DIR, "..", "..", "build", "bin", "hft-sim"))
# Names made only of letters, digits, "-" and "_", as a collector accepts them.
DEFAULT_INTERFACES = "Ethernet1_1,Ethernet1_2,Ethernet1_3,Ethernet1_4"
NOT_JSON_TEXT = "<html><body>this is not JSON</body></html>\n"

from quil_state import Fault, Journal, Switch, config_view, log, split_path
from sim_supervisor import SimSupervisor


# ---------------------------------------------------------------------------
# HTTP


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "quil-mock/1"
    timeout = 30  # a silent client does not hold a thread for ever

    def do_GET(self):
        self.serve("GET")

    def do_POST(self):
        self.serve("POST")

    def do_PATCH(self):
        self.serve("PATCH")

    def do_PUT(self):
        self.serve("PUT")

    def do_DELETE(self):
        self.serve("DELETE")

    def log_message(self, format, *args):
        log("%s %s" % (self.address_string(), format % args))

    def serve(self, method):
        app = self.server.app
        split = urllib.parse.urlsplit(self.path)
        path, query = split.path, split.query
        length = int(self.headers.get("Content-Length") or 0)
        raw = self.rfile.read(length) if length > 0 else b""
        body = raw.decode("utf-8", errors="replace")
        user, authorized = self.check_auth(app.options)
        after = None

        if not authorized:
            status, answer = 401, {"error": "authentication required"}
        else:
            fault = app.find_fault(method, path + ("?" + query if query else ""))
            if fault is not None:
                status, answer = fault.status, fault.body
            elif method == "GET" and any(r.search(path + ("?" + query if query else ""))
                                         for r in app.options.not_json):
                status, answer = 200, NOT_JSON_TEXT
            else:
                status, answer, after = app.route(method, path, query, body)

        app.journal.write({"method": method, "path": path, "query": query, "body": body,
                           "status": status, "user": user})
        if status == -1:
            # Held until the client closes the connection (or the mock stops).
            self.close_connection = True
            while not app.stopping.is_set():
                readable, _, _ = select.select([self.connection], [], [], 0.2)
                if readable:
                    try:
                        if not self.connection.recv(1):
                            break
                    except (OSError, ValueError):
                        break
            return
        if after is not None:
            after()
        if app.options.slow > 0:
            time.sleep(app.options.slow)
        if status == 0:
            # Injected transport failure: no answer at all.
            self.close_connection = True
            try:
                self.connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            return
        self.answer(status, answer)

    def check_auth(self, options):
        header = self.headers.get("Authorization") or ""
        if not header.lower().startswith("basic "):
            return "", False
        try:
            decoded = base64.b64decode(header[6:].strip(), validate=True).decode("utf-8")
        except (ValueError, UnicodeDecodeError):
            return "", False
        user, _, password = decoded.partition(":")
        return user, (user == options.user and password == options.password)

    def answer(self, status, answer):
        if isinstance(answer, str):
            data = answer.encode("utf-8")
            content_type = "text/plain; charset=utf-8"
        else:
            data = json.dumps(answer).encode("utf-8")
            content_type = "application/json"
        self.send_response(status)
        if status == 401:
            self.send_header("WWW-Authenticate", 'Basic realm="quil"')
        if status not in (204, 304):
            self.send_header("Content-Type", content_type)
            self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        if status not in (204, 304):
            self.wfile.write(data)
        self.wfile.flush()


class App:
    def __init__(self, options):
        self.options = options
        self.journal = Journal(options.journal)
        self.switch = Switch(options)
        self.sim = SimSupervisor(options, self.journal)
        self.faults = [Fault(spec) for spec in options.fault]
        self.fault_lock = threading.Lock()
        self.stopping = threading.Event()

    def find_fault(self, method, target):
        # Every fault counts its own matches, so all of them are looked at.
        with self.fault_lock:
            chosen = None
            for fault in self.faults:
                if fault.hit(method, target) and chosen is None:
                    chosen = fault
            return chosen

    def route(self, method, path, query, body):
        """Normal handling: (status, answer, action to run after journaling)."""
        if path != API_PREFIX and not path.startswith(API_PREFIX + "/"):
            return 404, {"error": "no such API: %s" % path}, None
        parts = split_path(path[len(API_PREFIX):])
        params = urllib.parse.parse_qs(query, keep_blank_values=True)
        rev = params["rev"][0] if "rev" in params else None

        if parts and parts[0] == "revision":
            return self.route_revision(method, parts[1:], body)
        if method == "GET":
            tree = self.switch.view(rev)
            if tree is None:
                return 404, {"error": "unknown revision %s" % rev}, None
            found, value = config_view(tree, parts)
            if not found:
                return 404, {"error": "path not found: /%s" % "/".join(parts)}, None
            return 200, value, None
        if method == "PATCH":
            if rev is None or rev == "applied":
                return 400, {"error": "PATCH needs ?rev=<pending revision>"}, None
            try:
                patch = json.loads(body) if body.strip() else {}
            except ValueError as error:
                return 400, {"error": "body is not JSON: %s" % error}, None
            status, answer = self.switch.patch(rev, parts, patch)
            return status, answer, None
        return 405, {"error": "method %s not allowed here" % method}, None

    def route_revision(self, method, rest, body):
        if method == "POST" and not rest:
            rev = self.switch.create_revision()
            return 201, {rev: {"state": "pending"}}, None
        if method == "GET" and len(rest) <= 1:
            info = self.switch.revision_info(rest[0] if rest else None)
            if info is None:
                return 404, {"error": "unknown revision %s" % rest[0]}, None
            return 200, info, None
        if method == "PATCH" and len(rest) == 1:
            try:
                request = json.loads(body) if body.strip() else {}
            except ValueError as error:
                return 400, {"error": "body is not JSON: %s" % error}, None
            if not isinstance(request, dict) or request.get("state") != "apply":
                return 400, {"error": 'expected {"state": "apply"}'}, None
            status, answer, applied = self.switch.apply(rest[0])
            after = (lambda: self.sim.update(applied)) if applied is not None else None
            return status, answer, after
        return 405, {"error": "method %s not allowed on revisions" % method}, None


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, address, app, context):
        if ":" in address[0]:
            self.address_family = socket.AF_INET6
        super().__init__(address, Handler)
        self.app = app
        # The handshake runs in the request's thread, so a stalled client
        # cannot block the accept loop.
        self.socket = context.wrap_socket(self.socket, server_side=True,
                                          do_handshake_on_connect=False)

    def handle_error(self, request, client_address):
        error = sys.exc_info()[1]
        log("connection from %s ended: %s" % (client_address[0], error))


# ---------------------------------------------------------------------------
# Start-up


def make_certificate(cert_dir):
    cert = os.path.join(cert_dir, "cert.pem")
    key = os.path.join(cert_dir, "key.pem")
    # An EC key is made in milliseconds, where RSA takes most of a second.
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                    "-nodes", "-days", "2",
                    "-subj", "/CN=localhost",
                    "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
                    "-keyout", key, "-out", cert],
                   check=True, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    return cert, key


def parse_args(argv):
    parser = argparse.ArgumentParser(
        prog="quil_mock.py",
        description="Stand-in HTTPS configuration API of a switch (/quil_v1 revisions), "
                    "which starts hft-sim when the HFT IPFIX export is enabled.",
        formatter_class=argparse.RawDescriptionHelpFormatter,
        epilog="""API (HTTP basic authentication on every request, 401 otherwise):
  POST  /quil_v1/revision                 new revision; answer {"rev-N": {"state": "pending"}}
  PATCH /quil_v1/<path>?rev=ID            merge the JSON body into revision ID at <path>
                                          (null removes a key, {} creates an empty object)
  PATCH /quil_v1/revision/ID              body {"state": "apply"}: apply ID's patches in order
  GET   /quil_v1/<path>[?rev=applied|ID]  the applied (or ID's pending) subtree; {} for
                                          configuration not set, 404 below a non-object
  GET   /quil_v1/revision[/ID]            revision states

After every apply: with system.telemetry.hft.export.state "enabled" and
system.telemetry.export.ipfix {state "enabled", destination ADDR}, hft-sim runs
towards ADDR:--ipfix-port; it is stopped when that no longer holds, restarted
when its settings change, and stopped at exit (SIGTERM/SIGINT: exit status 0).

Journal lines: {"method", "path", "query", "body", "status", "user"} per request
(status 0 = connection dropped), {"event": "hft-sim started", "args": [...]} and
{"event": "hft-sim stopped"}. The password is never written.

Faults are looked at after authentication. Example:
  --fault "2:PATCH ^/quil_v1/revision/ 500 boom" answers the second apply with
  500 and the body "boom".""")
    net = parser.add_argument_group("server")
    net.add_argument("--bind", default="127.0.0.1",
                     help="address to listen on (default 127.0.0.1; IPv6 allowed)")
    net.add_argument("--port", type=int, default=8765,
                     help="HTTPS port, 0 for an ephemeral one (default 8765)")
    net.add_argument("--port-file", help="write the bound port number to this file once listening")
    net.add_argument("--cert-dir",
                     help="folder for the self-signed cert.pem and key.pem made at start "
                          "(default: a temporary folder removed at exit)")
    net.add_argument("--user", default="velmora", help="basic-authentication user (default velmora)")
    net.add_argument("--password", default="velmora",
                     help="basic-authentication password (default velmora)")
    net.add_argument("--exit-with-parent", action="store_true",
                     help="exit (stopping hft-sim) when the process that started the mock ends")
    net.add_argument("--journal",
                     help="append one JSON line per request and per hft-sim start/stop to this file")
    switch = parser.add_argument_group("switch")
    switch.add_argument("--switch-interfaces", default=DEFAULT_INTERFACES,
                        help="comma-separated interfaces present at start (default %s)"
                             % DEFAULT_INTERFACES)
    switch.add_argument("--switch-name", default="quil-mock",
                        help="switch name that hft-sim announces (default quil-mock)")
    switch.add_argument("--hft-sim", default=DEFAULT_HFT_SIM,
                        help="hft-sim program (default: the repository's build/bin/hft-sim)")
    switch.add_argument("--ipfix-port", type=int, default=4739,
                        help="UDP port hft-sim sends to at the configured destination (default 4739)")
    switch.add_argument("--sim-rate", type=float, default=1000,
                        help="samples per second sent by hft-sim (default 1000)")
    switch.add_argument("--hft-sim-arg", action="append", default=[], metavar="ARG",
                        help="extra argument appended to hft-sim's command line (repeatable, "
                             "e.g. --hft-sim-arg=--announce-period --hft-sim-arg=1)")
    faults = parser.add_argument_group("fault injection")
    faults.add_argument("--fault", action="append", default=[], metavar="SPEC",
                        help='"[NTH:]METHOD PATH_REGEX STATUS [BODY]" (repeatable): requests whose '
                             "method matches (a name, a regex, or * for any) and whose path plus "
                             '"?query" matches PATH_REGEX (re.search) are answered with STATUS '
                             "and BODY (default empty) instead of normal handling; with NTH only "
                             'the NTH matching request. STATUS "close" drops the connection '
                             'without an answer, "hang" holds the request unanswered until the '
                             "client gives up.")
    faults.add_argument("--slow", type=float, default=0, metavar="SECONDS",
                        help="delay every answer by this many seconds")
    faults.add_argument("--not-json", action="append", default=[], metavar="PATH_REGEX",
                        help="GETs whose path plus \"?query\" matches get 200 with text that is "
                             "not JSON (repeatable)")
    faults.add_argument("--export-never-disabled", action="store_true",
                        help='GET answers always show system.telemetry.hft.export.state "enabled", '
                             "whatever was applied")
    options = parser.parse_args(argv)
    options.interface_list = [name for name in options.switch_interfaces.split(",") if name]
    try:
        options.not_json = [re.compile(r) for r in options.not_json]
        for spec in options.fault:
            Fault(spec)
    except (re.error, ValueError) as error:
        parser.error(str(error))
    return options


def main(argv):
    options = parse_args(argv)
    own_cert_dir = options.cert_dir is None
    cert_dir = tempfile.mkdtemp(prefix="quil_mock_") if own_cert_dir else options.cert_dir
    sim = None
    try:
        os.makedirs(cert_dir, exist_ok=True)
        try:
            cert, key = make_certificate(cert_dir)
        except (OSError, subprocess.CalledProcessError) as error:
            detail = getattr(error, "stderr", b"") or b""
            log("cannot make the TLS certificate: %s %s" % (error, detail.decode(errors="replace")))
            return 1
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(cert, key)

        app = App(options)
        sim = app.sim
        try:
            server = Server((options.bind, options.port), app, context)
        except OSError as error:
            log("cannot listen on %s port %d: %s" % (options.bind, options.port, error))
            return 1
        port = server.server_address[1]

        stop = threading.Event()
        signal.signal(signal.SIGTERM, lambda *_: stop.set())
        signal.signal(signal.SIGINT, lambda *_: stop.set())
        thread = threading.Thread(target=server.serve_forever, args=(0.05,), name="quil-mock",
                                  daemon=True)
        thread.start()

        if options.port_file:
            # Written whole under a temporary name so readers never see half a number.
            temporary = options.port_file + ".tmp"
            with open(temporary, "w") as out:
                out.write("%d\n" % port)
            os.replace(temporary, options.port_file)
        host = "[%s]" % options.bind if ":" in options.bind else options.bind
        sys.stdout.write("quil-mock listening on https://%s:%d\n" % (host, port))
        sys.stdout.flush()

        parent = os.getppid()
        while not stop.wait(0.2):
            if options.exit_with_parent and os.getppid() != parent:
                log("parent process is gone")
                break
        log("stopping")
        app.stopping.set()
        server.shutdown()
        server.server_close()
        sim.stop()
        app.journal.close()
        return 0
    finally:
        if sim is not None:
            sim.stop()
        if own_cert_dir:
            shutil.rmtree(cert_dir, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
