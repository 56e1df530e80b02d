"""The one table of what scripts/bench runs and what docs/performance.md shows of it.

A program that has no row in RUNS runs once as it is, and rows that no family claims come under the
last one, so a new benchmark is on the page before anybody has thought of it.
"""
from dataclasses import dataclass


@dataclass(frozen=True)
class Run:
    """One run of a program: the rows to measure and the environment to do it in."""
    program: str
    rows: str = "."
    result: str = ""  # of the file with the results; the program's name where empty
    environment: tuple = ()


@dataclass(frozen=True)
class Chart:
    """A picture of the rows that match. The group `size` of `rows` is the x axis; where there is a
    group `series`, each of its texts gives lines of its own. A chart of bars has a group of bars
    for each text of the group `row`. `hide` are contenders to leave out; rows that match `limits`
    become lines across: the most that a contender can reach. On a ratio scale the y axis is
    logarithmic, too."""
    file: str
    title: str
    rows: str
    value: str = "ns"  # ns, GB/s or GFLOP/s
    bars: bool = False
    x: str = "bytes"
    hide: str = "^$"
    limits: str = "^$"
    ratio_scale: bool = False


@dataclass(frozen=True)
class Family:
    name: str  # and that of its note, bench/notes/<name>.md
    title: str
    rows: str
    charts: tuple = ()


# The C library held to its variants of one level.
WITHOUT_AVX = ("GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX512F,-AVX512VL,-AVX_Fast_Unaligned_Load,"
               "-ERMS,-FSRM,-SSE4_1,-SSE4_2,-MOVBE")

RUNS = (
    Run("block_bench", "/(zorvac_(fast|avx_rep|avx512f|vec)|worker|libc)(/|$)"),
    Run("block_bench", "/(zorvac_ssse3|zorvac_ssse3_rep|libc-ssse3)(/|$)", "block_bench-ssse3",
        (WITHOUT_AVX,)),
    Run("block_bench", "/(zorvac_new|libc-sse2)(/|$)", "block_bench-sse2",
        (WITHOUT_AVX + ",-SSSE3",)),
    Run("string_bench", "(atoi|atoll)/"),
    Run("string_bench", "(strlen|strchr)/", "string_bench-sse2",
        (WITHOUT_AVX + ",-SSSE3,-BMI2",)),
) + tuple(
    Run("pool_bench", f"/{threads}-", f"pool_bench-{result}-{pools or 1}",
        (f"ZORVAC_BENCH_POOLS={pools}",))
    for pools in ("", "5", "50", "spent")
    for threads, result in (("one", "one"), ("(two|four)", "several"))
)


def by_size(operation):
    return Chart(operation, f"{operation}: gigabytes a second by size, unaligned",
                 rf"{operation}/fixed-(?P<size>\d+[KM]?)-unaligned", "GB/s",
                 hide="_(avx512f|vec|ssse3)$|libc-ssse3", ratio_scale=True)


FAMILIES = (
    Family("memory", "Memory by size", r"(copy|move|fill|compare|dispatch-.*)/",
           (by_size("copy"), by_size("move"), by_size("fill"), by_size("compare"))),
    Family("strings", "Strings", r"(strlen|strchr|atoi|atoll)/",
           (Chart("strlen", "strlen: time by length", r"strlen/(?P<size>\d+)$", ratio_scale=True),
            Chart("numbers", "Decimal numbers: time by digits",
                  r"(?P<series>ato\w+)/(?P<size>\d+)$", x="digits", ratio_scale=True))),
    Family("pool", "Pools", r"(pair|crowd|handover|foreign)/",
           (Chart("pool", "One allocation and one free of 64 bytes", r"(?P<row>\w+)/one-thread$",
                  bars=True),)),
    Family("quad", "Quad arithmetic",
           r"(add|subtract|multiply|divide|equal|less|to_\w+|from_\w+)/(throughput|latency)$",
           (Chart("quad", "Quad operations: time of a call, operands not predictable",
                  r"(?P<row>\w+)/throughput$", bars=True),
            Chart("quad-latency", "Quad operations: time of a call that waits for the one before",
                  r"(?P<row>\w+)/latency$", bars=True))),
    Family("matrices", "Matrices", r"([rc][48]_[nt]_[nt]|limit)/",
           (Chart("matrices", "Products of square matrices of doubles, one thread",
                  r"r8_n_n/(?P<size>\d+)x(?P=size)x(?P=size)$", "GFLOP/s", x="n", hide="general",
                  limits=r"limit/separate/[28]"),)),
    Family("reductions", "Reductions", r"(sum|product|maximum|minimum|equivalence)-\w+/"),
    Family("traceback", "Traceback", r"(walk|text)/",
           (Chart("traceback", "A traceback by the number of frames",
                  r"(?P<series>walk|text)/(?P<size>\d+)-frames$", x="frames", ratio_scale=True),)),
    Family("dispatch", "Dispatch and load", r"(dispatch|detect|load)/"),
    Family("others", "Others", r"(?!empty/)"),
)
