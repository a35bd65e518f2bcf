"""dtl-plot: counter rates over time, drawn to a PNG file.

plot_rates() returns the figure and the rates it drew, so a caller (or a
test) can check the picture's data against the package's own rates; main()
is the command line.
"""
from __future__ import annotations

import argparse
import datetime as _dt
import os
import re
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402  (the backend must be chosen first)
from matplotlib.ticker import EngFormatter  # noqa: E402

from .layout import DataFileError  # noqa: E402
from .root import DataRoot  # noqa: E402

DEFAULT_SIZE = (1600, 900)
DPI = 100
DEFAULT_MAX_LINES = 16

DESCRIPTION = """\
Draws the per-second rates of counters stored by the collector as a PNG
image: one line per counter, time on the x axis, the rate on the y axis.

The input is a data root (the directory given to the collector as its data
path) or one or more data files. The rates are those of dtl-read --rate: the
increase of a counter between consecutive samples divided by the time
between them; a counter that went down (reset) leaves a gap in its line,
samples stored late are left out, and rates run on across the files of a
switch."""

EPILOG = """\
times (--from, --to):
  microseconds since the Unix epoch, or ISO 8601 in UTC unless a zone is
  given: YYYY-MM-DD, YYYY-MM-DDTHH:MM[:SS[.fraction]][Z|+HH:MM|-HH:MM]
  (a space may replace the T). --from is inclusive, --to exclusive.

axes:
  x: seconds (or milliseconds for windows under a second) since the first
  sample drawn, whose UTC time is in the axis label. y: the counter's units
  per second when the schema gives units, else bytes/s for counters named
  *byte* or *octet*, packets/s for *packet*, else per second; ticks use SI
  prefixes (k, M, G, ...).

examples:
  dtl-plot --switch leaf1 --counters 'Ethernet1/1:.*octets' -o leaf1.png /data/dtl
  dtl-plot --from 2023-11-14T22:13:20Z --to 2023-11-14T22:13:21Z \\
           -o second.png /data/dtl/2023/1114/leaf1/ipfix_1700000000000000.bin

exit status: 0 the image was written; 1 the data could not be read or
nothing matched; 2 usage error."""


class PlotError(Exception):
    """What keeps a plot from being drawn, in words for the user."""


def rate_unit(counter) -> str:
    """The unit of a counter's rate: from its schema units, else its name."""
    if counter.units:
        return f"{counter.units}/s"
    # The name's last part is the counter itself; the labels before it
    # (interface=..., traffic_class=...) say where it counts.
    name = counter.name.lower().rsplit(":", 1)[-1]
    if "byte" in name or "octet" in name:
        return "bytes/s"
    if "packet" in name or "pkt" in name:
        return "packets/s"
    return "/s"


def iso(us: int) -> str:
    moment = _dt.datetime(1970, 1, 1, tzinfo=_dt.timezone.utc) + _dt.timedelta(microseconds=us)
    return moment.strftime("%Y-%m-%dT%H:%M:%S.%fZ")


def choose_view(sources, switch=None):
    """The switch view to draw from a data root or files."""
    sources = [os.fspath(s) for s in sources]
    if len(sources) == 1 and os.path.isdir(sources[0]):
        root = DataRoot(sources[0])
    else:
        root = DataRoot.from_files(sources)
    if root.errors and not len(root):
        raise PlotError("; ".join(message for _path, message in root.errors))
    if not len(root):
        raise PlotError(f"no data files in {', '.join(sources)}")
    if switch is None:
        if len(root) > 1:
            raise PlotError(f"the data holds several switches ({', '.join(root.switches)}); "
                            "choose one with --switch")
        return next(iter(root))
    try:
        return root[switch]
    except KeyError as e:
        raise PlotError(e.args[0]) from None


def plot_rates(sources, switch=None, from_=None, to=None, counters=None, size=DEFAULT_SIZE,
               max_lines=DEFAULT_MAX_LINES):
    """Draws the rates; returns (figure, rates DataFrame drawn)."""
    view = choose_view(sources, switch)
    try:
        rates = view.rates_frame(from_, to, counters)
    except (DataFileError, ValueError) as e:
        raise PlotError(str(e)) from None
    by_column = {c.column: c for f in view.files for c in f.counters}
    columns = [c for c in rates.columns]
    if not columns:
        raise PlotError("none of the selected counters has a rate")
    if len(columns) > max_lines:
        raise PlotError(f"{len(columns)} counters selected, more than the {max_lines} lines one "
                        "plot can show legibly; narrow them with --counters (or raise --max-lines)")
    if rates.empty:
        raise PlotError(f"switch {view.name}: no two samples in the window to take a rate from")
    start_us = int(rates.index[0].value // 1000)
    end_us = int(rates.index[-1].value // 1000)
    # Windows under a second read better in milliseconds.
    per_unit, unit = (1e3, "ms") if end_us - start_us < 1_000_000 else (1e6, "s")
    x = (rates.index.asi8 // 1000 - start_us) / per_unit

    fig = plt.figure(figsize=(size[0] / DPI, size[1] / DPI), dpi=DPI)
    ax = fig.add_subplot(1, 1, 1)
    for column in columns:
        ax.plot(x, rates[column].to_numpy(), label=column, linewidth=1)
    units = sorted({rate_unit(by_column[c]) for c in columns})
    # Ticks read "50 GB/s"; the axis label spells the unit out.
    tick_unit = {"bytes/s": "B/s"}.get(units[0], units[0]) if len(units) == 1 else ""
    ax.yaxis.set_major_formatter(EngFormatter(unit=tick_unit))
    words = ["per second" if u == "/s" else u for u in units]
    ax.set_ylabel(words[0] if len(words) == 1 else "rate (" + ", ".join(words) + ")")
    ax.set_xlabel(f"time ({unit} since {iso(start_us)}, UTC)")
    ax.set_title(f"switch {view.name}: {iso(start_us)} .. {iso(end_us)}")
    ax.grid(True, alpha=0.3)
    ax.legend(loc="best", fontsize="small")
    fig.tight_layout()
    return fig, rates


def _size(text: str):
    m = re.fullmatch(r"(\d+)[xX](\d+)", text)
    if not m or not (16 <= int(m.group(1)) <= 20000 and 16 <= int(m.group(2)) <= 20000):
        raise argparse.ArgumentTypeError(f"bad size {text!r}: expected WIDTHxHEIGHT in pixels, "
                                         "each 16 to 20000")
    return int(m.group(1)), int(m.group(2))


def parser() -> argparse.ArgumentParser:
    p = argparse.ArgumentParser(prog="dtl-plot", description=DESCRIPTION, epilog=EPILOG,
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("sources", nargs="+", metavar="DATA_ROOT|FILE",
                   help="a data root directory, or data files")
    p.add_argument("--switch", metavar="NAME",
                   help="the switch to draw (its source id); needed when the data holds several")
    p.add_argument("--from", dest="from_", metavar="T", help="first time drawn (inclusive)")
    p.add_argument("--to", metavar="T", help="end of the time drawn (exclusive)")
    p.add_argument("--counters", metavar="REGEX",
                   help="counters whose schema name contains a match (Python re.search); "
                        "default all")
    p.add_argument("-o", "--output", metavar="OUT.png", default="dtl-plot.png",
                   help="the PNG file to write (default dtl-plot.png)")
    p.add_argument("--size", metavar="WxH", type=_size, default=DEFAULT_SIZE,
                   help=f"image size in pixels (default {DEFAULT_SIZE[0]}x{DEFAULT_SIZE[1]}, "
                        f"at {DPI} dpi)")
    p.add_argument("--max-lines", metavar="N", type=int, default=DEFAULT_MAX_LINES,
                   help=f"refuse to draw more lines than this (default {DEFAULT_MAX_LINES})")
    return p


def main(argv=None) -> int:
    args = parser().parse_args(argv)
    try:
        fig, _rates = plot_rates(args.sources, args.switch, args.from_, args.to, args.counters,
                                 args.size, args.max_lines)
    except (PlotError, DataFileError, ValueError) as e:
        print(f"dtl-plot: error: {e}", file=sys.stderr)
        return 1
    try:
        fig.savefig(args.output, dpi=DPI, format="png")
    except OSError as e:
        print(f"dtl-plot: error: cannot write {args.output}: {e.strerror}", file=sys.stderr)
        return 1
    finally:
        plt.close(fig)
    print(describe(args.output, args.size, fig, _rates))
    return 0


def describe(output, size, fig, rates) -> str:
    """What was drawn, in words: the picture's title and each line's usual
    (median) and highest rate, so a burst shows in text too."""
    eng = EngFormatter(places=3, sep=" ")
    lines = [f"dtl-plot: wrote {output} ({size[0]}x{size[1]} px): {fig.axes[0].get_title()}, "
             f"{len(rates.columns)} line(s) of {len(rates)} rates"]
    for column in rates.columns:
        values = rates[column].dropna()
        if len(values):
            lines.append(f"  {column}: median {eng(values.median())}, max {eng(values.max())} per second")
    return "\n".join(lines)
