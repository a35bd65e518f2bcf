"""dtl-plot: the PNG it writes, its refusals, and the data of its lines."""
import os
import struct
import subprocess
import unittest

import matplotlib.pyplot as plt
import numpy as np

import dtl_support as ds
from dtl_data import DataRoot
from dtl_data.plot import plot_rates


class Plot(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        ds.store(cls, [("leaf1", 3000, [], 2, "in-octets,out-packets,drops"),
                       ("leaf2", 300, [], 1, "in-octets,out-packets")])

    def test_command_writes_png_or_explains(self):
        launcher = os.path.join(ds.BIN, "dtl-plot")
        if not os.path.exists(launcher):
            launcher = os.path.join(ds.SOURCE_DIR, "tools", "dtl_plot", "dtl-plot")
        for args, size, message in [
                ((), (1600, 900), ""), (("--size", "640x480"), (640, 480), ""),
                (("--switch", "leaf3"), None, "no data of switch 'leaf3'"),
                (("--max-lines", "3"), None, "6 counters selected, more than the 3"),
                (("--counters", "nothing"), None, "no counter matches 'nothing'"),
                (("--from", "yesterday"), None, "bad time 'yesterday'")]:
            with self.subTest(args=args):
                out = os.path.join(self.dir, "plot.png")
                done = subprocess.run([launcher, "--switch", "leaf1", *args, "-o", out, self.root],
                                      capture_output=True, text=True, timeout=60,
                                      env=dict(os.environ, PYTHONPATH=""))  # found from its path
                self.assertEqual(done.returncode, 0 if size else 1, done.stderr)
                self.assertIn(message, done.stderr)
                if size:
                    with open(out, "rb") as f:
                        head = f.read(24)
                    os.unlink(out)
                    self.assertEqual((head[:8], head[12:16]), (b"\x89PNG\r\n\x1a\n", b"IHDR"))
                    self.assertEqual(struct.unpack(">II", head[16:24]), size)
                self.assertFalse(os.path.exists(out))

    def test_lines_are_the_rates(self):
        window = (ds.START_US + 100_000, ds.START_US + 150_000, "octets|drops")
        fig, data = plot_rates([self.root], "leaf1", *window)
        self.addCleanup(plt.close, fig)
        rates = DataRoot(self.root)["leaf1"].rates(*window)
        ax = fig.axes[0]
        names = [line.get_label() for line in ax.get_lines()]
        self.assertEqual((names, list(data.columns)), (list(rates.dtype.names[1:]),) * 2)
        self.assertEqual([t.get_text() for t in ax.get_legend().get_texts()], names)
        for line in ax.get_lines():
            np.testing.assert_array_equal(line.get_xdata(), (rates["timestamp_us"] - rates[0][0]) / 1e3)
            np.testing.assert_array_equal(line.get_ydata(), rates[line.get_label()])
        self.assertEqual((ax.get_ylabel(), ax.get_xlabel()), (
            "rate (per second, bytes/s)", "time (ms since 2023-11-14T22:13:20.100100Z, UTC)"))
        self.assertIn("leaf1", ax.get_title())
        with self.assertRaisesRegex(Exception, "several switches \\(leaf1, leaf2\\)"):
            plot_rates([self.root])
        fig, _data = plot_rates(ds.files(self.root, "leaf2"), counters="octets")
        self.addCleanup(plt.close, fig)
        self.assertEqual(fig.axes[0].get_ylabel(), "bytes/s")


if __name__ == "__main__":
    unittest.main()
