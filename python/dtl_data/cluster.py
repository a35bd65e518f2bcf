"""dask dataframes over many data files: one partition per file.

The client only opens each file's header and schema (to know the columns and
the time span; for rates it also finds by binary search which files hold
rows in the window); the rows are read in the worker that computes a partition,
through its own memory map of the file. The workers must see the files under
the same paths (a shared or network file system on a cluster).
"""
from __future__ import annotations

import os

import dask.dataframe as dd
import pandas as pd

from . import rates as _rates
from .datafile import DataFile
from .frame import empty_frame, rows_frame
from .layout import DataFileError
from .root import DataRoot, SwitchView, rated_selection, sequence_rates


def _read_rows(path, from_, to, counters, schema_dir):
    return rows_frame(DataFile(path, schema_dir).select(from_, to, counters))


def _read_rates(path, before, from_, to, counters, schema_dir):
    # The run goes on from the last kept row of the file before (the latest
    # one with rows in the window), which is the row with its latest time
    # when the files do not overlap in time, as the collector's rotation
    # leaves them.
    previous = None
    if before is not None:
        f = DataFile(before, schema_dir)
        _rated, key, rows = rated_selection(f.select(from_, to, counters), f.select_counters(counters))
        previous = (key, _rates.last_kept(rows))
    f = DataFile(path, schema_dir)
    runs = sequence_rates([(f, f.select(from_, to, counters), f.select_counters(counters))], previous)
    return rows_frame(runs[0])


def _rows_in_window(f: DataFile, from_, to) -> bool:
    # A binary search and a check of 128 blocks at most: cheap on the client.
    rows = f.window(from_, to)
    return (rows.stop > rows.start) if isinstance(rows, slice) else len(rows) > 0


def _divisions(files):
    """Partition bounds by time from the headers of closed files whose spans do
    not overlap; None when they are not all known."""
    if not files or not all(f.header.is_final and f.block_count for f in files):
        return None
    spans = [(f.header.first_timestamp, f.header.last_timestamp) for f in files]
    if any(lo > hi for lo, hi in spans) or any(a[1] >= b[0] for a, b in zip(spans, spans[1:])):
        return None
    bounds = [lo for lo, _hi in spans] + [spans[-1][1]]
    return tuple(pd.to_datetime(bounds, unit="us", utc=True))


def files_frame(files, from_=None, to=None, counters=None, rates=False, schema_dir=None):
    """A dask DataFrame with one partition per data file, in the given order.

    files: paths (they must share their counters), or a SwitchView. The
    window [from_, to) and the counters regular expression select as in
    DataFile.select. With rates=True the partitions hold rates, each file's
    first row continuing from the file before it.
    """
    if isinstance(files, SwitchView):
        opened = list(files.files)
    else:
        opened = [DataFile(p, schema_dir) for p in files]
    if not opened:
        raise DataFileError("no data files")
    columns = [c.column for c in opened[0].select_counters(counters)]
    for f in opened[1:]:
        if [c.column for c in f.select_counters(counters)] != columns:
            raise DataFileError(f"{f.path}: other counters than {opened[0].path}")
    first = opened[0]
    dtype = first.select(0, 0, counters).dtype
    if rates:
        dtype = _rates.rates_dtype(_rates.rated_counters(first.select_counters(counters)))
    meta = empty_frame(dtype)
    paths = [os.path.abspath(f.path) for f in opened]
    divisions = _divisions(opened)
    if rates:
        before, last = [], None
        for path, f in zip(paths, opened):
            before.append(last)
            last = path if _rows_in_window(f, from_, to) else last
        return dd.from_map(_read_rates, paths, before,
                           args=(from_, to, counters, schema_dir), meta=meta,
                           divisions=divisions, label="dtl-rates")
    return dd.from_map(_read_rows, paths, args=(from_, to, counters, schema_dir), meta=meta,
                       divisions=divisions, label="dtl-rows")


def switch_frame(root, switch, from_=None, to=None, counters=None, rates=False, schema_dir=None):
    """files_frame over one switch's files of a data root (a path or a DataRoot)."""
    if not isinstance(root, DataRoot):
        root = DataRoot(root, schema_dir=schema_dir)
    return files_frame(root[switch], from_, to, counters, rates, schema_dir)
