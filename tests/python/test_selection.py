"""Rows by time window and counters by name, against the sample arithmetic
and dtl-read --from/--to/--counters."""
import datetime as dt
import os
import re
import unittest

import numpy as np

import dtl_support as ds
from dtl_data import DataFile, DataFileError

N = 3000
T0, LAST = ds.START_US, ds.START_US + (N - 1) * 100


class Selection(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        ds.store(cls, [("leaf1", N, [], 2, "in-octets,out-packets")])
        cls.path = ds.files(cls.root, "leaf1")[0]

    def assert_dtl_read_agrees(self, path, from_, to, pattern, rows):
        args = [a for o, v in (("--from", from_), ("--to", to), ("--counters", pattern))
                if v is not None for a in (o, v)]
        rc, heading, cells, err = ds.dtl_read(*args, path)
        self.assertEqual(rc, 0, err)
        self.assertEqual([tuple(map(int, r)) for r in cells], rows.tolist())
        self.assertEqual(heading or list(rows.dtype.names), list(rows.dtype.names))

    def test_windows_and_counters(self):
        f = DataFile(self.path)
        names = [c.column for c in f.counters]
        for from_, to, pattern, first, count in [  # ... the rows expected
                (T0, T0 + 1, None, 0, 1), (LAST, LAST + 1, None, N - 1, 1),
                (LAST, None, "out-packets", N - 1, 1), (None, T0 + 100, None, 0, 1),
                (T0 + 150, T0 + 250_001, "1/2", 2, 2499),
                ("2023-11-14T22:13:20.1Z", "2023-11-14 22:13:20.2", "in-octets", 1000, 1000),
                ("2023-11-14T23:13:20.1+01:00", "2023-11-14T22:13:20.100000999", "^i", 1000, 0),
                (dt.datetime(2023, 11, 14, 22, 13, 20, 100), np.datetime64(T0 + 301, "us"), None, 1, 3),
                ("2023-11-14", "2023-11-14T22:13", None, 0, 0),
                (LAST + 1, None, None, 0, 0), (T0 + 5000, T0 + 1000, None, 0, 0)]:
            with self.subTest(from_=from_, to=to, counters=pattern):
                rows = f.select(from_, to, pattern)
                picked = [k for k, n in enumerate(names) if re.search(pattern or "", n)]
                self.assertEqual(list(rows.dtype.names[1:]), [names[k] for k in picked])
                i = range(first, first + count)
                self.assertEqual(rows.tolist(), [(T0 + s * 100, *[ds.value(s, k) for k in picked])
                                                 for s in i])
                self.assert_dtl_read_agrees(self.path, from_, to, pattern, rows)
        with self.assertRaisesRegex(DataFileError, "no counter matches 'nothing-like-this'"):
            f.select(counters="nothing-like-this")
        for bad in ["2023-11-14T22", "2023-13-01", "22:13:20", "2023-11-14T22:13:20.1234567890"]:
            with self.subTest(bad=bad), self.assertRaisesRegex(ValueError, "bad time"):
                f.select(bad)

    def test_samples_out_of_order_are_found_within_64_blocks(self):
        # Sample 2000 stored `moved` blocks later (a late arrival) or earlier.
        bs, t = DataFile(self.path).header.block_size, T0 + 2000 * 100
        for moved, found in [(40, 1), (63, 1), (64, 0), (200, 0), (-63, 1), (-64, 0), (-200, 0)]:
            with self.subTest(moved=moved):
                def edit(d):
                    order = [b for b in range(N) if b != 2000]
                    order.insert(2000 + moved, 2000)
                    return d[:256] + b"".join(d[256 + b * bs:256 + (b + 1) * bs] for b in order)
                path = ds.copy_with(self.path, os.path.join(self.root, "moved"), f"{moved}.bin", edit)
                rows = DataFile(path).select(t, t + 1)
                self.assertEqual(len(rows), found)
                self.assert_dtl_read_agrees(path, t, t + 1, None, rows)

if __name__ == "__main__":
    unittest.main()
