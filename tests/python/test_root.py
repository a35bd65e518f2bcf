"""A data root of two switches, one rotated into several files: one
time-ordered view per switch, rows and rates running across its files."""
import json
import os
import subprocess
import unittest

import numpy as np

import dtl_support as ds
from dtl_data import DataRoot
from dtl_data.frame import rows_frame

BIG, SMALL = 12000, 500  # samples of leaf1 (about 3.3 MB, 1 MiB files) and leaf2


class Root(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        ds.store(cls, [("leaf1", BIG, [], 16, "in-octets,out-packets"),
                       ("leaf2", SMALL, ["--value-base", str(ds.WRAP_BASE)], 1, "in-octets")],
                 "ipfix-disk-file-size-limit=1048576")
        cls.data = DataRoot(cls.root)

    def test_one_time_ordered_view_per_switch(self):
        self.assertEqual((self.stored, list(self.data.switches)), (BIG + SMALL, ["leaf1", "leaf2"]))
        listed = subprocess.run([ds.program("dtl-ls"), "--json", self.root], capture_output=True,
                                text=True, timeout=60).stdout.splitlines()
        listed = {s["source"]: s for s in map(json.loads, listed)}
        for switch, n, files, base in [("leaf1", BIG, 3, 0), ("leaf2", SMALL, 1, ds.WRAP_BASE)]:
            with self.subTest(switch=switch):
                view = self.data[switch]
                self.assertGreaterEqual(len(view.files), files)
                self.assertEqual(sorted(f.path for f in view.files), ds.files(self.root, switch))
                self.assertEqual([(os.path.relpath(f.path, self.root), f.block_count) for f in view.files],
                                 [(f["path"], f["samples"]) for f in listed[switch]["file_list"]])
                rows = view.select()
                np.testing.assert_array_equal(rows["timestamp_us"], ds.START_US + np.arange(n) * 100)
                last = rows.dtype.names[-1]
                self.assertEqual(rows[last].tolist(),
                                 [ds.value(i, len(rows.dtype) - 2, base) for i in range(n)])
                # One rate per sample but the first: no interval lost where a file ends.
                rates = view.rates()
                self.assertEqual(len(rates), n - 1)
                self.assertTrue(all((rates[c] == ds.RATE).all() for c in rates.dtype.names[1:]))
                self.assertTrue(view.rates_frame().equals(rows_frame(rates)))
                rc, _heading, cells, err = ds.dtl_read("--rate", *[f.path for f in view.files])
                self.assertEqual(rc, 0, err)
                self.assertEqual([tuple(map(ds.number, r)) for r in cells], rates.tolist())

    def test_a_window_across_a_file_boundary(self):
        view = self.data["leaf1"]
        edge = view.files[1].first_time_us
        window = (edge - 5000, edge + 5000, "Ethernet1/16:")
        rows = view.select(*window)
        self.assertEqual(rows["timestamp_us"].tolist(), list(range(edge - 5000, edge + 5000, 100)))
        self.assertEqual((len(view.rates(*window)), view.frame(*window).shape), (99, (100, 2)))
        rc, _heading, cells, err = ds.dtl_read(
            "--from", window[0], "--to", window[1], "--counters", window[2],
            *[f.path for f in view.files])
        self.assertEqual((rc, [tuple(map(int, r)) for r in cells]), (0, rows.tolist()), err)


if __name__ == "__main__":
    unittest.main()
