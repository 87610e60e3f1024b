"""docs/performance.md: its table and its plots."""

import datetime
import os
import pathlib
import platform
import subprocess
import tempfile

import table
from figures import compared, share_of_limit
from systems import systems

folder = pathlib.Path(__file__).parent
docs = folder.parent / "docs"

rows = [
    *((f"{way}, {title}, messages/s", f"rate {way} {size}")
      for way in ("up", "down")
      for title, size in (("1 B", 1), ("200 B", 200), ("4 KiB", 4096), ("64 KiB", 1 << 16),
                          ("1 MiB", 1 << 20), ("16 MiB", 1 << 24))),
    *((f"one message of 1 MiB {way}, ms", f"one {way}") for way in ("up", "down")),
    *((f"latency {way}, {percent}, µs", f"latency {way} {percent}")
      for way in ("up", "down") for percent in ("p50", "p99")),
    ("wake-ups a minute at rest", "rest wake-ups"),
    ("processor time a minute at rest, ms", "rest cpu"),
    ("private memory, kB", "rest memory"),
    ("of it written to, kB", "rest written"),
]


def cell(found, system, measure):
    median = found.median(system, measure)
    if median is None:
        return "–"
    digits = max(0, 2 - len(str(int(median))))
    return f"{median:,.{digits}f} ±{found.spread(system, measure):.0%}"


def table_of(found, columns):
    lines = ["| | " + " | ".join(systems[name][0] for name in columns) + " |",
             "|---" * (len(columns) + 1) + "|"]
    lines += [f"| {title} | " + " | ".join(cell(found, name, measure) for name in columns) + " |"
              for title, measure in rows]
    return "\n".join(lines)


def shares_of(found, columns):
    """The table of the shares that the bridges have of their limit."""
    bridges = [name for name in columns if name in ("event", "c", "python", "node", "mosquitto")]
    lines = ["| | " + " | ".join(systems[name][0] for name in bridges) + " |",
             "|---" * (len(bridges) + 1) + "|"]
    for measure in compared:
        shares = [share_of_limit(found.median, name, measure) for name in bridges]
        cells = ["–" if share is None else f"{share:.2f}" for share in shares]
        lines.append(f"| {measure} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def write_data(found, columns, place):
    """One file for each curve: abscissa, median, smallest and largest."""
    curves = [f"{measure} {way}" for measure in ("rate", "latency", "backlog")
              for way in ("up", "down")]
    for name in columns:
        for curve in curves:
            points = [(number, found.median(name, measure), *(
                extreme(found.values[name, measure]) for extreme in (min, max)))
                for number, measure in found.series(name, curve)]
            if points:
                text = "".join(" ".join(map(str, point)) + "\n" for point in points)
                (place / f"{name} {curve}").write_text(text)
    (place / "wake-ups").write_text("".join(
        f'"{systems[name][0].strip("`")}" {found.median(name, "rest wake-ups")}\n'
        for name in columns if found.median(name, "rest wake-ups") is not None))


def draw(found, columns):
    # The harness alone would make the scale longer by some decades.
    columns = [name for name in columns if name != "raw"]
    with tempfile.TemporaryDirectory() as place:
        write_data(found, columns, pathlib.Path(place))
        for plot in ("throughput", "latency", "backlog", "wake-ups"):
            names = " ".join(columns)
            titles = " ".join(f"'{systems[name][0].strip('`')}'" for name in columns)
            values = f'names="{names}"; titles="{titles}"; plot_name="{plot}"'
            drawing = subprocess.run(["gnuplot", "-e", values, folder / "plots.gnuplot"], cwd=place,
                                     check=True, stdout=subprocess.PIPE, text=True).stdout
            (docs / "pictures" / f"performance-{plot}.svg").write_text("".join(
                line for line in drawing.splitlines(keepends=True)
                if "<desc>Produced by GNUPLOT" not in line))


def write(found, runs, dropped):
    columns = [name for name in systems if any(owner == name for owner, _ in found.values)]
    system = platform.freedesktop_os_release()["PRETTY_NAME"]
    note = (f"Measured on {datetime.date.today().isoformat()}, {system}, {platform.machine()} with "
            f"{os.cpu_count()} processors. Each figure is the median of {runs} runs, ± is half "
            f"the distance between the smallest and the largest. {dropped} measurements were dropped, "
            "because others used the processors meanwhile.")
    table.write(docs / "performance.md",
                f"{note}\n\n{table_of(found, columns)}\n\nThe share of the library alone that each "
                f"bridge reaches:\n\n{shares_of(found, columns)}")
    found.write(docs / "performance.tsv")
    draw(found, columns)
