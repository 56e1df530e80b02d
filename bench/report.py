#!/usr/bin/env python3
"""Turns Google Benchmark results (JSON) into tables of ratios, ours against the peers.

usage: report.py [--only REGEX] [--rows json|table] RESULTS.json...

A benchmark is named <family>/<row...>/<contender>. A contender whose name begins with "zorvac" is
ours; every other one in the same row is its peer. Repetitions, in one file or several, are taken
together; the CPU time per iteration of a row is their median. A ratio is peer / ours: above 1, ours
is faster. The geometric mean of a column stands under it, with its worst row.
"""
import argparse
import json
import math
import re
import statistics
import sys
from collections import defaultdict

TO_NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def read(files):
    """Returns {(family, row): {contender: median nanoseconds}}, in the order of the files."""
    samples = defaultdict(lambda: defaultdict(list))
    for file in files:
        with open(file, encoding="utf-8") as stream:
            results = json.load(stream)
        for run in results["benchmarks"]:
            if run.get("run_type") == "aggregate" or run.get("error_occurred"):
                continue
            # Options such as min_time follow the name that the benchmark was given.
            name = re.sub(r"(/(min_time|min_warmup_time|iterations|repeats|threads):[^/]+)+$", "",
                          run.get("run_name", run["name"]))
            family, *row, contender = name.split("/")
            nanoseconds = run["cpu_time"] * TO_NANOSECONDS[run["time_unit"]]
            samples[family, "/".join(row)][contender].append(nanoseconds)
    return {
        row: {contender: statistics.median(times) for contender, times in contenders.items()}
        for row, contenders in samples.items()
    }


def size_order(text):
    """Orders names by the numbers in them: fixed-512 before fixed-1K before fixed-16K."""
    units = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}
    parts = re.split(r"(\d+[KMG]?)", text)
    return [int(p.rstrip("KMG")) * units.get(p[-1], 1) if p[:1].isdigit() else p for p in parts]


def ratios(medians):
    """Returns rows {family, row, ours, peer, ours_ns, peer_ns, ratio}."""
    for (family, row), contenders in medians.items():
        for ours, ours_ns in contenders.items():
            if not ours.startswith("zorvac"):
                continue
            for peer, peer_ns in contenders.items():
                if not peer.startswith("zorvac"):
                    yield {"family": family, "row": row, "ours": ours, "peer": peer,
                           "ours_ns": ours_ns, "peer_ns": peer_ns, "ratio": peer_ns / ours_ns}


def print_table(title, cells):
    """Prints {row: {contender: result}}, then the geometric mean and the worst row of each column."""
    contenders = sorted({ours for row in cells.values() for ours in row})
    widest = max([len(row) for row in cells] + [len("geometric mean")])
    columns = [max(len(c), 8) for c in contenders]
    print(f"\n{title}: ratio peer / ours, above 1 ours is faster")
    print(" " * widest, *(c.rjust(w) for c, w in zip(contenders, columns)), "   peer ns")
    for row in sorted(cells, key=size_order):
        texts = [f"{cells[row][c]['ratio']:.2f}" if c in cells[row] else "-" for c in contenders]
        peer_ns = next(iter(cells[row].values()))["peer_ns"]
        print(row.ljust(widest), *(t.rjust(w) for t, w in zip(texts, columns)), f"{peer_ns:10.1f}")
    means, worst = [], []
    for contender in contenders:
        column = [row[contender]["ratio"] for row in cells.values() if contender in row]
        means.append(math.exp(statistics.fmean(math.log(r) for r in column)))
        worst.append(min(column))
    for name, values in (("geometric mean", means), ("worst row", worst)):
        print(name.ljust(widest), *(f"{v:.2f}".rjust(w) for v, w in zip(values, columns)))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("results", nargs="+")
    parser.add_argument("--only", default="", help="rows whose name matches this regular expression")
    parser.add_argument("--rows", choices=("json", "table"), default="table")
    arguments = parser.parse_args()

    rows = [r for r in ratios(read(arguments.results))
            if re.search(arguments.only, f"{r['family']}/{r['row']}/{r['ours']}")]
    if not rows:
        sys.exit("no row of ours has a peer")
    if arguments.rows == "json":
        json.dump(rows, sys.stdout, indent=1)
        return
    tables = defaultdict(lambda: defaultdict(dict))
    for r in rows:
        tables[f"{r['family']} against {r['peer']}"][r["row"]][r["ours"]] = r
    for title, cells in tables.items():
        print_table(title, cells)


if __name__ == "__main__":
    main()
