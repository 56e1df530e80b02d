#!/usr/bin/env python3
"""Writes the performance page and its charts from the rows of all processors.

usage: page.py RESULTS_FOLDER NOTES_FOLDER PAGE.md [README.md]

Writes README's table, too. Every figure of the tables and charts comes from the rows. The reasons
come from families.py and from the notes, one small file a family. A family with a row below 1 must
have a note, and a contender that no table shows is an error.
"""
import pathlib
import re
import subprocess
import sys
from collections import defaultdict

import charts
from families import FAMILIES, LABELS, SUMMARY, families_of
from report import geometric_mean, is_ours, ratios, read, size_order

INTRODUCTION = """# Performance

Written by `scripts/bench` from the rows in [bench/results](../bench/results); do not edit. A ratio
is the peer's time divided by ours: **above 1, zorvac is faster**. A column is a processor (maker
and family/model). Its figures are geometric means over all rows of a kind, one for each peer. A
peer that is not held to a level uses its best one. Ours and the peer were measured in one process,
interleaved. Times are medians of processor time. On a shared machine, single rows vary by a tenth
from run to run, and rows of at least a mebibyte vary more. † The code has changed since these
rows were measured.
"""
LIBRARY = """The measured library is the any-vendor build (`libzorvac-any`): it uses the members
that it would use on a processor of the accepted vendor with the same features. The default build
accepts only that vendor. On each of these processors its feature indicator stays {default}, so it
uses the members for every processor: the C library's block routines, the general kernels.
"""
SUMMARY_HEAD = "|  | beside |"  # README's table begins with this
HIDDEN = ("Date", "Commit", "Processor")  # facts that have rows of their own in the table


def behind(ratio):
    return ratio < 0.995


def title_of(folder):
    """Turns amd-25-1 into AMD 25/1."""
    maker, *numbers = folder.split("-")
    return f"{ {'amd': 'AMD', 'intel': 'Intel'}.get(maker, maker)} {'/'.join(numbers)}"


def label(contender):
    return LABELS.get(contender, contender)


def readable(row):
    """Turns copy/mixed-1-16-aligned into: copy, mixed 1 to 16 aligned."""
    parts = (LABELS.get(part) or re.sub(r"[-_]", " ", re.sub(r"(\d)-(\d)", r"\1 to \2", part))
             for part in row.replace("fixed-", "").split("/"))
    return ", ".join(parts)


def table(head, lines):
    rows = [head, ["---"] * len(head), *lines]
    return "\n".join("| " + " | ".join(cells) + " |" for cells in rows) + "\n"


def is_old(commit, sources):
    """Says whether any of the sources, apart from comments, differs from the commit. If that is
    unknown, says yes."""
    if commit.endswith("+"):
        return True
    git = ["git", "-C", pathlib.Path(__file__).parent.parent]
    try:
        difference = subprocess.run([*git, "diff", "--ignore-blank-lines",
                                     "-I", r"^\s*(//|/?\*)", commit, "--", *sources],
                                    capture_output=True, check=True)
    except (OSError, subprocess.CalledProcessError):
        return True
    return bool(difference.stdout)


class Measured:
    """The rows of one family on one processor."""

    def __init__(self, family, file):
        self.processor = title_of(file.parent.name)
        self.facts, rows = (results := read(file)).facts, results.rows
        self.old = is_old(self.facts.get("Commit", "unknown"), family.sources)
        self.ratios = ratios(rows)
        shown = {(run, row) for run, row in rows
                 if len({is_ours(c) for c in rows[run, row]}) == 2}
        self.figures = {key: rows[key] for key in rows if re.match(family.figures, key[1])}
        for run, row in rows.keys() - shown - self.figures.keys():
            sys.exit(f"{file}: {row} {run}: no table shows {', '.join(rows[run, row])}; a ratio "
                     "needs ours and a peer, and rows without a peer need the family's `figures`")
        contenders = {r.ours for r in self.ratios}
        self.front = next(({c} for c in family.front if c in contenders), contenders)
        self.best = self.front if len(family.front) > 1 else ()

    def pair(self, ratio):
        """Returns the names of ours and of the peer for the page."""
        return "best level" if ratio.ours in self.best else label(ratio.ours), label(ratio.peer)


def part_of(family, row):
    return next((title for title, rows in family.parts if re.match(rows, row)), family.title)


def ratio_lines(family, measured, front):
    """Returns {(part, ours): {(peer, processor): ratios}} for the first table, or for the other
    members."""
    grouped = defaultdict(lambda: defaultdict(list))
    for m in measured:
        for r in m.ratios:
            if (r.ours in m.front) == front:
                ours, peer = m.pair(r)
                grouped[part_of(family, r.row), ours][peer, m.processor].append(r)
    order = [family.title, *(title for title, _ in family.parts)]
    return dict(sorted(grouped.items(), key=lambda item: (order.index(item[0][0]), item[0])))


def cells(measured, of_line, processors):
    """Returns a line's cells (the peers, the geometric means for each processor, the worst row),
    and the worst row's ratio."""
    peers = sorted({peer for peer, _ in of_line})
    old = {m.processor for m in measured if m.old}

    def means(processor):
        columns = [of_line.get((peer, processor)) for peer in peers]
        words = (f"{geometric_mean(r.value for r in c):.2f}" if c else "–" for c in columns)
        return " / ".join(words) + " †" * (processor in old) if any(columns) else ""
    worst, peer, processor = min(((r, *key) for key, column in of_line.items() for r in column),
                                 key=lambda found: found[0].value)
    where = [peer] * (len(peers) > 1) + [processor] * (len(processors) > 1)
    place = f" ({', '.join(where)})" if where else ""
    return [" / ".join(peers), *map(means, processors),
            f"{worst.value:.2f} {readable(worst.row)}{place}"], worst


def reason(family, worst):
    if not behind(worst.value):
        return ""
    known = f"{worst.row}/{worst.ours} {worst.peer}"
    return next((words for place, words in family.reasons if re.search(place, known)), "")


def overview(sections, processors):
    lines = []
    for family, measured in sections.items():
        for (part, ours), of_line in ratio_lines(family, measured, True).items():
            of_peers, worst = cells(measured, of_line, processors)
            link = f"[{part}](#{family.title.lower().replace(' ', '-')})"
            lines.append([link, ours, *of_peers, reason(family, worst)])
    return table(["", "ours", "beside", *processors, "worst row", "why"], lines)


def summary(sections, processors):
    """Returns README's table."""
    known = {}
    for family, measured in sections.items():
        old = {m.processor for m in measured if m.old}
        for (part, ours), of_line in ratio_lines(family, measured, True).items():
            for (peer, processor), column in of_line.items():
                mean = f"{geometric_mean(r.value for r in column):.2f}"
                known[part, ours, peer, processor] = mean, " †" * (processor in old)

    def cell(figures, processor):
        found = [known[key] for key in ((*f, processor) for f in figures) if key in known]
        return " / ".join(mean for mean, _ in found) + max((old for _, old in found), default="–")
    return table(["", "beside", *processors],
                 [[what, beside, *(cell(figures, p) for p in processors)]
                  for what, beside, figures in SUMMARY])


def other_members(family, measured, processors):
    lines = [[f"{part}: {ours}", *cells(measured, of_line, processors)[0]]
             for (part, ours), of_line in ratio_lines(family, measured, False).items()]
    return table(["also measured", "beside", *processors, "worst row"], lines) if lines else ""


def figure(entry):
    if entry["gflops"]:
        return f"{float(entry['gflops']):.1f} GFLOP/s"
    ns = float(entry["ns"])
    return f"{ns:.1f} ns" if ns < 1000 else f"{ns / 1000:.1f} µs"


def figures(measured, processors):
    found = defaultdict(dict)
    for m in measured:
        for (_, row), contenders in m.figures.items():
            for contender, entry in contenders.items():
                found[f"{row}/{contender}"][m.processor] = figure(entry)
    lines = [[readable(name), *(of_row.get(p, "") for p in processors)]
             for name, of_row in sorted(found.items(), key=lambda item: size_order(item[0]))]
    return table(["alone", *processors], lines) if lines else ""


def draw(chart, measured):
    """Returns the SVG of a chart, or None if no row matches."""
    panels = {}
    for m in measured:
        points = defaultdict(lambda: defaultdict(list))
        for r in m.ratios:
            found, pair = re.match(chart.rows, r.row), " beside ".join(m.pair(r))
            if found and re.search(chart.pairs, pair):
                at = size_order(found["size"])[1] if chart.x else readable(found["bar"])
                points[pair][at].append(r.value)
        if points:
            panels[m.processor] = {name: {at: geometric_mean(v) for at, v in series.items()}
                                   for name, series in points.items()}
    if not panels:
        return None
    if chart.x:
        return charts.lines(chart.title, chart.x, panels)
    return charts.bars(chart.title, panels)


def section(family, measured, processors, notes, charts_folder):
    """Returns the text of one family, and draws its charts."""
    text = [f"## {family.title}\n"]
    note = notes / f"{family.name}.md"
    if note.exists():
        text.append(note.read_text(encoding="utf-8"))
    elif any(behind(r.value) for m in measured for r in m.ratios):
        sys.exit(f"{note} is missing: it must say why rows of this family are below 1")
    for chart in family.charts:
        if svg := draw(chart, measured):
            (charts_folder / f"{chart.file}.svg").write_text(svg, encoding="utf-8")
            text.append(f"![{chart.title}](charts/{chart.file}.svg)\n")
    text += filter(None, [other_members(family, measured, processors),
                          figures(measured, processors)])
    return "\n".join(text)


def facts_table(sections, processors):
    """Returns the table of processors and peers: a column for each processor, with its newest
    facts. Returns the text about the library, too."""
    facts, dates = defaultdict(dict), defaultdict(set)
    for m in sorted((m for measured in sections.values() for m in measured),
                    key=lambda m: m.facts.get("Date", "")):
        facts[m.processor] |= m.facts
        dates[m.processor].add(f"{m.facts.get('Date', '?')} at {m.facts.get('Commit', '?')}")
    names = dict.fromkeys(name for of_one in facts.values() for name in of_one)
    lines = [["Measured on", *(facts[p].get("Processor", "") for p in processors)],
             ["Rows of", *(", ".join(sorted(dates[p])) for p in processors)]]
    lines += [[name.removeprefix("peer ").replace("indicator", "Indicator, build"),
               *(facts[p].get(name, "not recorded") for p in processors)]
              for name in names if name not in HIDDEN]
    default = {facts[p].get("indicator default", "0x1") for p in processors}
    return table(["", *processors], lines), LIBRARY.format(default=" or ".join(sorted(default)))


def main():
    results, notes, page = map(pathlib.Path, sys.argv[1:4])
    charts_folder = page.parent / "charts"
    charts_folder.mkdir(parents=True, exist_ok=True)
    for chart in charts_folder.glob("*.svg"):
        chart.unlink()
    files = sorted(results.glob("*/*.csv"), key=lambda f: size_order(f.parent.name))
    sections = {family: [Measured(family, f) for f in files if f.stem == family.name]
                for family in families_of({f.stem for f in files} - {f.name for f in FAMILIES})}
    sections = {family: measured for family, measured in sections.items() if measured}
    processors = list(dict.fromkeys(m.processor for ms in sections.values() for m in ms))
    facts, library = facts_table(sections, processors)
    rules = notes / "rules.md"
    text = [INTRODUCTION, overview(sections, processors)]
    text += [section(family, measured, processors, notes, charts_folder)
             for family, measured in sections.items()]
    if rules.exists():
        text.append(rules.read_text(encoding="utf-8"))
    text += ["## What was measured\n", library, facts]
    page.write_text("\n".join(text), encoding="utf-8")
    for readme in map(pathlib.Path, sys.argv[4:]):
        before, _, rest = readme.read_text(encoding="utf-8").partition(SUMMARY_HEAD)
        after = rest.partition("\n\n")[2]
        readme.write_text(f"{before}{summary(sections, processors)}\n{after}", encoding="utf-8")


if __name__ == "__main__":
    main()
