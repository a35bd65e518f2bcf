"""dask on a real two-process cluster gives what the pandas path gives,
over files the collector rotated."""
import unittest
import warnings

import pandas as pd

import dtl_support as ds
from dtl_data import DataRoot
from dtl_data.cluster import files_frame, switch_frame


class Cluster(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        ds.store(cls, [("leaf1", 12000, ["--loss-every", "50"], 16, "in-octets,out-packets")],
                 "ipfix-disk-file-size-limit=1048576")
        cls.view = DataRoot(cls.root)["leaf1"]

    def setUp(self):
        from distributed import Client, LocalCluster
        warnings.filterwarnings("ignore", category=DeprecationWarning, module="tornado")
        cluster = LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                               dashboard_address=None, silence_logs=50)
        self.addCleanup(cluster.close, timeout=30)
        self.client = Client(cluster, timeout=30)
        self.addCleanup(self.client.close, timeout=30)

    def test_cluster_results_equal_the_pandas_path(self):
        files = len(self.view.files)
        self.assertGreaterEqual(files, 3)
        for window, pattern in [((None, None), None),
                                ((ds.START_US + 200_000, ds.START_US + 1_000_000), "1/(1|7):")]:
            with self.subTest(window=window, counters=pattern):
                rows = switch_frame(self.root, "leaf1", *window, counters=pattern)
                rates = files_frame(self.view, *window, counters=pattern, rates=True)
                self.assertEqual((rows.npartitions, rates.npartitions, rows.known_divisions),
                                 (files, files, True))
                counts, sums, top, whole = self.client.compute(
                    [rows.count(), rows.sum(), rates.max(), rates], sync=True, timeout=60)
                local_rows = self.view.frame(*window, pattern)
                pd.testing.assert_series_equal(counts, local_rows.count())
                pd.testing.assert_series_equal(sums, local_rows.sum())
                pd.testing.assert_series_equal(top, self.view.rates_frame(*window, pattern).max())
                # Rates run on across partitions: nothing lost at a file's end.
                pd.testing.assert_frame_equal(whole, self.view.rates_frame(*window, pattern))
        shuffled = files_frame([f.path for f in self.view.files][::-1], counters="1/3:")
        self.assertFalse(shuffled.known_divisions)
        got = self.client.compute(shuffled, sync=True, timeout=60)
        self.assertEqual(sorted(got.index), list(self.view.frame(counters="1/3:").index))


if __name__ == "__main__":
    unittest.main()
