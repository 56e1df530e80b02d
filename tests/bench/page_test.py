#!/usr/bin/env python3
"""page_test.py BENCH_FOLDER: what would make the performance page lie, from known results."""
import json
import pathlib
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as xml

RESULTS = {
    "one": [("copy/fixed-1K-unaligned/zorvac_fast", (9, 2, 4), {"bytes_per_second": 4e9}),
            ("copy/fixed-1K-unaligned/libc", (3,), {"bytes_per_second": 8e9}),
            ("copy/fixed-512-unaligned/zorvac_fast", (2,), {"bytes_per_second": 5e9}),
            ("copy/fixed-512-unaligned/libc", (5,), {"bytes_per_second": 2e9}),
            ("copy/fixed-64-unaligned/zorvac_fast", (1,), {"error_occurred": True})],
    "two": [("copy/fixed-1K-unaligned/zorvac_new", (8,), {}),  # its peer is that of this file
            ("copy/fixed-1K-unaligned/libc-sse2", (16,), {}),
            ("add/throughput/zorvac/min_time:0.020", (1,), {"items_per_second": 1e9}),
            ("add/throughput/libgcc", (8,), {"items_per_second": 0.5e9})]}
LINES = ("| copy/fixed-512-unaligned | 2.0 | 5.0 | 2.50 |\n"
         "| copy/fixed-1K-unaligned | 4.0 | 3.0 | 0.75 |",  # by size; the median, and a loss
         "| copy/fixed-1K-unaligned | 8.0 | 16.0 | 2.00 |", "Because of the jump.",
         "| copy `zorvac_fast` | libc | 1.37 | 1 of 2 | 0.75 fixed-1K-unaligned | 2.50 ",
         "| add/throughput | 1.0 | 2.0 | 2.00 |",  # times of an item
         "| Processor | Old (1) |")

with tempfile.TemporaryDirectory() as scratch:
    folder = pathlib.Path(scratch)
    for name, rows in RESULTS.items():
        runs = [{"name": row, "cpu_time": time, "time_unit": "ns", **more}
                for row, times, more in rows for time in times]
        (folder / f"{name}.json").write_text(json.dumps({"benchmarks": runs}))
    (folder / "machine.json").write_text('{"Processor": "Old (1)"}')
    command = [f"{sys.argv[1]}/page.py", folder, folder, folder / "page.md"]
    refusal = subprocess.run(command, stderr=subprocess.PIPE, text=True).stderr
    assert "memory.md is missing" in refusal and not (folder / "page.md").exists(), refusal
    (folder / "memory.md").write_text("Because of the jump.\n")
    subprocess.run(command, check=True)
    page = (folder / "page.md").read_text()
    assert "fixed-64" not in page and all(line in page for line in LINES), page
    for name, peer in ("copy", "libc"), ("quad", "libgcc"):
        assert peer in {e.text for e in xml.parse(folder / f"charts/{name}.svg").iter()}, name

    # On another processor the page is kept, with its charts; on the first one again, replaced.
    for processor, other in ("New", "old-1"), ("Old (1)", "new"):
        (folder / "machine.json").write_text(json.dumps({"Processor": processor}))
        subprocess.run(command, check=True)
        page = (folder / "page.md").read_text()
        assert f"| Processor | {processor} |" in page and f"](page-{other}.md)" in page, page
        old_page = (folder / f"page-{other}.md").read_text()
        assert f"](charts/page-{other}/copy.svg)" in old_page, old_page
        kept = {str(path.relative_to(folder / "charts")) for path in folder.glob("charts/*/*.svg")}
        assert kept == {f"page-{other}/copy.svg", f"page-{other}/quad.svg"}, kept
