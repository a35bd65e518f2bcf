"""A data root: every switch's data files as one time-ordered sequence.

The collector starts a new file when one grows too big or too old, so the
samples of one switch are spread over many files. Files are grouped by the
source_id in their header (the switch name; the directory name is only a
sanitised copy of it) and ordered by their first sample time. Rates run on
from one file to the next, so rotation loses no interval, as long as the
rated counters stay the same; a schema change starts a new run whose first
row gives no rate.
"""
from __future__ import annotations

import os

import numpy as np
import pandas as pd

from . import rates as _rates
from .datafile import DataFile, gather
from .frame import rows_frame
from .layout import DataFileError


def data_files(root) -> list:
    """Paths of the .bin files under root, sorted."""
    found = []
    for directory, subdirs, names in os.walk(os.fspath(root)):
        subdirs.sort()
        found.extend(os.path.join(directory, n) for n in names if n.endswith(".bin"))
    return sorted(found)


def _start(f: DataFile):
    first = f.first_time_us
    return (first if first is not None else f.header.first_timestamp, f.path)


class SwitchView:
    """One switch's files in time order; selections cover all of them."""

    def __init__(self, name: str, files):
        self.name = name
        self.files = sorted(files, key=_start)

    def __repr__(self) -> str:
        return f"SwitchView({self.name!r}, files={len(self.files)})"

    @property
    def first_time_us(self):
        times = [f.first_time_us for f in self.files if f.block_count]
        return min(times) if times else None

    @property
    def last_time_us(self):
        times = [int(f.timestamps.max()) for f in self.files if f.block_count]
        return max(times) if times else None

    def counters(self, counters=None):
        """The selected counters of the first file (the columns of a plot)."""
        return self.files[0].select_counters(counters) if self.files else []

    def selections(self, from_=None, to=None, counters=None):
        """(file, rows, counters) per file, in order."""
        for f in self.files:
            yield f, f.select(from_, to, counters), f.select_counters(counters)

    def select(self, from_=None, to=None, counters=None) -> np.ndarray:
        """The selected rows of every file, concatenated in order."""
        parts = [rows for _f, rows, _c in self.selections(from_, to, counters)]
        return _concatenate(parts, self.name)

    def rate_runs(self, from_=None, to=None, counters=None) -> list:
        """The rates of each run of files with the same rated counters."""
        return sequence_rates(self.selections(from_, to, counters))

    def rates(self, from_=None, to=None, counters=None) -> np.ndarray:
        """Rates over the whole sequence (see the rates module)."""
        return _concatenate(self.rate_runs(from_, to, counters), self.name)

    def frame(self, from_=None, to=None, counters=None) -> pd.DataFrame:
        parts = [rows_frame(rows) for _f, rows, _c in self.selections(from_, to, counters)]
        return _concat_frames(parts)

    def rates_frame(self, from_=None, to=None, counters=None) -> pd.DataFrame:
        return _concat_frames([rows_frame(r) for r in self.rate_runs(from_, to, counters)])


def rated_selection(rows, counters):
    """The rated counters of a selection, the key that tells whether two
    selections share a run of rates (the same rated columns), and the rows'
    timestamp and rated fields."""
    rated = _rates.rated_counters(counters)
    key = tuple((c.column, c.rate_kind) for c in rated)
    return rated, key, gather(rows, slice(None), ["timestamp_us"] + [c.column for c in rated])


def sequence_rates(selections, previous=None) -> list:
    """Rates of consecutive selections [(file, rows, counters)], one array per run.

    previous = (rated key, last kept row) continues a run begun before."""
    runs, key, last = [], None, None
    if previous is not None:
        key, last = previous
    for _f, rows, counters in selections:
        rated, this_key, rated_rows = rated_selection(rows, counters)
        if this_key != key:
            key, last = this_key, None
            runs.append([])
        elif not runs:
            runs.append([])
        runs[-1].append(_rates.compute_rates(rated_rows, rated, last))
        last = _rates.last_kept(rated_rows, last)
    return [np.concatenate(parts) for parts in runs]


def _concatenate(parts, name) -> np.ndarray:
    if not parts:
        return np.zeros(0, dtype=[("timestamp_us", "<u8")])
    if any(p.dtype != parts[0].dtype for p in parts):
        raise DataFileError(f"switch {name}: its files have different counters; "
                            "use frame() or rates_frame(), which join them by column")
    return np.concatenate(parts)


def _concat_frames(frames) -> pd.DataFrame:
    frames = [f for f in frames if len(f.columns) or len(f)]
    if not frames:
        return pd.DataFrame(index=pd.DatetimeIndex([], tz="UTC", name="time"))
    if len(frames) == 1:
        return frames[0]
    return pd.concat(frames)


class DataRoot:
    """The data files under a directory (or a list of files), per switch.

    Files that cannot be opened are left out and listed in errors as
    (path, message), so that one damaged file does not hide the others.
    """

    def __init__(self, root=None, files=None, schema_dir=None):
        if (root is None) == (files is None):
            raise ValueError("give a data root or a list of files")
        self.root = None if root is None else os.fspath(root)
        if root is not None and not os.path.isdir(self.root):
            raise DataFileError(f"{self.root}: not a directory")
        paths = data_files(self.root) if files is None else [os.fspath(p) for p in files]
        self.errors = []
        by_source = {}
        for path in paths:
            try:
                f = DataFile(path, schema_dir)
            except DataFileError as e:
                self.errors.append((path, str(e)))
                continue
            by_source.setdefault(f.source_id, []).append(f)
        self.switches = {name: SwitchView(name, by_source[name]) for name in sorted(by_source)}

    @classmethod
    def from_files(cls, paths, schema_dir=None) -> "DataRoot":
        return cls(files=paths, schema_dir=schema_dir)

    def __getitem__(self, switch: str) -> SwitchView:
        try:
            return self.switches[switch]
        except KeyError:
            known = ", ".join(self.switches) or "none"
            raise KeyError(f"no data of switch {switch!r} (switches: {known})") from None

    def __iter__(self):
        return iter(self.switches.values())

    def __len__(self) -> int:
        return len(self.switches)

    def __repr__(self) -> str:
        return f"DataRoot({self.root!r}, switches={list(self.switches)})"
