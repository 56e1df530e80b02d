#!/usr/bin/env python3
"""Reads the rows that measure.py kept and compares ours with the peers. As a script, prints ratios.

usage: report.py RESULTS.csv...

A benchmark is named <operation>/<row...>/<contender>. A contender whose name begins with "zorvac"
is ours. All others in the same row of the same run are its peers. A ratio is peer / ours: above 1,
ours is faster.
"""
import csv
import math
import re
import statistics
import sys
from collections import defaultdict
from dataclasses import dataclass

COLUMNS = ("run", "row", "contender", "ns", "gflops")


@dataclass(frozen=True)
class Ratio:
    row: str
    ours: str
    peer: str
    value: float


@dataclass
class Results:
    """The content of one file: facts about the measurement, and the rows, {(run, row): {contender:
    {column: text}}}."""
    facts: dict
    rows: dict


def read(file):
    facts, rows = {}, defaultdict(dict)
    with open(file, encoding="utf-8", newline="") as stream:
        lines = list(stream)
    head = [line for line in lines if line.startswith("# ")]
    for line in head:
        key, _, value = line[2:].rstrip("\n").partition(": ")
        facts[key] = value
    for entry in csv.DictReader(lines[len(head):]):
        rows[entry["run"], entry["row"]][entry["contender"]] = entry
    return Results(facts, dict(rows))


def write(file, results):
    with open(file, "w", encoding="utf-8", newline="") as stream:
        stream.writelines(f"# {key}: {value}\n" for key, value in results.facts.items())
        table = csv.DictWriter(stream, COLUMNS, lineterminator="\n")
        table.writeheader()
        for contenders in results.rows.values():
            table.writerows(contenders.values())


def size_order(text):
    """Returns a key that orders names by their numbers: fixed-512, fixed-1K, fixed-16K."""
    units = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}
    parts = re.split(r"(\d+[KMG]?)", text)
    return [int(p.rstrip("KMG")) * units.get(p[-1], 1) if p[:1].isdigit() else p for p in parts]


def is_ours(contender):
    return contender.startswith("zorvac")


def ratios(rows):
    """Returns the Ratio of each contender of ours to each peer of its row and run."""
    return [Ratio(row, ours, peer, float(of_peer["ns"]) / float(of_ours["ns"]))
            for (_, row), contenders in rows.items()
            for ours, of_ours in contenders.items() if is_ours(ours)
            for peer, of_peer in contenders.items() if not is_ours(peer)]


def geometric_mean(values):
    return math.exp(statistics.fmean(map(math.log, values)))


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    columns = defaultdict(list)
    for file in sys.argv[1:]:
        for r in ratios(read(file).rows):
            columns[r.row.split("/")[0], r.ours, r.peer].append(r)
    for (operation, ours, peer), column in sorted(columns.items()):
        print(f"\n{operation}: {ours} beside {peer}, above 1 ours is faster")
        width = max(len(r.row) for r in column)
        for r in sorted(column, key=lambda r: size_order(r.row)):
            print(f"  {r.row.ljust(width)} {r.value:7.2f}")
        print(f"  {'geometric mean'.ljust(width)} {geometric_mean(r.value for r in column):7.2f}")


if __name__ == "__main__":
    main()
