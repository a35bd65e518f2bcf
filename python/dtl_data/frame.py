"""pandas views of selected rows and of rates.

A frame is indexed by the sample time as a UTC DatetimeIndex named "time"
and has one column per counter. Integer counters keep their exact integer
type (uint64 values above 2^53 would not survive a float); STRING and raw
byte counters become Python bytes objects.
"""
from __future__ import annotations

import numpy as np
import pandas as pd


def time_index(timestamps_us) -> pd.DatetimeIndex:
    us = np.asarray(timestamps_us, dtype=np.uint64).astype(np.int64)
    return pd.DatetimeIndex(pd.to_datetime(us, unit="us", utc=True), name="time")


def rows_frame(rows: np.ndarray) -> pd.DataFrame:
    """A frame of a structured array whose first field is timestamp_us."""
    names = [n for n in rows.dtype.names if n != "timestamp_us"]
    columns = {}
    for name in names:
        values = rows[name]
        if values.dtype.kind == "V":
            values = np.array([bytes(v) for v in values], dtype=object)
        columns[name] = values
    return pd.DataFrame(columns, index=time_index(rows["timestamp_us"]), columns=names)


def empty_frame(dtype: np.dtype) -> pd.DataFrame:
    """The zero-row frame of rows of this dtype: the shape of a result to come."""
    return rows_frame(np.zeros(0, dtype=dtype))
