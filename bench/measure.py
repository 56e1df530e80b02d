#!/usr/bin/env python3
"""Runs the benchmark programs of a build, each in the runs that families.py has for it. Keeps the
rows of each family in a CSV file, with facts about the machine, the compiler and the peers.

usage: measure.py [--quick] [--only FAMILY] BUILD_FOLDER RESULTS_FOLDER

The files are in a folder for the processor. A family that is not measured keeps its file. Each row
that a program registers in a run is measured. Repetitions are interleaved, since no machine is
quiet, and a row is their median. --quick measures every row once and briefly.
"""
import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import tempfile
from collections import defaultdict

from families import families_of
from report import COLUMNS, Results, read, write

TO_NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
MAKERS = {"AuthenticAMD": "amd", "GenuineIntel": "intel"}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def processor_fields():
    text = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    return dict(re.findall(r"^([^\t:]+)\t*: ?(.*)$", text, re.MULTILINE))


def folder_name(processor):
    maker = processor.get("vendor_id", "unknown")
    return "-".join([MAKERS.get(maker, re.sub(r"\W+", "", maker).lower()),
                     processor.get("cpu family", "0"), processor.get("model", "0")])


def commit():
    """Returns the commit that was measured, with a plus sign if the sources differ from it."""
    git = ("git", "-C", pathlib.Path(__file__).parent.parent)
    try:
        changes = output(*git, "status", "--porcelain", "--untracked-files=no", "--",
                         "src", "include", "cmake", "bench", ":!bench/results", ":!bench/*.py")
        return output(*git, "rev-parse", "--short=12", "HEAD") + "+" * bool(changes)
    except (OSError, subprocess.CalledProcessError):
        return "unknown"


def machine(build, processor):
    """Returns the page's facts about the machine, in the page's order."""
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")

    def setting(name):
        found = re.search(rf"^{name}:[A-Z]+=(.*)$", cache, re.MULTILINE)
        return found.group(1) if found else ""
    caches = {f"L{i}": output("getconf", name) for i, name in
              ((1, "LEVEL1_DCACHE_SIZE"), (2, "LEVEL2_CACHE_SIZE"), (3, "LEVEL3_CACHE_SIZE"))}
    build_type = setting("CMAKE_BUILD_TYPE")
    virtual = ", a virtual machine" if "hypervisor" in processor.get("flags", "") else ""
    return {
        "Date": datetime.date.today().isoformat(),
        "Commit": commit(),
        "Processor": f"{processor.get('model name', 'unknown')} (family "
                     f"{processor.get('cpu family')}, model {processor.get('model')})",
        "Machine": f"{os.cpu_count()} processors{virtual}; caches " + ", ".join(
            f"{level} {int(size) >> 10} KiB" for level, size in caches.items() if size.isdigit()),
        "System": f"{platform.freedesktop_os_release()['PRETTY_NAME']}, "
                  f"Linux {platform.release()}",
        "Compiler": output(setting("CMAKE_CXX_COMPILER"), "--version").splitlines()[0],
        "Flags": f"{build_type}: {setting(f'CMAKE_CXX_FLAGS_{build_type.upper()}')}, "
                 "instruction sets by cmake/isa.cmake",
    }


def rates(run):
    """Returns (nanoseconds of an item, GFLOP/s) of one repetition. If the program does not count
    items, an iteration is an item."""
    ns = run["cpu_time"] * TO_NANOSECONDS[run["time_unit"]]
    if run.get("items_per_second"):
        ns = 1e9 / run["items_per_second"]
    return ns, run.get("GFLOP/s")


def rows_of(report, run_name):
    """Returns the rows of a program's report, {(run, row): {contender: {column: text}}}, in the
    order in which the program registered them."""
    runs = [r for r in report["benchmarks"] if r.get("run_type") != "aggregate"]
    for run in runs:
        if run.get("error_occurred"):
            raise ValueError(f"{run['name']}: {run['error_message']}")
    runs.sort(key=lambda r: (r.get("family_index", 0), r.get("per_family_instance_index", 0)))
    samples = defaultdict(list)
    for run in runs:
        # Options such as min_time follow the benchmark's own name.
        name = re.sub(r"(/((min_time|min_warmup_time|iterations|repeats|threads):[^/]+"
                      r"|real_time|process_time|manual_time))+$", "",
                      run.get("run_name", run["name"]))
        samples[name].append(rates(run))
    rows = defaultdict(dict)
    for name, repetitions in samples.items():
        row, _, contender = name.rpartition("/")
        ns, gflops = zip(*repetitions)
        texts = (f"{statistics.median(ns):.5g}",
                 "" if None in gflops else f"{statistics.median(gflops):.5g}")
        rows[run_name, row][contender] = dict(zip(COLUMNS, (run_name, row, contender, *texts)))
    return rows


def measure(program, environment, options):
    """Returns the report of one run of a program."""
    with tempfile.NamedTemporaryFile(suffix=".json") as file:
        done = subprocess.run([program, "--benchmark_enable_random_interleaving=true", *options,
                               f"--benchmark_out={file.name}", "--benchmark_out_format=json"],
                              env=os.environ | environment, stdout=subprocess.DEVNULL,
                              stderr=subprocess.PIPE, text=True, check=False)
        report = file.read()
    if done.returncode != 0 or not report:  # the report is empty if there is no row to measure
        sys.exit(f"{program}: {done.stderr}")
    return json.loads(report)


def report_lost(file, results):
    """Prints the rows of the file that were not measured again, by mistake or because they were
    removed."""
    before = read(file).rows if file.exists() else {}
    for (run, row), contenders in before.items():
        for contender in contenders.keys() - results.rows.get((run, row), {}).keys():
            print(f"no longer measured: {row}/{contender} {run}", file=sys.stderr)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("results", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", default="", help="a family or a program, by its name")
    arguments = parser.parse_args()

    programs = {p.name: p for p in sorted((arguments.build / "bench").glob("*_bench"))}
    families = families_of(programs)
    wanted = [f for f in families if arguments.only in ("", f.name, f.program)]
    if not wanted:
        sys.exit(f"no family or program is called {arguments.only}: "
                 + ", ".join(f.name for f in families))
    repetitions, seconds = (1, 0.001) if arguments.quick else (11, 0.004)
    options = [f"--benchmark_repetitions={repetitions}", f"--benchmark_min_time={seconds}"]
    processor = processor_fields()
    folder = arguments.results / folder_name(processor)
    folder.mkdir(parents=True, exist_ok=True)
    for family in wanted:
        if family.program not in programs:
            print(f"not built, so not measured: {family.program}", file=sys.stderr)
            continue
        results = Results(machine(arguments.build, processor), {})
        for run, environment in family.runs.items():
            print(f"measuring {family.name} {run}".rstrip(), file=sys.stderr)
            report = measure(programs[family.program], environment, options)
            results.rows |= rows_of(report, run)
            results.facts |= {key: text for key, text in report["context"].items()
                              if key.startswith(("peer ", "indicator "))}
        file = folder / f"{family.name}.csv"
        report_lost(file, results)
        write(file, results)


if __name__ == "__main__":
    main()
