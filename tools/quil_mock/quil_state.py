"""The stand-in switch's state: its configuration tree (JSON merge patches
at a path), revisions and the applied tree, the request journal and the
injected faults. No HTTP here: quil_mock.py serves this state."""

import copy
import json
import re
import sys
import threading
import urllib.parse


def log(text):
    sys.stderr.write("quil-mock: %s\n" % text)
    sys.stderr.flush()


# ---------------------------------------------------------------------------
# Configuration tree


def merge_patch(target, patch):
    """Merges patch into target like a JSON merge patch and returns the result:
    objects merge member by member, a null member removes the key, any other
    value replaces what was there."""
    if not isinstance(patch, dict):
        return copy.deepcopy(patch)
    if not isinstance(target, dict):
        target = {}
    for key, value in patch.items():
        if value is None:
            target.pop(key, None)
        else:
            target[key] = merge_patch(target.get(key), value)
    return target


def apply_at(tree, parts, patch):
    """Merges patch into tree at the path given as a list of keys; missing
    objects on the way are created. A null patch removes the addressed key."""
    if not parts:
        return merge_patch(tree, patch)
    node = tree
    for key in parts[:-1]:
        child = node.get(key)
        if not isinstance(child, dict):
            child = {}
            node[key] = child
        node = child
    last = parts[-1]
    if patch is None:
        node.pop(last, None)
    else:
        node[last] = merge_patch(node.get(last), patch)
    return tree


def subtree(tree, parts):
    """The value at the path, or (False, None) when the path does not exist."""
    node = tree
    for key in parts:
        if not isinstance(node, dict) or key not in node:
            return False, None
        node = node[key]
    return True, node


def config_view(tree, parts):
    """What a GET of the path answers, like a switch: the subtree, an empty
    object for configuration that is merely not set, or (False, None) when
    the path leads through a value that is not an object."""
    node = tree
    for key in parts:
        if not isinstance(node, dict):
            return False, None
        if key not in node:
            return True, {}
        node = node[key]
    return True, node


def dig(tree, *keys):
    ok, value = subtree(tree, list(keys))
    return value if ok else None


def split_path(path):
    return [urllib.parse.unquote(part) for part in path.split("/") if part]


# ---------------------------------------------------------------------------
# Faults


class Fault:
    """One --fault spec: "[NTH:]METHOD PATH_REGEX STATUS [BODY]". STATUS may be
    "close" to drop the connection without an answer, or "hang" to hold the
    request unanswered until the client gives up or the mock exits."""

    def __init__(self, spec):
        text = spec.strip()
        self.nth = None
        match = re.match(r"^(\d+):", text)
        if match:
            self.nth = int(match.group(1))
            text = text[match.end():]
        fields = text.split(None, 3)
        if len(fields) < 3:
            raise ValueError("fault needs METHOD PATH_REGEX STATUS [BODY]: %r" % spec)
        self.method = fields[0].upper()
        self.regex = re.compile(fields[1])
        if fields[2].lower() == "close":
            self.status = 0
        elif fields[2].lower() == "hang":
            self.status = -1
        else:
            self.status = int(fields[2])
            if not 100 <= self.status <= 599:
                raise ValueError("fault status out of range: %r" % spec)
        self.body = fields[3] if len(fields) > 3 else ""
        self.matches = 0
        self.spec = spec

    def method_matches(self, method):
        if self.method in ("*", "ANY"):
            return True
        return re.fullmatch(self.method, method, re.IGNORECASE) is not None

    def hit(self, method, target):
        """Counts a matching request; true when this one gets the fault."""
        if not self.method_matches(method) or not self.regex.search(target):
            return False
        self.matches += 1
        return self.nth is None or self.matches == self.nth


# ---------------------------------------------------------------------------
# Journal


class Journal:
    def __init__(self, path):
        self.lock = threading.Lock()
        self.file = open(path, "a", encoding="utf-8") if path else None

    def write(self, entry):
        if self.file is None:
            return
        with self.lock:
            self.file.write(json.dumps(entry) + "\n")
            self.file.flush()

    def close(self):
        if self.file is not None:
            with self.lock:
                self.file.close()
                self.file = None


# ---------------------------------------------------------------------------
# Switch state


class Switch:
    """Revisions and the applied tree; every method holds the lock."""

    def __init__(self, options):
        self.options = options
        self.lock = threading.Lock()
        export_state = "enabled" if options.export_never_disabled else "disabled"
        self.applied = {
            "system": {"telemetry": {"hft": {"export": {"state": export_state}}}},
            "interface": {name: {} for name in options.interface_list},
        }
        self.next_revision = 1
        self.revisions = {}  # id -> {"state": ..., "patches": [(parts, body)]}

    def create_revision(self):
        with self.lock:
            rev = "rev-%d" % self.next_revision
            self.next_revision += 1
            self.revisions[rev] = {"state": "pending", "patches": []}
            return rev

    def patch(self, rev, parts, body):
        with self.lock:
            revision = self.revisions.get(rev)
            if revision is None:
                return 404, {"error": "unknown revision %s" % rev}
            if revision["state"] != "pending":
                return 409, {"error": "revision %s is %s" % (rev, revision["state"])}
            revision["patches"].append((parts, body))
            return 200, {rev: {"state": "pending"}}

    def apply(self, rev):
        """Applies the revision; returns (status, answer, applied copy or None)."""
        with self.lock:
            revision = self.revisions.get(rev)
            if revision is None:
                return 404, {"error": "unknown revision %s" % rev}, None
            if revision["state"] != "pending":
                return 409, {"error": "revision %s is %s" % (rev, revision["state"])}, None
            tree = copy.deepcopy(self.applied)
            for parts, body in revision["patches"]:
                tree = apply_at(tree, parts, copy.deepcopy(body))
            if not isinstance(tree, dict):
                tree = {}
            self.applied = tree
            revision["state"] = "applied"
            return 200, {rev: {"state": "applied"}}, copy.deepcopy(tree)

    def view(self, rev):
        """The tree seen by a GET: applied, or applied plus a revision's patches."""
        with self.lock:
            tree = copy.deepcopy(self.applied)
            if rev not in (None, "applied"):
                revision = self.revisions.get(rev)
                if revision is None:
                    return None
                for parts, body in revision["patches"]:
                    tree = apply_at(tree, parts, copy.deepcopy(body))
        if self.options.export_never_disabled and isinstance(tree, dict):
            tree = apply_at(tree, ["system", "telemetry", "hft", "export"], {"state": "enabled"})
        return tree

    def revision_info(self, rev):
        with self.lock:
            if rev is None:
                return {r: {"state": v["state"]} for r, v in self.revisions.items()}
            revision = self.revisions.get(rev)
            return None if revision is None else {rev: {"state": revision["state"]}}
