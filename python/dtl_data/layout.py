"""On-disk layout of the collector's data files and counter schemas.

A data root looks like this::

    DATA_ROOT/schema/schema_<id>.json          counters schema, <id> = 32 hex digits
    DATA_ROOT/metadata/metadata_<id>.json      metadata belonging to that schema
    DATA_ROOT/YYYY/MMDD/<switch>/ipfix_<first_time_us>[-N].bin   data files

A data file (all integers little-endian) starts with a 256-byte header:

    offset  size  field
         0     4  magic "DTLF"
         4     1  version major      (this reader: 1)
         5     1  version minor      (this reader: up to 7; patch never matters)
         6     2  version patch
         8     8  file_size          256 while the file is open or its writer died
        16    64  source_id          zero-terminated switch name
        80    16  source_tag         zero-terminated
        96     8  first_timestamp    us since the epoch
       104     8  last_timestamp
       112     4  block_size
       116    16  counters_schema_id (in file names as 32 lower-case hex digits)
       132   112  7 event schema ids of 16 bytes
       244     1  byte_order         0 = little-endian, the only one supported
       245     7  padding
       252     4  magic_end "dtlf"

Then fixed-size blocks of block_size bytes: magic "DTLD" (4), 4 zero bytes,
timestamp u64 at 8 (us since the epoch, the sample time), and the value area
from byte 16 where counter c occupies length(c) bytes at 16 + offset(c).

Where the data ends: a file written with direct I/O may end in zero padding
shorter than 4096 bytes (the size then being a multiple of 4096); a writer
killed mid-write leaves a partial last block (ignored) or a zero-filled tail
(every block from the first all-zero block without magic onwards is ignored).
"""
from __future__ import annotations

import dataclasses
import json
import os
import struct

import numpy as np

HEADER_SIZE = 256
VALUES_OFFSET = 16
DIRECT_IO_BLOCK = 4096
FILE_MAGIC = b"DTLF"
BLOCK_MAGIC = b"DTLD"
VERSION_MAJOR = 1
VERSION_MINOR = 7

_HEADER = struct.Struct("<4sBBHQ64s16sQQI16s112sB7s4s")
assert _HEADER.size == HEADER_SIZE

# Data types by their schema name; anything unknown is stored as UNDEFINED
# (raw unsigned bytes), which is also how the C++ reader treats it.
UINT64, INT64, FP64, BIT64, STRING, UINT128, INT128, UNDEFINED = (
    "UINT64", "INT64", "FP64", "BIT64", "STRING", "UINT128", "INT128", "UNDEFINED")
_KNOWN_TYPES = {UINT64, INT64, FP64, BIT64, STRING, UINT128, INT128}
_UNSIGNED_BY_LENGTH = {8: "<u8", 4: "<u4", 2: "<u2", 1: "u1"}


class DataFileError(Exception):
    """A data file (or its schema) that cannot be read as asked."""


@dataclasses.dataclass(frozen=True)
class Header:
    """The fields of a data file's header."""
    version: tuple
    file_size: int
    source_id: str
    source_tag: str
    first_timestamp: int
    last_timestamp: int
    block_size: int
    counters_schema_id: str
    event_schema_ids: tuple
    byte_order: int

    @property
    def is_final(self) -> bool:
        """True once the writer closed the file and stored its size."""
        return self.file_size != HEADER_SIZE


def _text(raw: bytes) -> str:
    return raw.split(b"\0", 1)[0].decode("utf-8", "replace")


def parse_header(raw: bytes, where: str = "data file") -> Header:
    """Checks and decodes the first 256 bytes of a data file."""
    if len(raw) < HEADER_SIZE:
        raise DataFileError(f"{where}: file too short for a data file header ({len(raw)} bytes)")
    (magic, major, minor, patch, file_size, source_id, source_tag, first, last, block_size,
     schema_id, events, byte_order, _padding, _magic_end) = _HEADER.unpack_from(raw)
    if magic[:3] != b"DTL" or magic[3:4] != b"F":
        raise DataFileError(f"{where}: not a data file (bad header magic)")
    if major != VERSION_MAJOR or minor > VERSION_MINOR:
        raise DataFileError(f"{where}: unsupported format version {major}.{minor}.{patch} "
                            f"(this reader reads {VERSION_MAJOR}.0 to {VERSION_MAJOR}.{VERSION_MINOR})")
    if file_size < HEADER_SIZE:
        raise DataFileError(f"{where}: bad header: file size {file_size} is below the header size")
    if byte_order != 0:
        raise DataFileError(f"{where}: big-endian data files are not supported")
    if block_size < VALUES_OFFSET:
        raise DataFileError(f"{where}: bad header: block size {block_size} is below {VALUES_OFFSET}")
    return Header(version=(major, minor, patch), file_size=file_size, source_id=_text(source_id),
                  source_tag=_text(source_tag), first_timestamp=first, last_timestamp=last,
                  block_size=block_size, counters_schema_id=schema_id.hex(),
                  event_schema_ids=tuple(events[i:i + 16].hex() for i in range(0, 112, 16)),
                  byte_order=byte_order)


@dataclasses.dataclass(frozen=True)
class Counter:
    """One counter of a schema: where its value lies and how to read it."""
    name: str         # as in the schema
    column: str       # unique column name (name#i for repeated names)
    data_type: str    # one of the names above
    offset: int       # into the value area
    length: int       # bytes
    units: str = ""

    @property
    def numpy_type(self) -> str:
        if self.data_type in (UINT64, UNDEFINED, BIT64) and self.length in _UNSIGNED_BY_LENGTH:
            return _UNSIGNED_BY_LENGTH[self.length]
        if self.data_type == INT64 and self.length == 8:
            return "<i8"
        if self.data_type == FP64 and self.length == 8:
            return "<f8"
        if self.data_type == STRING:
            return f"S{self.length}"
        return f"V{self.length}"

    @property
    def rate_kind(self):
        """How a rate is taken: ("unsigned", bits), ("signed",), ("float",) or None."""
        if self.data_type in (UINT64, UNDEFINED) and self.length in _UNSIGNED_BY_LENGTH:
            return ("unsigned", 8 * self.length)
        if self.data_type == INT64 and self.length == 8:
            return ("signed",)
        if self.data_type == FP64 and self.length == 8:
            return ("float",)
        return None


def load_schema(path: str) -> list:
    """The counters of a schema file, in schema order, with their column names."""
    try:
        with open(path, "rb") as f:
            doc = json.loads(f.read())
    except (OSError, ValueError) as e:
        raise DataFileError(f"schema file {path} cannot be read: {e}") from None
    groups = doc.get("counter_groups") if isinstance(doc, dict) else None
    if not isinstance(groups, list):
        raise DataFileError(f"schema file {path} has no counter_groups array")
    entries = []
    for group in groups:
        if not isinstance(group, dict) or "counters" not in group:
            continue
        if not isinstance(group["counters"], list):
            raise DataFileError(f"schema file {path}: a group's counters member is not an array")
        for c in group["counters"]:
            if not isinstance(c, dict) or not all(isinstance(c.get(k), str) for k in (
                    "name", "description", "units", "data_type", "counting_type")):
                raise DataFileError(f"schema file {path}: counter entry lacks name, description, "
                                    "units, data_type or counting_type")
            entries.append(c)
    names = [c["name"] for c in entries]
    counters = []
    for i, c in enumerate(entries):
        data_type = c["data_type"] if c["data_type"] in _KNOWN_TYPES else UNDEFINED
        length = _whole(c.get("length"))
        if length == 0:
            length = 16 if data_type in (UINT128, INT128) else 8
        column = f"{c['name']}#{i}" if names.count(c["name"]) > 1 else c["name"]
        counters.append(Counter(c["name"], column, data_type, _whole(c.get("offset")), length,
                                c["units"]))
    return counters


def _whole(value) -> int:
    # JSON numbers are doubles to the schema's writer; negatives and junk read as 0.
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not value > 0:
        return 0
    return min(int(value), 2**32 - 1)


def find_schema_file(data_file: str, schema_id: str, schema_dir: str | None = None) -> str:
    """The schema_<id>.json of a data file: in schema_dir when given, else in the
    "schema" directory of the nearest directory above the file that has it."""
    name = f"schema_{schema_id}.json"
    if schema_dir is not None:
        candidate = os.path.join(schema_dir, name)
        if os.path.isfile(candidate):
            return candidate
        raise DataFileError(f"schema file {name} not found in {schema_dir}")
    directory = os.path.dirname(os.path.abspath(data_file))
    while True:
        candidate = os.path.join(directory, "schema", name)
        if os.path.isfile(candidate):
            return candidate
        parent = os.path.dirname(directory)
        if parent == directory:
            break
        directory = parent
    raise DataFileError(f"schema file {name} not found in any schema directory above {data_file}")


def block_dtype(counters, block_size: int) -> np.dtype:
    """The structured dtype of one block: timestamp_us and one field per counter."""
    names, formats, offsets = ["timestamp_us"], ["<u8"], [8]
    for c in counters:
        names.append(c.column)
        formats.append(c.numpy_type)
        offsets.append(VALUES_OFFSET + c.offset)
    return np.dtype({"names": names, "formats": formats, "offsets": offsets,
                     "itemsize": block_size})


def check_fits(counters, block_size: int, where: str) -> None:
    need = max((c.offset + c.length for c in counters), default=0)
    if need > block_size - VALUES_OFFSET:
        raise DataFileError(f"{where}: the schema needs {need} value bytes, the blocks hold "
                            f"{block_size - VALUES_OFFSET}")


# The magic and time of every block, for the checks and the time search.
def index_dtype(block_size: int) -> np.dtype:
    return np.dtype({"names": ["magic", "timestamp_us"], "formats": ["S4", "<u8"],
                     "offsets": [0, 8], "itemsize": block_size})


def padding_at_end(tail: bytes, tail_start: int, size: int, block_size: int) -> int:
    """Length of the zero padding that ends a file of `size` bytes.

    The padding runs from a block boundary to the end, is shorter than one
    I/O block, and only exists in files whose size is a multiple of it. `tail`
    holds the file's bytes from tail_start on, at least DIRECT_IO_BLOCK +
    block_size of them (or the whole file), which is where the last byte of
    data lies when there is padding.
    """
    if size % DIRECT_IO_BLOCK != 0:
        return 0
    stripped = tail.rstrip(b"\0")
    if not stripped:
        return 0
    last = tail_start + len(stripped) - 1
    start = HEADER_SIZE
    if last >= start:
        start += ((last - start) // block_size + 1) * block_size
    if start >= size or size - start >= DIRECT_IO_BLOCK:
        return 0
    return size - start

