"""Stored rows: the simulator's values, dtl-read's rows, damaged files."""
import os
import unittest

import numpy as np

import dtl_support as ds
from dtl_data import DataFile, DataFileError

N = 1500


class StoredValues(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        ds.store(cls, [("leaf1", N, [], 3, "in-octets,out-packets")])
        cls.path = ds.files(cls.root, "leaf1")[0]
        cls.bs = DataFile(cls.path).header.block_size

    def copy(self, name, edit):
        return ds.copy_with(self.path, os.path.join(self.root, "copies"), name + ".bin", edit)

    def test_rows_are_the_simulated_values_and_dtl_read_rows(self):
        self.assertEqual(self.stored, N)
        f = DataFile(self.path)
        rows = f.select()
        np.testing.assert_array_equal(rows["timestamp_us"], ds.START_US + np.arange(N) * 100)
        self.assertEqual([rows[c.column].tolist() for c in f.counters],
                         [[ds.value(i, k) for i in range(N)] for k in range(6)])
        self.assertEqual((f.source_id, f.header.last_timestamp, f.header.file_size),
                         ("leaf1", ds.START_US + (N - 1) * 100, os.path.getsize(self.path)))
        # Damaged copies: (edit, whole blocks read); all but padding warn.
        at = lambda b: 256 + b * self.bs  # noqa: E731
        zero_from = lambda b: lambda d: d[:at(b)] + bytes(len(d) - at(b))  # noqa: E731
        for name, edit, blocks in [
                ("original", lambda d: d, N),
                ("torn mid-block", lambda d: d[:at(700) + self.bs // 2], 700),
                ("zero-filled tail", zero_from(900), 900),
                ("zero padding to 4 KiB", lambda d: d + bytes(-len(d) % 4096 or 4096), N),
                ("zero tail after a cut", lambda d: zero_from(1000)(d[:at(1200) + 5]), 1000)]:
            with self.subTest(name):
                f = DataFile(self.copy(name.replace(" ", "_"), edit))
                rc, heading, cells, err = ds.dtl_read(f.path)
                self.assertEqual((rc, heading), (0, list(f.dtype.names)), err)
                rows = f.select()
                self.assertEqual(len(rows), blocks)
                self.assertEqual([tuple(map(int, r)) for r in cells], rows.tolist())
                self.assertEqual(bool(f.warnings), "warning" in err, (f.warnings, err))
                self.assertEqual(bool(f.warnings), name not in ("original", "zero padding to 4 KiB"))

    def test_bad_files_raise_and_dtl_read_fails(self):
        put = lambda offset, raw: lambda d: d[:offset] + raw + d[offset + len(raw):]  # noqa: E731
        for name, edit, message in [
                ("bad magic", put(0, b"XTLF"), "bad header magic"),
                ("newer major", put(4, bytes([2, 0])), "unsupported format version 2.0"),
                ("newer minor", put(4, bytes([1, 8])), "unsupported format version 1.8"),
                ("no schema", put(116, bytes(range(1, 17))), "schema_0102.* not found"),
                ("corrupt block", put(256 + 10 * self.bs, b"JUNK"), "corrupt block 10 ")]:
            with self.subTest(name):
                path = self.copy(name.replace(" ", "_"), edit)
                with self.assertRaisesRegex(DataFileError, message):
                    DataFile(path).select()
                self.assertEqual(ds.dtl_read(path)[0], 1)
        # Rows clear of the damaged block are still there.
        self.assertEqual(len(DataFile(path).select(ds.START_US + 1100)), N - 11)


if __name__ == "__main__":
    unittest.main()
