#!/usr/bin/env python3
"""Runs the benchmark programs of a build and keeps their results, one JSON file a run, and in
machine.json what they were measured on.

usage: measure.py [--quick] [--only PROGRAM] BUILD_FOLDER RESULTS_FOLDER

Repetitions are interleaved, since no machine is quiet. --quick measures every row once and briefly.
"""
import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import subprocess
import sys

from families import RUNS, Run


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def machine(build):
    """Returns what the page says at its head, in the order in which it says it."""
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")

    def setting(name):
        found = re.search(rf"^{name}:[A-Z]+=(.*)$", cache, re.MULTILINE)
        return found.group(1) if found else ""
    processor = dict(re.findall(r"^([^\t:]+)\t*: ?(.*)$",
                                pathlib.Path("/proc/cpuinfo").read_text(), re.MULTILINE))
    caches = {f"L{i}": output("getconf", name) for i, name in
              ((1, "LEVEL1_DCACHE_SIZE"), (2, "LEVEL2_CACHE_SIZE"), (3, "LEVEL3_CACHE_SIZE"))}
    build_type = setting("CMAKE_BUILD_TYPE")
    virtual = ", a virtual machine" if "hypervisor" in processor.get("flags", "") else ""
    return {
        "Date": datetime.date.today().isoformat(),
        "Processor": f"{processor.get('model name', 'unknown')} (family "
                     f"{processor.get('cpu family')}, model {processor.get('model')})",
        "Machine": f"{os.cpu_count()} processors{virtual}; caches " + ", ".join(
            f"{level} {int(size) >> 10} KiB" for level, size in caches.items() if size.isdigit()),
        "System": f"{platform.freedesktop_os_release()['PRETTY_NAME']}, "
                  f"Linux {platform.release()}, {output('getconf', 'GNU_LIBC_VERSION')}",
        "Compiler": output(setting("CMAKE_CXX_COMPILER"), "--version").splitlines()[0],
        "Flags": f"{build_type}: {setting(f'CMAKE_CXX_FLAGS_{build_type.upper()}')}, "
                 "instruction sets by cmake/isa.cmake",
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("results", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", default="", help="programs whose name contains this")
    arguments = parser.parse_args()

    arguments.results.mkdir(parents=True, exist_ok=True)
    tabled = {run.program for run in RUNS}
    programs = sorted(p.name for p in (arguments.build / "bench").glob("*_bench"))
    runs = [run for run in RUNS if run.program in programs]
    runs += [Run(program) for program in programs if program not in tabled]
    repetitions, seconds = (1, 0.005) if arguments.quick else (5, 0.01)
    for run in runs:
        if arguments.only not in run.program:
            continue
        result = arguments.results / f"{run.result or run.program}.json"
        print(f"measuring {result.stem}", file=sys.stderr)
        subprocess.run(
            [arguments.build / "bench" / run.program, f"--benchmark_filter={run.rows}",
             "--benchmark_enable_random_interleaving=true", f"--benchmark_min_time={seconds}",
             f"--benchmark_repetitions={repetitions}",
             f"--benchmark_out={result}", "--benchmark_out_format=json"],
            env=os.environ | dict(e.split("=", 1) for e in run.environment),
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    facts = machine(arguments.build)
    if arguments.quick:
        facts["Note"] = "A quick run: every row once and briefly; not figures to quote."
    (arguments.results / "machine.json").write_text(json.dumps(facts, indent=1), encoding="utf-8")


if __name__ == "__main__":
    main()
