#!/usr/bin/env python3
"""Writes docs/performance.md, its plots and the figures of the README from a run of the benchmarks.

Usage: report.py RESULTS.json ROOT

The words stand in performance.md.in beside this script. What it has between @ signs is a function
below with its arguments: @time HTTP/Get1KiB@. The part between the two marks of figures is copied
to the README, between the same marks.
"""

import json
import pathlib
import platform
import re
import subprocess
import sys

BESIDE = "beside "
AT_MOST = "at most "
DISTURBANCE = 0.02  # as in Compare.h
FIGURES = re.compile(r"(<!-- figures -->\n).*(<!-- end of figures -->)", re.DOTALL)


def duration(nanoseconds):
    for unit in ("ns", "µs", "ms"):
        if nanoseconds < 1000:
            return f"{nanoseconds:.3g} {unit}"
        nanoseconds /= 1000
    return f"{nanoseconds:.3g} s"


def size(count):
    if count < 10_000:
        return f"{count:,.0f} bytes"
    if count < 10 * 1024 * 1024:
        return f"{count / 1024:,.0f} KiB"
    return f"{count / 1024 / 1024:,.0f} MiB"


class Report:
    def __init__(self, results, plots):
        self.context = results["context"]
        self.rows = {row["name"].split("/iterations")[0]: row for row in results["benchmarks"]}
        self.plots = plots

    def family(self, family):
        """The rows of a family that were measured, with their names in it."""
        return {
            name.split("/", 1)[1]: row
            for name, row in self.rows.items()
            if name.startswith(family + "/") and not row.get("error_occurred")
        }

    # The functions of the template.

    def time(self, name):
        return duration(self.rows[name]["ours_ns"])

    def time_of(self, name, peer):
        return duration(self.rows[name]["floor_ns"] * self.rows[name][BESIDE + peer])

    def floor(self, name):
        return duration(self.rows[name]["floor_ns"])

    def ratio(self, name):
        return f"{self.rows[name]['ratio']:.2f}"

    def ratio_to(self, name, peer):
        """Ours to a peer, which is given by its name."""
        return f"{self.rows[name]['ratio'] / self.rows[name][BESIDE + peer]:.2f}"

    def peer_to_ours(self, name, peer):
        return f"{self.rows[name][BESIDE + peer] / self.rows[name]['ratio']:.2f}"

    def more_than_floor(self, name):
        row = self.rows[name]
        return duration(row["ours_ns"] - row["floor_ns"])

    def bytes(self, name):
        return size(self.rows[name]["bytes"])

    def megabytes_a_second(self, name, mebibytes):
        return f"{int(mebibytes) * 1.048576 / (self.rows[name]['ours_ns'] / 1e9):,.0f} MB/s"

    def millions_a_second(self, name, calls):
        return f"{int(calls) / self.rows[name]['ours_ns'] * 1000:.0f} million"

    def machine(self):
        cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
        system = re.search(r'PRETTY_NAME="(.*)"', pathlib.Path("/etc/os-release").read_text())
        lines = [
            f"Measured on {self.context['date'][:10]} on {self.context['num_cpus']} CPUs",
            f"({cpu[1]}, {self.context['mhz_per_cpu']} MHz) under {system[1]}, Linux",
            f"{platform.release()}, with {self.context['compiler']};",
            f"beside it {self.context['libraries']}.",
        ]
        return " ".join(lines)

    def table(self, family):
        rows = self.family(family)
        if not rows:
            return "Not measured: the server was missing."
        if all("bytes" in row for row in rows.values()):
            lines = ["| Row | What | Size | At most |", "|---|---|--:|--:|"]
            for name, row in rows.items():
                limit = row.get(AT_MOST + "bytes")
                lines.append(
                    f"| {name} | {row['label']} | {size(row['bytes'])} "
                    f"| {size(limit) if limit else ''} |"
                )
            return "\n".join(lines)
        lines = [
            "| Row | What against what | Ours | Floor | Ratio | Quartiles | At most | Others |",
            "|---|---|--:|--:|--:|:-:|--:|---|",
        ]
        for name, row in rows.items():
            lines.append(
                f"| {name} | {row['label']} | {duration(row['ours_ns'])} "
                f"| {duration(row['floor_ns'])} | {row['ratio']:.3f} "
                f"| {row['low']:.3f} to {row['high']:.3f} | {self.limit(row)} "
                f"| {self.others(row)} |"
            )
        return "\n".join(lines)

    def plot(self, family):
        rows = self.family(family)
        if not rows:
            return ""
        self.plots.mkdir(exist_ok=True)
        path = self.plots / f"{family.lower()}.svg"
        subprocess.run(["gnuplot"], input=plot_script(rows, path), text=True, check=True)
        # So that a new run changes what it measured, and no more.
        text = re.sub(r"[ \t]+$", "", path.read_text(), flags=re.MULTILINE)
        path.write_text(text)
        return f"![{family}: times of the floor](performance/{path.name})"

    @staticmethod
    def limit(row):
        if abs(row["floor_again"] - 1) > DISTURBANCE:
            return "disturbed"
        for counter, value in row.items():
            if counter.startswith(AT_MOST):
                of = counter[len(AT_MOST) :]
                text = duration(value) if of == "ours_ns" else f"{value:.2f}"
                return text if row[of] <= value else f"**{text}**"
        return ""

    @staticmethod
    def others(row):
        return ", ".join(
            f"{counter[len(BESIDE):]} {value:.2f}" if value >= 0.1 else
            f"{counter[len(BESIDE):]} {value:.3f}"
            for counter, value in row.items()
            if counter.startswith(BESIDE)
        )

    def fill(self, template):
        def call(match):
            function, *arguments = match[1].split(" ", 2)
            try:
                return getattr(self, function)(*arguments)
            except KeyError as missing:
                sys.exit(f"report.py: the run has no {missing}, which {match[0]} tells of")

        return re.sub(r"@([^@\n]+)@", call, template)


def limit_as_ratio(row):
    if AT_MOST + "ours_ns" in row:
        return row[AT_MOST + "ours_ns"] / row["floor_ns"]
    return row.get(AT_MOST + "ratio")


def curves_of(rows):
    """The points of each curve, (ratio, place) or with quartiles, by the curve's name."""
    curves = {"limit": [], "ours": []}
    for place, row in enumerate(rows.values()):
        curves["ours"].append((row["ratio"], place, row["low"], row["high"]))
        if limit_as_ratio(row):
            curves["limit"].append((limit_as_ratio(row), place))
        for counter, value in row.items():
            if counter.startswith(BESIDE):
                curves.setdefault(counter[len(BESIDE) :], []).append((value, place))
    return {name: points for name, points in curves.items() if points}


def tics_between(low, high):
    if high / low > 50:
        return "1"
    return "0.2, 0.5, 1, 2, 5, 10, 20" if high / low > 3 else "0.7, 0.8, 0.9, 1, 1.1, 1.2, 1.5, 2"


def plot_script(rows, path):
    """Ours with its quartiles, the limits and the others, as times of the floor; rows downwards."""
    curves = curves_of(rows)
    styles = {
        "limit": "with points pt 2 ps 1.2 lw 2 lc rgb '#c03030'",
        "ours": "using 1:2:3:4 with xerrorbars pt 7 ps 0.8 lw 2 lc rgb '#2050a0'",
    }
    marks = iter([4, 6, 8, 10, 12, 14])
    data, plots = [], []
    for i, (name, points) in enumerate(curves.items()):
        lines = (" ".join(map(str, point)) for point in points)
        data.append(f"$curve{i} << EOD\n" + "\n".join(lines) + "\nEOD\n")
        style = styles.get(name) or f"with points pt {next(marks)} ps 0.9 lc rgb '#606060'"
        plots.append(f"$curve{i} {style} title '{name}'")
    ratios = [point[0] for points in curves.values() for point in points]
    low, high = 0.9 * min(ratios), 1.1 * max(ratios)
    tics = ", ".join(f"'{name}' {place}" for place, name in enumerate(rows))
    height = 70 + max(24 * len(rows), 18 * len(curves))
    return f"""{''.join(data)}
set terminal svg size 860,{height} name '{path.stem}' font 'sans-serif,12' background '#ffffff'
set output '{path}'
set key outside right center vertical Left reverse
set logscale x
set format x '%g'
set xtics add ({tics_between(low, high)})
set xrange [{low}:{high}]
set xlabel 'times of the floor (less is faster)'
set yrange [{len(rows) - 0.5}:-0.5]
set ytics ({tics})
set grid ytics lc rgb '#e0e0e0'
set arrow from 1, graph 0 to 1, graph 1 nohead lc rgb '#a0a0a0'
set lmargin 24
set rmargin 26
plot {', '.join(plots)}
"""


def main():
    results, root = sys.argv[1], pathlib.Path(sys.argv[2]).resolve()
    docs = root / "docs"
    report = Report(json.loads(pathlib.Path(results).read_text()), docs / "performance")
    template = pathlib.Path(__file__).with_name("performance.md.in").read_text()
    text = report.fill(template)
    (docs / "performance.md").write_text(text)
    readme = root / "README.md"
    figures = FIGURES.search(text)
    readme.write_text(FIGURES.sub(lambda _: figures[0], readme.read_text()))


if __name__ == "__main__":
    main()
