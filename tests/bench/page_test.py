#!/usr/bin/env python3
"""page_test.py BENCH_FOLDER: what would make the performance page lie, from known rows; and what
would lose a row while it is measured, from a known program."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as xml

BENCH = pathlib.Path(sys.argv.pop(1)).resolve()
HEAD = ("# Date: 2026-01-02\n# Commit: {commit}\n# peer C library: glibc 2.99\n"
        "run,row,contender,ns,gflops\n")
AMD = {  # {family: rows}
    "memory": ",copy/fixed-512-unaligned,zorvac_fast,2,\n"
              ",copy/fixed-512-unaligned,libc,5,\n"
              ",copy/fixed-64-unaligned,zorvac_fast,4,\n"
              ",copy/fixed-64-unaligned,libc,3,\n"
              "held to SSE2,copy/fixed-64-unaligned,zorvac_new,8,\n"  # its peer is that of its run
              "held to SSE2,copy/fixed-64-unaligned,libc-sse2,16,\n",
    "matrices": ",r8_n_n/64x64x64,zorvac-pair,10,\n,r8_n_n/64x64x64,zorvac-avx2,4,\n"
                ",r8_n_n/64x64x64,blis,8,\n,limit/separate,4,12,30.5\n",
    # No table knows this family nor its contenders.
    "new_thing": ",work/small,zorvac_new_way,1,\n,work/small,oldlib,3,\n"}
INTEL = {"memory": ",copy/fixed-512-unaligned,zorvac_fast,2,\n,copy/fixed-512-unaligned,libc,4,\n"}
IN_PAGE = {
    "means of both processors, the worst row and the reason":
        "| [Copy](#memory) | dispatcher | C library | 1.37 | 2.00 † | "
        "0.75 copy, 64 unaligned (AMD 25/1) | the indirect jump of small counts |",
    "a member beside the peer of its own run alone":
        "| Copy: SSE2 member | C library held to SSE2 | 2.00 |  |",
    "the best level in front": "| [Matrices, real](#matrices) | best level | BLIS | 2.00 |",
    "another level behind it": "| Matrices, real: SSE2 kernels | BLIS | 0.80 |",
    "what has no peer": "| limit, separate, 4 | 30.5 GFLOP/s |",
    "a family by its name alone": "| [New thing](#new-thing) | zorvac_new_way | oldlib | 3.00 |",
    "peers' versions": "| C library | glibc 2.99 | glibc 2.99 |",
    "the note": "Because of the jump."}
# Compares with the commit "0ld" only: there src/mem differs, and src/cpu does not.
GIT = '#!/bin/sh\ncase "$*" in *gone*) exit 1 ;; *0ld*src/mem*) echo "-x" ;; esac\n'
PROGRAM = """#!/bin/sh
for option; do case $option in --benchmark_out=*) out=${option#*=} ;; esac; done
cat > "$out" <<END
{"context": {"peer P": "1.2", "date": "today"}, "benchmarks": [
 {"name": "op/a/zorvac/min_time:0.1", "cpu_time": 9, "time_unit": "us"},
 {"name": "op/a/zorvac/min_time:0.1", "cpu_time": 2, "time_unit": "us"},
 {"name": "op/a/zorvac/min_time:0.1", "cpu_time": 4, "time_unit": "us"},
 {"name": "op/a/p", "cpu_time": 8, "time_unit": "ns", "items_per_second": 5e8}$MORE]}
END
"""


def contrast(colour, other):
    """WCAG 2.1, "contrast ratio"."""
    def luminance(text):
        parts = [int(text[i:i + 2], 16) / 255 for i in (1, 3, 5)]
        linear = [p / 12.92 if p <= 0.04045 else ((p + 0.055) / 1.055) ** 2.4 for p in parts]
        return sum(w * p for w, p in zip((0.2126, 0.7152, 0.0722), linear))
    low, high = sorted((luminance(colour), luminance(other)))
    return (high + 0.05) / (low + 0.05)


class Scratch(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)
        self.program("bin/git", GIT)

    def program(self, name, text):
        file = self.folder / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        file.chmod(0o755)

    def run_script(self, name, *arguments, **environment):
        environment |= {"PATH": f"{self.folder / 'bin'}:{os.environ['PATH']}"}
        return subprocess.run([BENCH / name, *arguments], env=os.environ | environment,
                              capture_output=True, text=True, check=False)


class Page(Scratch):
    def setUp(self):
        super().setUp()
        self.rows("amd-25-1", AMD, "1st")
        self.rows("intel-6-207", INTEL, "0ld")
        for name in ("memory", "matrices"):
            (self.folder / f"{name}.md").write_text("Because of the jump.\n")

    def rows(self, processor, families, commit):
        (self.folder / processor).mkdir(exist_ok=True)
        for name, rows in families.items():
            (self.folder / processor / f"{name}.csv").write_text(HEAD.format(commit=commit) + rows)

    def page(self):
        done = self.run_script("page.py", self.folder, self.folder, self.folder / "page.md")
        self.assertEqual(done.stderr, "")
        return (self.folder / "page.md").read_text()

    def test_says_what_the_rows_say(self):
        page = self.page()
        for name, line in IN_PAGE.items():
            with self.subTest(name):
                self.assertIn(line, page)

    def test_marks_rows_of_code_that_nobody_knows(self):
        for commit in "gone", "1st+":
            with self.subTest(commit):
                self.rows("intel-6-207", INTEL, commit)
                self.assertIn("| 2.00 † |", self.page())

    def test_refuses(self):
        refused = {
            "a peer without ours": ("amd-25-1/memory.csv", ",copy/fixed-2K-aligned,libc,3,\n",
                                    "copy/fixed-2K-aligned : no table shows libc;"),
            "ours without a peer": ("amd-25-1/memory.csv",
                                    ",copy/fixed-2K-aligned,zorvac_fast,3,\n",
                                    "no table shows zorvac_fast;"),
            "a peer in another run": ("amd-25-1/memory.csv",
                                      "held to AVX2,copy/fixed-512-unaligned,zorvac_fast,3,\n",
                                      "copy/fixed-512-unaligned held to AVX2: no table shows"),
            "a loss without a note": ("amd-25-1/new_thing.csv",
                                      ",work/big,zorvac_new_way,3,\n,work/big,oldlib,1,\n",
                                      "new_thing.md is missing")}
        for name, (file, rows, words) in refused.items():
            with self.subTest(name):
                before = (self.folder / file).read_text()
                (self.folder / file).write_text(before + rows)
                done = self.run_script("page.py", self.folder, self.folder, self.folder / "page.md")
                (self.folder / file).write_text(before)
                self.assertIn(words, done.stderr)
                self.assertFalse((self.folder / "page.md").exists())

    def test_draws_ratios_that_can_be_read(self):
        (self.folder / "charts").mkdir()
        (self.folder / "charts/of_a_family_that_went.svg").write_text("<svg/>")
        self.page()
        drawn = {}  # {chart: {text: where}}
        for file in self.folder.glob("charts/*.svg"):
            root = xml.parse(file).getroot()
            paper = next(e for e in root if e.tag.endswith("rect")).get("fill")
            texts = [e for e in root.iter() if e.tag.endswith("text")]
            drawn[file.stem] = {e.text: (float(e.get("x")), float(e.get("y"))) for e in texts}
            for e in texts:
                self.assertGreaterEqual(contrast(e.get("fill"), paper), 4.5, (file, e.text))
        self.assertNotIn("of_a_family_that_went", drawn)
        expected = {"copy": {"times as fast as the peer; upwards: zorvac is faster",
                             "dispatcher beside C library", "512", "64", "0.8", "1.25"},
                    "new_thing": {"times as fast as the peer; to the right: zorvac is faster",
                                  "zorvac_new_way beside oldlib", "work", "3.00"}}
        for name, words in expected.items():
            self.assertEqual(words - drawn.get(name, {}).keys(), set(), name)
        for chart, axis, way in ("copy", 1, -1), ("new_thing", 0, 1):  # a fifth can be seen
            (slower, faster) = (drawn[chart][tick][axis] for tick in ("1", "1.25"))
            self.assertGreater(way * (faster - slower), 8, chart)


class Measuring(Scratch):
    def setUp(self):
        super().setUp()
        self.program("build/bench/thing_bench", PROGRAM)
        self.program("build/bench/other_bench", "#!/bin/sh\nexit 1\n")
        self.program("bin/c++", "#!/bin/sh\necho compiler 9\n")
        cache = f"CMAKE_CXX_COMPILER:FILEPATH={self.folder / 'bin/c++'}\n"
        (self.folder / "build/CMakeCache.txt").write_text(cache)

    def measure(self, more="", family="thing"):
        return self.run_script("measure.py", "--only", family, self.folder / "build", self.folder,
                               MORE=more)

    def kept(self):
        file, = self.folder.glob("*/thing.csv")
        return file.read_text()

    def test_keeps_medians_with_what_they_were_measured_on(self):
        self.assertEqual(self.measure().returncode, 0)
        for line in (",op/a,zorvac,4000,", ",op/a,p,2,", "# peer P: 1.2", "# Compiler: compiler 9"):
            self.assertIn(line + "\n", self.kept())
        self.assertRegex(self.kept(), r"(?m)^# Date: 20\d\d-\d\d-\d\d$")

    def test_tells_of_rows_that_are_lost(self):
        row = ', {"name": "op/b/zorvac", "cpu_time": 1, "time_unit": "ns"}'
        self.measure(row)
        self.assertIn("no longer measured: op/b/zorvac", self.measure().stderr)
        self.assertNotIn("op/b", self.kept())

    def test_fails_where_a_row_or_a_program_does(self):
        failed = ', {"name": "op/b/zorvac", "error_occurred": true, "error_message": "no luck"}'
        self.assertIn("op/b/zorvac: no luck", self.measure(failed).stderr)
        self.assertIn("other_bench", self.measure(family="other").stderr)
        self.assertIn("no family or program is called thin:", self.measure(family="thin").stderr)
        self.assertEqual(list(self.folder.glob("*/*.csv")), [])


if __name__ == "__main__":
    unittest.main()
