#!/usr/bin/env python3
"""Reads Google Benchmark results (JSON) and compares ours with the peers; run, prints the ratios.

usage: report.py [--only REGEX] RESULTS.json...

A benchmark is named <family>/<row...>/<contender>. A contender whose name begins with "zorvac" is
ours; every other one in the same row of the same file is its peer. The time of a row is the median
of the CPU time of a call, or of an iteration where calls are not counted, over all repetitions;
where a file has aggregates only, its own median.
A ratio is peer / ours: above 1, ours is faster.
"""
import argparse
import json
import math
import re
import statistics
import sys
from collections import defaultdict
from dataclasses import dataclass

TO_NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


@dataclass(frozen=True)
class Measured:
    """One contender in one row: medians. Rates are None where the program does not count."""
    ns: float  # of one item where the program counts items, of one iteration otherwise
    gigabytes: float | None  # a second
    gigaflops: float | None  # a second


@dataclass(frozen=True)
class Ratio:
    row: str
    ours: str
    peer: str
    value: float


def rates(run):
    """Returns (nanoseconds of an item, GB/s, GFLOP/s) of one repetition."""
    ns = run["cpu_time"] * TO_NANOSECONDS[run["time_unit"]]
    if run.get("items_per_second"):
        ns = 1e9 / run["items_per_second"]
    bytes_rate = run.get("bytes_per_second")
    # A counter of operations says its unit in its name: FLOP/s, GFLOP/s, flops.
    flops = next((value / (1 if name[0] == "G" else 1e9) for name, value in run.items()
                  if re.fullmatch(r"G?flop(s|/s|_per_second)?", name, re.IGNORECASE)), None)
    return ns, bytes_rate / 1e9 if bytes_rate else None, flops


def read(file):
    """Returns {row: {contender: Measured}} of one file, in its order; rows carry their family."""
    with open(file, encoding="utf-8") as stream:
        runs = [r for r in json.load(stream)["benchmarks"] if not r.get("error_occurred")]
    # As the program registered them: interleaving reports them in any order.
    runs.sort(key=lambda r: (r.get("family_index", 0), r.get("per_family_instance_index", 0)))
    single = [r for r in runs if r.get("run_type") != "aggregate"]
    samples = defaultdict(lambda: defaultdict(list))
    for run in single or [r for r in runs if r["aggregate_name"] == "median"]:
        # Options such as min_time follow the name that the benchmark was given.
        name = re.sub(r"(/((min_time|min_warmup_time|iterations|repeats|threads):[^/]+"
                      r"|real_time|process_time|manual_time))+$", "",
                      run.get("run_name", run["name"]))
        row, _, contender = name.rpartition("/")
        samples[row][contender].append(rates(run))

    def median(values):
        return None if None in values else statistics.median(values)
    return {row: {contender: Measured(*map(median, zip(*repetitions)))
                  for contender, repetitions in contenders.items()}
            for row, contenders in samples.items()}


def size_order(text):
    """Orders names by the numbers in them: fixed-512 before fixed-1K before fixed-16K."""
    units = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}
    parts = re.split(r"(\d+[KMG]?)", text)
    return [int(p.rstrip("KMG")) * units.get(p[-1], 1) if p[:1].isdigit() else p for p in parts]


def is_ours(contender):
    return contender.startswith("zorvac")


def ratios(rows):
    """Returns the Ratio of each of ours beside each peer, over rows as read() gives them."""
    return [Ratio(row, ours, peer, of_peer.ns / of_ours.ns)
            for row, contenders in rows.items()
            for ours, of_ours in contenders.items() if is_ours(ours)
            for peer, of_peer in contenders.items() if not is_ours(peer)]


def geometric_mean(ratio_list):
    return math.exp(statistics.fmean(math.log(r.value) for r in ratio_list))


def columns(ratio_list):
    """Returns {(family, ours, peer): ratios of that column}."""
    grouped = defaultdict(list)
    for r in ratio_list:
        grouped[r.row.split("/")[0], r.ours, r.peer].append(r)
    return dict(sorted(grouped.items()))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("results", nargs="+")
    parser.add_argument("--only", default="", help="rows that match this regular expression")
    arguments = parser.parse_args()
    found = [r for file in arguments.results for r in ratios(read(file))
             if re.search(arguments.only, f"{r.row}/{r.ours}")]
    if not found:
        sys.exit("no row of ours has a peer")
    for (family, ours, peer), column in columns(found).items():
        print(f"\n{family}: {ours} against {peer}, above 1 ours is faster")
        width = max(len(r.row) for r in column)
        for r in sorted(column, key=lambda r: size_order(r.row)):
            print(f"  {r.row.ljust(width)} {r.value:7.2f}")
        print(f"  {'geometric mean'.ljust(width)} {geometric_mean(column):7.2f}")


if __name__ == "__main__":
    main()
