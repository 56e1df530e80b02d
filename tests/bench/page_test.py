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


def run(name, cpu_time, **more):
    return {"name": name, "run_name": name, "run_type": "iteration", "cpu_time": cpu_time,
            "time_unit": "ns", **more}


def times(row, contender, *repetitions, **more):
    return [run(f"{row}/{contender}/min_time:0.020", t, **more) for t in repetitions]


RESULTS = {
    "one": [*times("copy/fixed-1K-unaligned", "zorvac_fast", 9.0, 2.0, 4.0, bytes_per_second=4e9),
            *times("copy/fixed-1K-unaligned", "libc", 3.0, bytes_per_second=8e9),
            *times("copy/fixed-512-unaligned", "zorvac_fast", 2.0, bytes_per_second=5e9),
            *times("copy/fixed-512-unaligned", "libc", 5.0, bytes_per_second=2e9),
            run("copy/fixed-64-unaligned/zorvac_fast", 1.0, error_occurred=True)],
    "two": [*times("copy/fixed-1K-unaligned", "zorvac_new", 8.0),  # its peer is that of this file
            *times("copy/fixed-1K-unaligned", "libc-sse2", 16.0),
            *times("r8_n_n/64x64x64", "zorvac", 1.0, **{"GFLOP/s": 30.0}),
            *times("limit/separate", "8", 1.0, **{"GFLOP/s": 40.0}),
            *times("add/throughput", "zorvac", 1.0), *times("add/throughput", "libgcc", 3.0),
            *times("brand_new/row", "zorvac", 2.0, items_per_second=1e9),
            *times("brand_new/row", "peer", 8.0, items_per_second=0.5e9)],
}


class Page(unittest.TestCase):
    def write(self, notes):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        results = folder / "results"
        results.mkdir()
        for name, runs in RESULTS.items():
            (results / f"{name}.json").write_text(json.dumps({"benchmarks": runs}))
        (results / "machine.json").write_text(json.dumps({"Compiler": "g++ 99"}))
        (folder / "notes").mkdir()
        for name, text in notes.items():
            (folder / "notes" / f"{name}.md").write_text(text)
        outcome = subprocess.run(
            [BENCH / "page.py", results, folder / "notes", folder / "page.md"],
            capture_output=True, text=True)
        page = folder / "page.md"
        return outcome, page.read_text() if page.exists() else "", folder / "charts"

    def test_tables_and_charts_show_what_was_measured(self):
        outcome, page, charts = self.write({"memory": "Because of the jump.\n"})
        self.assertEqual(outcome.returncode, 0, outcome.stderr)
        for line in ("| Compiler | g++ 99 |",
                     "Because of the jump.",
                     "| copy/fixed-512-unaligned | 2.0 | 5.0 | 2.50 |",
                     "| copy/fixed-1K-unaligned | 4.0 | 3.0 | 0.75 |",  # the median, and a loss
                     "| copy/fixed-1K-unaligned | 8.0 | 16.0 | 2.00 |",
                     "| copy `zorvac_fast` | libc | 1.37 | 1 of 2 | 0.75 fixed-1K-unaligned | 2.50 ",
                     "| brand_new/row | 1.0 | 2.0 | 2.00 |",  # times of an item
                     "![Products of square matrices"):
            self.assertIn(line, page)
        self.assertNotIn("fixed-64", page)
        self.assertLess(page.index("copy/fixed-512"), page.index("copy/fixed-1K"))

        def texts(name):
            return [e.text for e in xml.parse(charts / f"{name}.svg").iter() if e.text]
        self.assertLessEqual({"512", "1K", "zorvac_fast", "libc", "GB/s"}, set(texts("copy")))
        self.assertLessEqual({"zorvac", "limit/separate/8", "GFLOP/s"}, set(texts("matrices")))
        self.assertLessEqual({"add", "zorvac", "libgcc", "ns"}, set(texts("quad")))
        # The limit lies above the point that stays below it.
        drawn = (charts / "matrices.svg").read_text()
        point = float(drawn.split('cy="')[1].split('"')[0])
        limit = float(drawn.split(' stroke-dasharray')[0].split("H")[-2].split(" ")[-1])
        self.assertLess(limit, point)

    def test_a_loss_without_a_reason_is_refused(self):
        outcome, page, _ = self.write({})
        self.assertNotEqual(outcome.returncode, 0)
        self.assertIn("memory.md is missing", outcome.stderr)
        self.assertEqual(page, "")


unittest.main()
