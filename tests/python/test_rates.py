"""Rates: the formula's exact value through wraps and gaps, late and reset
rows, counters of other types, and bit for bit what dtl-read --rate prints."""
import json
import os
import unittest

import numpy as np

import dtl_support as ds
from dtl_data import DataFile

RATE = ds.RATE


class Rates(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        ds.store(cls, [("plain", 1200, [], 2, "in-octets,out-packets"),
                       ("wrap", 1500, ["--value-base", str(ds.WRAP_BASE)], 2, "in-octets,out-packets"),
                       ("lossy", 1500, ["--loss-every", "7"], 1, "in-octets,out-packets"),
                       ("burst", 1200, ["--burst", "10000:1000"], 2, "in-octets,out-packets")])

    def assert_same_as_dtl_read(self, path, rates, *args):
        rc, heading, cells, err = ds.dtl_read("--rate", *args, path)
        self.assertEqual((rc, heading), (0, list(rates.dtype.names)), err)
        np.testing.assert_array_equal(np.array([[ds.number(c) for c in r] for r in cells], float),
                                      np.array(rates.tolist(), float).reshape(len(cells), -1))

    def test_rates_are_the_formula_and_dtl_read_rates(self):
        window = ("--from", ds.START_US + 10000, "--to", ds.START_US + 20000, "--counters", "out")
        for switch, args, rows_expected in [("plain", (), 1200), ("wrap", (), 1500),
                                            ("lossy", (), 1500 - 1500 // 7), ("plain", window, 100)]:
            with self.subTest(switch=switch, args=args):
                f = DataFile(ds.files(self.root, switch)[0])
                rows, rates = f.select(*args[1::2]), f.rates(*args[1::2])
                self.assertEqual(len(rows), rows_expected)
                self.assertEqual(len(rates), len(rows) - 1)
                self.assertEqual(rates.dtype.names, rows.dtype.names)
                self.assertTrue(all((rates[n] == RATE).all() for n in rates.dtype.names[1:]))
                self.assert_same_as_dtl_read(f.path, rates, *args)
        gaps = np.diff(DataFile(ds.files(self.root, "lossy")[0]).select()["timestamp_us"])
        wrapped = DataFile(ds.files(self.root, "wrap")[0]).blocks["interface=Ethernet1/1:in-octets"]
        self.assertEqual((gaps.max(), wrapped[998] > wrapped[999]), (200, True))

    def test_microbursts(self):
        # Every 100th sample starts 10 burst samples: counter k grows k % 4 + 2 times as fast.
        rates = DataFile(ds.files(self.root, "burst")[0]).rates()
        self.assertEqual(len(rates), 1199)
        for t, *row in rates.tolist():
            i = (t - ds.START_US) // ds.INTERVAL_US
            factor = [k % 4 + 2 if i % 100 < 10 else 1 for k in range(len(row))]
            self.assertEqual(row, [float(f * 1000003) * 1e6 / 100 for f in factor], i)

    def test_late_and_reset_rows(self):
        src = ds.files(self.root, "plain")[0]
        at = lambda b: 256 + b * DataFile(src).header.block_size  # noqa: E731
        def edit(d):
            d[at(50) + 8:at(50) + 16] = (ds.START_US + 5037).to_bytes(8, "little")  # odd intervals
            return (d[:at(10)] + d[at(11):at(12)] + d[at(10):at(11)]   # 11 before 10: 10 is late
                    + d[at(12):at(20)] + d[at(20):at(20) + 16] + d[16 + at(0):at(1)]  # 20: 0's values
                    + d[at(21):at(30)] + d[at(29):at(30)] + d[at(31):])  # 30 repeats 29
        path = ds.copy_with(src, os.path.join(self.root, "edited"), "late.bin", edit)
        rates = DataFile(path).rates()
        by_sample = {(t - ds.START_US) // 100: r for t, r, *_ in rates.tolist()}
        self.assertEqual(len(rates), 1200 - 3)
        self.assertNotIn(10, by_sample)
        self.assertEqual((by_sample[11], by_sample[31]), (RATE, RATE))  # over two intervals
        self.assertTrue(np.isnan(by_sample[20]))  # went down: a reset
        self.assertEqual(by_sample[21], 21 * 1000003 * 1e6 / 100)
        self.assertEqual((by_sample[50], by_sample[51]), (1000003 * 1e6 / 137, 1000003 * 1e6 / 63))
        self.assert_same_as_dtl_read(path, rates)

    def test_counter_types_rate_by_their_width(self):
        # The wrap switch's file under a schema reading its bytes as other types.
        src = ds.files(self.root, "wrap")[0]
        typed = os.path.join(self.dir, "typed")
        counters = [("u32", "UINT64", 0, 4), ("u16", "UNDEFINED", 8, 2), ("i64", "INT64", 8, 8),
                    ("f64", "FP64", 16, 8), ("bits", "BIT64", 24, 8), ("wide", "UINT128", 0, 16),
                    ("u32", "UINT64", 0, 8)]
        os.makedirs(os.path.join(typed, "schema"))
        with open(os.path.join(typed, "schema", f"schema_{DataFile(src).header.counters_schema_id}"
                               ".json"), "w") as f:
            json.dump({"counter_groups": [{"counters": [
                dict(name=n, description="", units="", data_type=t, counting_type="RUNNING_SUM",
                     offset=o, length=ln) for n, t, o, ln in counters]}]}, f)
        f = DataFile(ds.copy_with(src, os.path.join(typed, "2023"), "typed.bin", bytes))
        rows, rates = f.select(), f.rates()
        self.assertEqual(rates.dtype.names, ("timestamp_us", "u32#0", "u16", "i64", "f64", "u32#6"))
        self.assertEqual(rows["u32#0"].tolist(), [ds.value(i, 0, ds.WRAP_BASE) & 0xFFFFFFFF
                                                  for i in range(1500)])
        for name, rate in [("u32#0", RATE), ("u16", 1000003 % 65536 * 1e4), ("i64", RATE),
                           ("u32#6", RATE)]:  # through their wraps
            self.assertTrue((rates[name] == rate).all(), name)
        rc, heading, cells, err = ds.dtl_read(f.path)
        self.assertEqual((rc, heading), (0, list(rows.dtype.names)), err)
        read = {"f64": float, "bits": lambda c: int(c, 16), "wide": lambda c: bytes.fromhex(c[2:]),
                "u32#0": lambda c: int.from_bytes(bytes.fromhex(c[2:]), "little"),
                "u16": lambda c: int.from_bytes(bytes.fromhex(c[2:]), "little")}
        for k, name in enumerate(heading[1:], start=1):
            ours = rows[name].tolist() if name != "wide" else [bytes(v) for v in rows[name]]
            self.assertEqual([read.get(name, int)(r[k]) for r in cells], ours, name)
        self.assert_same_as_dtl_read(f.path, rates)


if __name__ == "__main__":
    unittest.main()
