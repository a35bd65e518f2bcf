"""One data file, mapped into memory.

Opening a file reads its header, finds its schema and works out where the
data ends from the file's size and its last few blocks only, so that opening
a file of any size is immediate; the blocks themselves are read by the
operating system when a selection touches them.
"""
from __future__ import annotations

import mmap
import os
import warnings as _warnings

import numpy as np

from . import layout, rates as _rates, selection
from .layout import DataFileError


class DataFileWarning(UserWarning):
    """A data file that is readable but was cut short or never finalised."""


class DataFile:
    """A data file: its header, counters and blocks as a structured array.

    blocks holds every whole block up to the end of the data as a read-only
    array over the file's memory map, with the fields "timestamp_us" and one
    per counter (named by Counter.column). It shows the file as it was when
    opened: blocks a writer appends later need a new DataFile.
    """

    def __init__(self, path, schema_dir=None, warn: bool = False):
        self.path = os.fspath(path)
        self.warnings = []
        try:
            f = open(self.path, "rb")
        except OSError as e:
            raise DataFileError(f"{self.path}: cannot open: {e.strerror}") from None
        with f:
            size = os.fstat(f.fileno()).st_size
            self.header = layout.parse_header(f.read(layout.HEADER_SIZE), self.path)
            bs = self.header.block_size
            if self.header.counters_schema_id == "0" * 32:
                raise DataFileError(f"{self.path}: the header names no counters schema")
            self.schema_path = layout.find_schema_file(self.path, self.header.counters_schema_id,
                                                       schema_dir)
            self.counters = layout.load_schema(self.schema_path)
            layout.check_fits(self.counters, bs, self.path)
            self.dtype = layout.block_dtype(self.counters, bs)
            self._mmap = mmap.mmap(f.fileno(), 0, access=mmap.ACCESS_READ) if size else None
        self.block_count = self._end_of_data(size)
        if self.header.file_size == layout.HEADER_SIZE and size > layout.HEADER_SIZE:
            self.warnings.append("header not finalised (file still being written, or its writer stopped)")
        elif self.header.file_size > size:
            self.warnings.append(f"file cut short: header says {self.header.file_size} bytes, "
                                 f"the file has {size}")
        self.blocks = self._view(self.dtype)
        self._index = self._view(layout.index_dtype(bs))
        if warn:
            for message in self.warnings:
                _warnings.warn(f"{self.path}: {message}", DataFileWarning, stacklevel=2)

    def _view(self, dtype):
        if self.block_count == 0:
            return np.zeros(0, dtype=dtype)
        return np.ndarray((self.block_count,), dtype=dtype, buffer=self._mmap,
                          offset=layout.HEADER_SIZE)

    def _end_of_data(self, size: int) -> int:
        bs = self.header.block_size
        start = max(size - layout.DIRECT_IO_BLOCK - bs, 0)
        padding = layout.padding_at_end(self._mmap[start:size], start, size, bs)
        body = size - layout.HEADER_SIZE - padding
        count, partial = divmod(body, bs)
        if partial:
            self.warnings.append(f"file cut short: {partial} bytes after block {count} ignored, "
                                 f"reading {count} whole blocks")
        return self._before_zero_tail(count, size)

    def _before_zero_tail(self, count: int, size: int) -> int:
        """Blocks before a zero-filled tail: the blocks from the first all-zero
        block without magic to the end, when the rest of the file is zero too."""
        bs, mm = self.header.block_size, self._mmap
        if count == 0:
            return 0
        last = layout.HEADER_SIZE + (count - 1) * bs
        if mm[last:last + 4] == layout.BLOCK_MAGIC:
            return count
        rest = layout.HEADER_SIZE + count * bs
        if mm[rest:size].strip(b"\0"):
            return count  # not a zero tail: the block is corrupt
        first_zero = count
        step = max(1, (1 << 20) // bs)
        while first_zero > 0:
            lo = max(first_zero - step, 0)
            chunk = np.frombuffer(mm, dtype=np.uint8, count=(first_zero - lo) * bs,
                                  offset=layout.HEADER_SIZE + lo * bs).reshape(-1, bs)
            nonzero = np.flatnonzero(chunk.any(axis=1))
            if len(nonzero):
                first_zero = lo + int(nonzero[-1]) + 1
                break
            first_zero = lo
        if first_zero < count:
            self.warnings.append(f"file cut short: zero-filled from block {first_zero} (offset "
                                 f"{layout.HEADER_SIZE + first_zero * bs}), reading {first_zero} blocks")
        return first_zero

    # -- what the file holds

    @property
    def source_id(self) -> str:
        return self.header.source_id

    @property
    def timestamps(self) -> np.ndarray:
        """The blocks' sample times (us), in file order."""
        return self._index["timestamp_us"]

    @property
    def first_time_us(self):
        """Sample time of the first block (None when the file holds none)."""
        return int(self._index["timestamp_us"][0]) if self.block_count else None

    @property
    def last_time_us(self):
        return int(self._index["timestamp_us"][-1]) if self.block_count else None

    def __len__(self) -> int:
        return self.block_count

    def __repr__(self) -> str:
        return f"DataFile({self.path!r}, source={self.source_id!r}, blocks={self.block_count})"

    def close(self) -> None:
        """Drops the arrays and the map; arrays handed out before keep it alive."""
        self.blocks = self._index = None
        self._mmap = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # -- selections

    def select_counters(self, counters=None):
        """The counters that the regular expression counters picks (all for None)."""
        return selection.match_counters(self.counters, counters, self.path)

    def window(self, from_=None, to=None):
        """Indices (or a slice) of the blocks with from_ <= time < to, file order."""
        return selection.window_rows(self._index["timestamp_us"], from_, to)

    def select(self, from_=None, to=None, counters=None) -> np.ndarray:
        """The rows in the window [from_, to) with timestamp_us and the counters
        matching the regular expression counters, as a packed structured array.

        Raises DataFileError when a returned row is not a valid block."""
        chosen = self.select_counters(counters)
        rows = self.window(from_, to)
        self.check_blocks(rows)
        fields = ["timestamp_us"] + [c.column for c in chosen]
        return gather(self.blocks, rows, fields)

    def check_blocks(self, rows) -> None:
        magic = self._index["magic"][rows]
        bad = np.flatnonzero(magic != layout.BLOCK_MAGIC)
        if len(bad):
            index = (rows.start or 0) + int(bad[0]) if isinstance(rows, slice) \
                else int(np.asarray(rows)[bad[0]])
            offset = layout.HEADER_SIZE + index * self.header.block_size
            raise DataFileError(f"{self.path}: corrupt block {index} at offset {offset} "
                                "(bad block magic)")

    def rates(self, from_=None, to=None, counters=None) -> np.ndarray:
        """Per-second rates of the selected rows (see the rates module): a
        structured array of timestamp_us and one float64 field per counter
        that has a rate; NaN where a counter was reset."""
        chosen = self.select_counters(counters)
        return _rates.compute_rates(self.select(from_, to, counters), chosen)

    def frame(self, from_=None, to=None, counters=None):
        """The selected rows as a pandas DataFrame indexed by UTC time."""
        from .frame import rows_frame
        return rows_frame(self.select(from_, to, counters))

    def rates_frame(self, from_=None, to=None, counters=None):
        """The rates as a pandas DataFrame indexed by UTC time."""
        from .frame import rows_frame
        return rows_frame(self.rates(from_, to, counters))


def gather(blocks: np.ndarray, rows, fields) -> np.ndarray:
    """The fields of the rows, copied side by side out of the file's map.

    A run of consecutive rows is converted in one pass; scattered rows are
    gathered a column at a time, so that only the bytes of those fields are
    read rather than whole blocks."""
    dtype = np.dtype([(name, blocks.dtype.fields[name][0]) for name in fields])
    if isinstance(rows, slice):
        return blocks[rows][fields].astype(dtype)
    column = blocks["timestamp_us"][rows]
    out = np.empty(len(column), dtype=dtype)
    out["timestamp_us"] = column
    for name in fields[1:]:
        out[name] = blocks[name][rows]
    return out

