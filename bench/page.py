#!/usr/bin/env python3
"""Writes the performance page and its charts from the results that measure.py kept.

usage: page.py RESULTS_FOLDER NOTES_FOLDER PAGE.md

Every figure of the tables and charts comes from the results; the reasons come from the notes, one
small file a family. A family that loses a row to a peer must have a note. A page of another
processor that is there is kept beside the new one, under that processor's name.
"""
import json
import pathlib
import re
import shutil
import sys

import charts
from families import FAMILIES
from report import columns, geometric_mean, is_ours, ratios, read, size_order

INTRODUCTION = """# Performance

Written by `scripts/bench`; do not edit: the tables come from its measurements, the reasons from
`bench/notes`. Each row was measured beside its peers in one process, interleaved; times are medians
of processor time in nanoseconds, of a call where the program counts calls, else of an iteration. A
ratio is peer / ours: above 1, ours is faster. On a machine that others share single rows move by a
tenth from run to run, those of a mebibyte and more by more.
"""


def table(head, lines):
    rule = ["---"] + ["---:"] * (len(head) - 1)
    return "\n".join("| " + " | ".join(cells) + " |" for cells in [head, rule, *lines]) + "\n"


def figure(value):
    return f"{value:.1f}" if value < 1000 else f"{value:.0f}"


def detail(rows):
    """Returns a table for each of ours in rows {row: {contender: Measured}}: times and ratios."""
    contenders = sorted({c for row in rows.values() for c in row})
    peers = [c for c in contenders if not is_ours(c)]
    tables = []
    for ours in filter(is_ours, contenders):
        lines = []
        for row in sorted((r for r in rows if ours in rows[r]), key=size_order):
            cells = rows[row]
            line = [row, figure(cells[ours].ns)]
            for peer in peers:
                line += ([figure(cells[peer].ns), f"{cells[peer].ns / cells[ours].ns:.2f}"]
                         if peer in cells else ["", ""])
            lines.append(line)
        head = ["row", ours, *(title for peer in peers for title in (peer, "ratio"))]
        tables.append(table(head, lines))
    return "\n".join(tables)


def value_of(measured, unit):
    return {"ns": measured.ns, "GB/s": measured.gigabytes, "GFLOP/s": measured.gigaflops}[unit]


def draw(chart, files):
    """Returns the SVG of a chart over the rows of all files, or None where no row matches."""
    series, limits = {}, {}
    for rows in files:
        for row, contenders in rows.items():
            found = re.match(chart.rows, row)
            for contender, measured in contenders.items():
                value = value_of(measured, chart.value)
                if value is None or re.search(chart.hide, contender):
                    continue
                if re.match(chart.limits, f"{row}/{contender}"):
                    limits[f"{row}/{contender}"] = value
                elif found and chart.bars:
                    series.setdefault(contender, {})[found["row"]] = value
                elif found:
                    name = " ".join([contender, *found.groupdict().get("series", "").split()])
                    series.setdefault(name, {})[size_order(found["size"])[1]] = value
    if not series:
        return None
    series = dict(sorted(series.items()))
    if chart.bars:
        return charts.bars(chart.title, chart.value, series)
    return charts.lines(chart.title, chart.x, chart.value, series, limits, chart.ratio_scale)


def overview(column_table):
    """Returns a row for each of ours and peer: the mean, how many rows are below 1, the extremes."""
    cells = []
    for (family, ours, peer), column in column_table.items():
        ordered = sorted(column, key=lambda r: r.value)
        worst, best = (f"{r.value:.2f} {r.row.removeprefix(family + '/')}"
                       for r in (ordered[0], ordered[-1]))
        cells.append([f"{family} `{ours}`", peer, f"{geometric_mean(column):.2f}",
                      f"{sum(map(behind, column))} of {len(column)}", worst, best])
    return cells


def behind(row):
    return row.value < 0.995


def section(family, files, notes, charts_folder):
    """Returns the text of one family and its row of the overview; draws its charts."""
    text = [f"## {family.title}\n"]
    note = notes / f"{family.name}.md"
    if note.exists():
        text.append(note.read_text(encoding="utf-8"))
    for chart in family.charts:
        if svg := draw(chart, files):
            (charts_folder / f"{chart.file}.svg").write_text(svg, encoding="utf-8")
            text.append(f"![{chart.title}](charts/{chart.file}.svg)\n")
    column_table = columns([r for rows in files for r in ratios(rows)])
    if column_table:
        text.append(table(["", "beside", "geometric mean", "rows below 1", "worst row", "best row"],
                          overview(column_table)))
    if any(behind(r) for column in column_table.values() for r in column) and not note.exists():
        sys.exit(f"{note} is missing: it says why rows of this family are below 1")
    for rows in files:
        for name in dict.fromkeys(row.split("/")[0] for row in rows):
            if tables := detail({r: c for r, c in rows.items() if r.split("/")[0] == name}):
                text.append(f"<details><summary>All rows of {name}</summary>\n\n"
                            f"{tables}\n</details>\n")
    return "\n".join(text)


def claim(results):
    """Returns {family: [rows of a file, ...]}: each row goes to the first family that matches."""
    claimed = {family: [] for family in FAMILIES}
    for file in sorted(results.glob("*.json")):
        if file.name == "machine.json":
            continue
        of_file = {}
        for row, contenders in read(file).items():
            family = next((f for f in FAMILIES if re.match(f.rows, row)), None)
            if family:
                of_file.setdefault(family, {})[row] = contenders
        for family, rows in of_file.items():
            claimed[family].append(rows)
    return claimed


def processor_of(page):
    return re.search(r"^\| Processor \| (.*) \|$", page.read_text(encoding="utf-8"), re.M)[1]


def kept(page, processor):
    """Returns where the page of a processor is kept while another one's is the page."""
    return page.with_stem(page.stem + "-" + re.sub(r"\W+", "-", processor.lower()).strip("-"))


def make_room(page, charts_folder, processor):
    """Keeps the page that is there, with its charts, unless it is of the same processor."""
    kept(page, processor).unlink(missing_ok=True)
    shutil.rmtree(charts_folder / kept(page, processor).stem, ignore_errors=True)
    if page.exists() and processor_of(page) != processor:
        old = kept(page, processor_of(page))
        text = page.read_text(encoding="utf-8").replace("](charts/", f"](charts/{old.stem}/")
        old.write_text(text, encoding="utf-8")
        (charts_folder / old.stem).mkdir()
        for chart in charts_folder.glob("*.svg"):
            chart.rename(charts_folder / old.stem / chart.name)
    for chart in charts_folder.glob("*.svg"):
        chart.unlink()


def other_pages(page):
    pages = sorted(page.parent.glob(page.stem + "-*.md"))
    links = [f"[{processor_of(other)}]({other.name})" for other in pages]
    return f"Other processors, each as of its own date: {', '.join(links)}.\n" if links else ""


def main():
    results, notes, page = map(pathlib.Path, sys.argv[1:4])
    charts_folder = page.parent / "charts"
    charts_folder.mkdir(parents=True, exist_ok=True)
    facts = json.loads((results / "machine.json").read_text(encoding="utf-8"))
    make_room(page, charts_folder, facts["Processor"])
    text = [INTRODUCTION, table(["Measured on", ""], [[k, v] for k, v in facts.items()]),
            other_pages(page)]
    text += [section(family, files, notes, charts_folder)
             for family, files in claim(results).items() if files]
    page.write_text("\n".join(text), encoding="utf-8")


if __name__ == "__main__":
    main()
