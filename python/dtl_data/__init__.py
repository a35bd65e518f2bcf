"""dtl_data: reading the collector's data files with numpy, pandas and dask.

The collector stores each switch's counter samples as fixed-size blocks in
data files under its data root (see dtl_data.layout for the format). This
package maps those files into memory and gives the same answers as dtl-read:
the same rows for a time window and a counter pattern, and the same rates,
bit for bit.

One file::

    from dtl_data import DataFile

    f = DataFile("/data/dtl/2023/1114/leaf1/ipfix_1700000000000000.bin")
    f.header.source_id, f.block_count, [c.column for c in f.counters]
    rows = f.select(from_="2023-11-14T22:13:20Z", to="2023-11-14T22:13:21Z",
                    counters=r"Ethernet1/1:.*octets")   # numpy structured array
    rates = f.rates(counters="octets")                  # per second, NaN at a reset
    df = f.frame(counters="octets")                     # pandas, UTC DatetimeIndex "time"

A data root, one time-ordered view per switch (rates run on across the files
the collector rotated)::

    from dtl_data import DataRoot

    root = DataRoot("/data/dtl")
    leaf1 = root["leaf1"]
    per_second = leaf1.rates_frame(from_="2023-11-14T22:13", counters="in-octets")

Times are microseconds since the epoch (int), ISO 8601 text (UTC unless a
zone is given), datetime (naive = UTC) or numpy datetime64; from_ is
inclusive, to exclusive. counters is a regular expression searched in each
counter's name.

The same analysis with dask, one partition per data file: on one machine
the partitions are read by local worker processes, on a cluster by its
workers, which must see the data root under the same path (e.g. an NFS
mount)::

    from distributed import Client, LocalCluster
    from dtl_data.cluster import switch_frame

    def busiest_second(client):
        rates = switch_frame("/data/dtl", "leaf1", counters="in-octets", rates=True)
        per_second = rates.resample("1s").mean()   # divisions are known: no shuffle
        return client.compute(per_second.max(), sync=True)

    if __name__ == "__main__":  # local worker processes import the script
        # On one machine:
        with LocalCluster(n_workers=4, threads_per_worker=1) as cluster, Client(cluster) as client:
            print(busiest_second(client))

        # On a cluster (started with `dask scheduler` and `dask worker tcp://head:8786`
        # on hosts that mount the data root at /data/dtl, with this package installed):
        with Client("tcp://head:8786") as client:
            print(busiest_second(client))

dtl_data.cluster.files_frame takes a list of file paths (or a switch view)
instead; both take the same from_, to and counters as the numpy methods.

Errors in the data raise DataFileError: a file that is not a data file, of
an unsupported format version, whose schema cannot be found, or a corrupt
block among the rows asked for. A file cut short by a crash is read up to
its last whole block, like dtl-read does; the reason is in DataFile.warnings.

The command dtl-plot (dtl_data.plot) draws rates to a PNG image.
"""
from .datafile import DataFile, DataFileWarning
from .layout import Counter, DataFileError, Header
from .root import DataRoot, SwitchView
from .selection import parse_time

__all__ = ["Counter", "DataFile", "DataFileError", "DataFileWarning", "DataRoot", "Header",
           "SwitchView", "parse_time"]
