#!/usr/bin/env python3
"""The performance page from a handful of results whose medians and ratios are known.

usage: page_test.py BENCH_FOLDER
"""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as xml

BENCH = pathlib.Path(sys.argv.pop(1))


def times(name, *repetitions, **more):
    return [{"name": name, "run_name": name, "run_type": "iteration", "cpu_time": t,
             "time_unit": "ns", **more} for t in repetitions]


RESULTS = {
    "one": [*times("copy/fixed-1K-unaligned/zorvac_fast", 9.0, 2.0, 4.0, bytes_per_second=4e9),
            *times("copy/fixed-1K-unaligned/libc", 3.0, bytes_per_second=8e9),
            *times("copy/fixed-512-unaligned/zorvac_fast", 2.0, bytes_per_second=5e9),
            *times("copy/fixed-512-unaligned/libc", 5.0, bytes_per_second=2e9),
            *times("copy/fixed-64-unaligned/zorvac_fast", 1.0, error_occurred=True)],
    "two": [*times("copy/fixed-1K-unaligned/zorvac_new", 8.0),  # its peer is that of this file
            *times("copy/fixed-1K-unaligned/libc-sse2", 16.0),
            *times("r8_n_n/64x64x64/zorvac/min_time:0.020", 1.0, **{"GFLOP/s": 30.0}),
            *times("limit/separate/8", 1.0, **{"GFLOP/s": 40.0}),
            *times("add/throughput/zorvac", 1.0), *times("add/throughput/libgcc", 3.0),
            *times("brand_new/row/zorvac", 2.0, items_per_second=1e9),
            *times("brand_new/row/peer", 8.0, items_per_second=0.5e9)],
}
LINES = ("| Compiler | g++ 99 |",
         "Because of the jump.",
         "| copy/fixed-512-unaligned | 2.0 | 5.0 | 2.50 |\n"
         "| copy/fixed-1K-unaligned | 4.0 | 3.0 | 0.75 |",  # by size; the median, and a loss
         "| copy/fixed-1K-unaligned | 8.0 | 16.0 | 2.00 |",
         "| copy `zorvac_fast` | libc | 1.37 | 1 of 2 | 0.75 fixed-1K-unaligned | 2.50 ",
         "| brand_new/row | 1.0 | 2.0 | 2.00 |",  # times of an item
         "![Products of square matrices")
TEXTS = {"copy": {"512", "1K", "zorvac_fast", "libc", "GB/s"},
         "matrices": {"zorvac", "limit/separate/8", "GFLOP/s"},
         "quad": {"add", "zorvac", "libgcc", "ns"}}


class Page(unittest.TestCase):
    def test_shows_what_was_measured_where_losses_have_reasons(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        page = folder / "page.md"
        for name in ("results", "notes"):
            (folder / name).mkdir()
        for name, runs in RESULTS.items():
            (folder / "results" / f"{name}.json").write_text(json.dumps({"benchmarks": runs}))
        (folder / "results/machine.json").write_text(json.dumps({"Compiler": "g++ 99"}))
        command = [BENCH / "page.py", folder / "results", folder / "notes", page]

        refusal = subprocess.run(command, capture_output=True, text=True)
        self.assertNotEqual(refusal.returncode, 0)
        self.assertIn("memory.md is missing", refusal.stderr)
        self.assertFalse(page.exists())

        (folder / "notes/memory.md").write_text("Because of the jump.\n")
        subprocess.run(command, check=True)
        for line in LINES:
            self.assertIn(line, page.read_text())
        self.assertNotIn("fixed-64", page.read_text())
        for name, texts in TEXTS.items():
            drawn = xml.parse(folder / f"charts/{name}.svg")
            self.assertLessEqual(texts, {e.text for e in drawn.iter()})
        # The limit lies above the point that stays below it.
        drawn = (folder / "charts/matrices.svg").read_text()
        point = float(drawn.split('cy="')[1].split('"')[0])
        limit = float(drawn.split(' stroke-dasharray')[0].split("H")[-2].split(" ")[-1])
        self.assertLess(limit, point)


unittest.main()
