"""Choosing rows by time and columns by counter name.

Times are microseconds since the Unix epoch. A window is from <= t < to.
Blocks are stored nearly in time order: a sample may arrive a little late and
be stored after later ones. So the window's ends are found by binary search
as if the timestamps were sorted, the range is widened by WIDENING blocks on
each side to take in such late samples, and each row of that range is then
checked against the window exactly. The C++ reader does the same, so both
give the same rows even for files with samples out of order.
"""
from __future__ import annotations

import datetime as _dt
import re

import numpy as np

from .layout import DataFileError

WIDENING = 64
_MAX_US = 2**64 - 1

_ISO = re.compile(
    r"(\d{4})-(\d{2})-(\d{2})"
    r"(?:[T ](\d{2}):(\d{2})(?::(\d{2})(?:\.(\d{1,9}))?)?(Z|[+-]\d{2}:\d{2})?)?")
_EPOCH = _dt.datetime(1970, 1, 1, tzinfo=_dt.timezone.utc)


def parse_time(value) -> int:
    """Microseconds since the epoch of an int, a numeric or ISO 8601 text, a
    datetime (naive means UTC) or a numpy datetime64. Fractions finer than a
    microsecond are cut off."""
    if isinstance(value, (bool, np.bool_)):
        raise TypeError("a time cannot be a bool")
    if isinstance(value, (int, np.integer)):
        return int(value)
    if isinstance(value, np.datetime64):
        if np.isnat(value):
            raise ValueError("a time cannot be NaT")
        return int(value.astype("datetime64[us]").astype(np.int64))
    if isinstance(value, _dt.datetime):
        aware = value if value.tzinfo is not None else value.replace(tzinfo=_dt.timezone.utc)
        delta = aware - _EPOCH
        return (delta.days * 86400 + delta.seconds) * 1_000_000 + delta.microseconds
    if isinstance(value, str):
        return _parse_text(value.strip())
    raise TypeError(f"cannot read {value!r} as a time")


def _parse_text(text: str) -> int:
    if re.fullmatch(r"[+-]?\d+", text):
        return int(text)
    m = _ISO.fullmatch(text)
    if m is None:
        raise ValueError(f"bad time {text!r}: expected microseconds since the epoch or ISO 8601 "
                         "(YYYY-MM-DD, YYYY-MM-DDTHH:MM[:SS[.fraction]][Z|+HH:MM])")
    year, month, day, hour, minute, second, fraction, zone = m.groups()
    try:
        moment = _dt.datetime(int(year), int(month), int(day), int(hour or 0), int(minute or 0),
                              int(second or 0), tzinfo=_dt.timezone.utc)
        if zone and zone != "Z":
            sign = 1 if zone[0] == "+" else -1
            offset = _dt.timedelta(hours=int(zone[1:3]), minutes=int(zone[4:6]))
            if offset >= _dt.timedelta(hours=24):
                raise ValueError("zone offset out of range")
            moment -= sign * offset
    except ValueError as e:
        raise ValueError(f"bad time {text!r}: {e}") from None
    delta = moment - _EPOCH
    micros = int((fraction or "").ljust(6, "0")[:6])
    return (delta.days * 86400 + delta.seconds) * 1_000_000 + micros


def _bound(value):
    # Outside the range of the stored u64 times a bound clamps to its edge.
    return None if value is None else min(max(parse_time(value), 0), _MAX_US + 1)


def window_rows(timestamps: np.ndarray, from_=None, to=None):
    """Indices (in file order) of the rows with from_ <= timestamp < to.

    Returns a slice when the rows are consecutive (the usual case, which
    copies fastest), else an index array."""
    lo_t, hi_t = _bound(from_), _bound(to)
    n = len(timestamps)
    if lo_t is None and hi_t is None:
        return slice(0, n)
    lo, hi = 0, n
    # One key per call: searchsorted then probes like a plain binary search,
    # which is what keeps out-of-order files in agreement with the C++ reader.
    if lo_t is not None:
        lo = max(_lower_bound(timestamps, lo_t) - WIDENING, 0)
    if hi_t is not None:
        hi = min(_lower_bound(timestamps, hi_t) + WIDENING, n)
    if lo >= hi:
        return np.empty(0, dtype=np.intp)
    candidates = np.asarray(timestamps[lo:hi])
    keep = np.ones(len(candidates), dtype=bool)
    if lo_t is not None:
        keep &= candidates >= np.uint64(lo_t)
    if hi_t is not None and hi_t <= _MAX_US:
        keep &= candidates < np.uint64(hi_t)
    rows = np.flatnonzero(keep) + lo
    if len(rows) and rows[-1] - rows[0] + 1 == len(rows):
        return slice(int(rows[0]), int(rows[-1]) + 1)
    return rows


def _lower_bound(timestamps: np.ndarray, key: int) -> int:
    if key > _MAX_US:
        return len(timestamps)
    return int(np.searchsorted(timestamps, np.uint64(key), side="left"))


def match_counters(counters, pattern, where: str = "data file"):
    """The counters whose schema name contains a match of pattern, in schema order."""
    if pattern is None:
        return list(counters)
    try:
        regex = re.compile(pattern)
    except re.error as e:
        raise ValueError(f"bad counter pattern {pattern!r}: {e}") from None
    chosen = [c for c in counters if regex.search(c.name)]
    if not chosen:
        raise DataFileError(f"{where}: no counter matches {pattern!r}")
    return chosen
