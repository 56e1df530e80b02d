#!/usr/bin/env python3
# page_test.py BENCH_FOLDER: what would make the performance page wrong, from known rows; and what
# would lose a row while it is measured, from a known program.
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as xml

BENCH = pathlib.Path(sys.argv.pop(1)).resolve()
HEAD = "# Commit: {}\n# peer C library: glibc 2.99\nrun,row,contender,ns,gflops\n"
ROWS = {  # {file: (commit, rows)}
    "intel-6-207/memory": ("0ld", ",copy/fixed-512-unaligned,zorvac_fast,2,\n"
                                  ",copy/fixed-512-unaligned,libc,4,\n"),
    "amd-25-1/memory": ("1st", ",copy/fixed-512-unaligned,zorvac_fast,2,\n"
                               ",copy/fixed-512-unaligned,libc,5,\n"
                               ",copy/fixed-64-unaligned,zorvac_fast,4,\n"
                               ",copy/fixed-64-unaligned,libc,3,\n"),
    "amd-25-1/matrices": ("gone", ",r8_n_n/64x64x64,zorvac-pair,10,\n"
                                  ",r8_n_n/64x64x64,zorvac-avx2,4,\n"
                                  ",r8_n_n/64x64x64,blis,8,\n,limit/separate,4,12,30.5\n"),
    # No table knows this family nor its contenders.
    "amd-25-1/new_thing": ("1st+", ",work/small,zorvac_new_way,1,\n,work/small,oldlib,3,\n")}
IN_PAGE = (
    # Means of both processors, the worst row and the reason.
    "| [Copy](#memory) | dispatcher | C library | 1.37 | 2.00 † | "
    "0.75 copy, 64 unaligned (AMD 25/1) | the indirect jump of small counts |",
    # The best level is in front, another level behind it.
    "| [Matrices, real](#matrices) | best level | BLIS | 2.00 † |",
    "| Matrices, real: SSE2 kernels | BLIS | 0.80 † |",
    # What has no peer; a family by its name alone; the versions of peers.
    "| limit, separate, 4 | 30.5 GFLOP/s |",
    "| [New thing](#new-thing) | zorvac_new_way | oldlib | 3.00 † |",
    "| C library | glibc 2.99 | glibc 2.99 |")
FILES = {
    # Compares with the commit "0ld" only: there src/mem differs, and src/cpu does not.
    "bin/git": '#!/bin/sh\ncase "$*" in *gone*) exit 1 ;; *0ld*src/mem*) echo "-x" ;; esac\n',
    "build/CMakeCache.txt": "CMAKE_CXX_COMPILER:FILEPATH=c++\n",
    "build/bench/thing_bench": """#!/bin/sh
for option; do case $option in --benchmark_out=*) out=${option#*=} ;; esac; done
cat > "$out" <<END
{"context": {"peer P": "1.2", "date": "today"}, "benchmarks": [
 {"name": "op/a/zorvac/min_time:0.1", "cpu_time": 9, "time_unit": "us"},
 {"name": "op/a/zorvac/min_time:0.1", "cpu_time": 2, "time_unit": "us"},
 {"name": "op/a/zorvac/min_time:0.1", "cpu_time": 4, "time_unit": "us"},
 {"name": "op/a/p", "cpu_time": 8, "time_unit": "ns", "items_per_second": 5e8}$MORE]}
END
"""}


def luminance(colour):  # WCAG 2.1, "relative luminance"
    parts = [int(colour[i:i + 2], 16) / 255 for i in (1, 3, 5)]
    linear = [p / 12.92 if p <= 0.04045 else ((p + 0.055) / 1.055) ** 2.4 for p in parts]
    return sum(w * p for w, p in zip((0.2126, 0.7152, 0.0722), linear))


class Bench(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        for name, text in FILES.items():
            self.write(name, text)

    def write(self, name, text):
        file = self.folder / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        file.chmod(0o755)

    def run_script(self, name, *arguments, **environment):
        environment |= {"PATH": f"{self.folder / 'bin'}:{os.environ['PATH']}"}
        return subprocess.run([BENCH / name, *arguments], env=os.environ | environment,
                              stderr=subprocess.PIPE, text=True, check=False).stderr

    def page(self, more):
        for file, (commit, rows) in (ROWS | more).items():
            self.write(f"{file}.csv", HEAD.format(commit) + rows)
        page, readme = self.folder / "page.md", self.folder / "README.md"
        readme.write_text("Before.\n\n|  | beside | old |\n| --- |\n\nAfter.\n")
        return self.run_script("page.py", self.folder, BENCH / "notes", page, readme) or \
            page.read_text()

    def test_page_says_what_the_rows_say_and_marks_old_ones(self):
        page = self.page({})
        for line in IN_PAGE:
            self.assertIn(line, page)
        readme = (self.folder / "README.md").read_text()
        self.assertRegex(readme, r"^Before\.\n\n\|  \| beside \| AMD 25/1 \| Intel 6/207 \|\n"
                                 r"(\|.*\n)*\n" r"After\.\n$")
        self.assertIn("| copies of blocks | the C library | 1.37 | 2.00 † |", readme)

    def test_page_refuses_rows_that_no_table_shows_and_losses_without_a_note(self):
        unknown = ("1st", "held,copy/fixed-512-unaligned,newlib,3,\n")
        self.assertIn("held: no table shows newlib;", self.page({"amd-25-1/memory": unknown}))
        loss = ("1st", ",work/small,zorvac_new_way,3,\n,work/small,oldlib,1,\n")
        self.assertIn("new_thing.md is missing", self.page({"amd-25-1/new_thing": loss}))

    def test_page_is_short(self):
        page = (BENCH.parent / "docs/performance.md").read_text()
        self.assertLessEqual(len(page.splitlines()), 400)

    def test_charts_can_be_read(self):
        self.page({})
        for chart, axis, way in ("copy", "y", -1), ("new_thing", "x", 1):
            root = xml.parse(self.folder / f"charts/{chart}.svg").getroot()
            paper = luminance(root.find("{*}rect").get("fill"))
            places = {}
            for e in root.findall("{*}text"):
                places[e.text] = float(e.get(axis))
                contrast = (paper + 0.05) / (luminance(e.get("fill")) + 0.05)
                self.assertGreaterEqual(contrast, 4.5, (chart, e.text))
            self.assertGreater(way * (places["1.25"] - places["1"]), 8, "a fifth can be seen")

    def measure(self, more=""):
        return self.run_script("measure.py", self.folder / "build", self.folder, MORE=more)

    def test_measuring_keeps_medians_and_names_rows_that_are_lost(self):
        self.measure(', {"name": "op/b/zorvac", "cpu_time": 1, "time_unit": "ns"}')
        self.assertIn("no longer measured: op/b/zorvac", self.measure())
        file, = self.folder.glob("*/thing.csv")
        for line in ("\n,op/a,zorvac,4000,\n", "\n,op/a,p,2,\n", "# peer P: 1.2\n", "# Compiler: "):
            self.assertIn(line, file.read_text())

    def test_measuring_fails_where_a_row_does(self):
        failed = ', {"name": "op/b/zorvac", "error_occurred": true, "error_message": "no luck"}'
        self.assertIn("op/b/zorvac: no luck", self.measure(failed))
        self.assertEqual(list(self.folder.glob("*/*.csv")), [])


unittest.main()
