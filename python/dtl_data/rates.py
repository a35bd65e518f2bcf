"""Per-second rates of counters between consecutive samples.

The counters are running sums, so a rate is the increase between two samples
over the time between them. The arithmetic is pinned down so that the C++
reader and this package produce the same doubles bit for bit:

- Only rows later than every earlier row count ("kept"); a late or repeated
  sample would otherwise give a negative or infinite rate.
- Unsigned counters of width w bits wrap: delta = (v_c - v_p) mod 2^w. A delta
  above 2^(w-1) means the counter was reset (it went down), which gives no
  rate (NaN). Signed 64-bit counters and doubles subtract in double.
- rate = float(delta) * 1e6 / float(dt_us), in that order.
- A gap (samples lost) just widens dt: the rate is the average over it.
"""
from __future__ import annotations

import numpy as np


def rated_counters(counters):
    """The counters that have a rate, in their order."""
    return [c for c in counters if c.rate_kind is not None]


def rates_dtype(counters) -> np.dtype:
    return np.dtype([("timestamp_us", "<u8")] + [(c.column, "<f8") for c in counters])


def kept_mask(timestamps: np.ndarray, earlier_max=None) -> np.ndarray:
    """True for the rows later than every row before them (and than earlier_max)."""
    ts = np.asarray(timestamps, dtype=np.uint64)
    keep = np.empty(len(ts), dtype=bool)
    if len(ts) == 0:
        return keep
    running = np.maximum.accumulate(ts)
    keep[0] = earlier_max is None or ts[0] > np.uint64(earlier_max)
    keep[1:] = ts[1:] > running[:-1]
    if earlier_max is not None:
        keep[1:] &= ts[1:] > np.uint64(earlier_max)
    return keep


def _deltas(kind, current: np.ndarray, previous: np.ndarray) -> np.ndarray:
    if kind[0] == "unsigned":
        bits = kind[1]
        delta = current.astype(np.uint64) - previous.astype(np.uint64)
        if bits < 64:
            delta &= np.uint64((1 << bits) - 1)
        out = delta.astype(np.float64)
        out[delta > np.uint64(1 << (bits - 1))] = np.nan
        return out
    return current.astype(np.float64) - previous.astype(np.float64)


def compute_rates(rows: np.ndarray, counters, previous=None) -> np.ndarray:
    """Rates of structured rows (timestamp_us and counter fields), in file order.

    previous continues a run from earlier rows: the structured last kept row
    before these (one element), or None to start afresh. Returns a structured
    array with timestamp_us and one float64 field per rated counter.
    """
    rated = rated_counters(counters)
    dtype = rates_dtype(rated)
    ts = np.asarray(rows["timestamp_us"], dtype=np.uint64)
    earlier = None if previous is None else int(previous["timestamp_us"])
    keep = kept_mask(ts, earlier)
    kept = rows[keep]
    if previous is not None:
        head = np.empty(1, dtype=rows.dtype)
        head[0] = previous
        kept = np.concatenate([head, kept])
    out = np.zeros(max(len(kept) - 1, 0), dtype=dtype)
    if len(out) == 0:
        return out
    kept_ts = np.asarray(kept["timestamp_us"], dtype=np.uint64)
    out["timestamp_us"] = kept_ts[1:]
    dt = (kept_ts[1:] - kept_ts[:-1]).astype(np.float64)
    for c in rated:
        values = np.asarray(kept[c.column])
        out[c.column] = _deltas(c.rate_kind, values[1:], values[:-1]) * 1e6 / dt
    return out


def last_kept(rows: np.ndarray, previous=None):
    """The row a following run continues from: the latest kept row so far."""
    if len(rows) == 0:
        return previous
    ts = np.asarray(rows["timestamp_us"], dtype=np.uint64)
    top = int(np.argmax(ts))  # first occurrence of the largest time: a kept row
    if previous is not None and ts[top] <= np.uint64(int(previous["timestamp_us"])):
        return previous
    return rows[top].copy()
