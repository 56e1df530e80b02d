"""The one table of what scripts/bench measures and what docs/performance.md shows of it.

A family is a program. A program without a row here runs once, without settings, and has a section
under its name: a new benchmark is on the page at once. All rows count in the tables. A family may
also have charts.
"""
from dataclasses import dataclass, field


@dataclass(frozen=True)
class Chart:
    """A picture of ratios, a panel for each processor. `rows` matches the rows. Its group `size` is
    the x axis of a chart of lines; each text of its group `bar` has a bar, with the mean of its
    rows. `pairs` matches the contenders to show, as "ours beside peer" with their labels."""
    file: str
    title: str
    rows: str = r"(?P<bar>[^/]+)/"
    pairs: str = ""
    x: str = ""  # what the sizes are, on a chart of lines


@dataclass(frozen=True, eq=False)
class Family:
    name: str  # names its rows, <processor>/<name>.csv, and its note, notes/<name>.md, too
    program: str
    title: str
    sources: tuple = ("src",)  # what it measures: rows older than a change here are marked
    runs: dict = field(default_factory=lambda: {"": {}})  # {name: environment}
    parts: tuple = ()  # (title, rows): lines of their own in the tables; other rows share a line
    front: tuple = ()  # the first of these that a processor has is ours in the first table
    figures: str = "$^"  # rows of one contender alone, which have a time and no ratio
    reasons: tuple = ()  # (what "row/ours peer" contains, why it is below 1): the first that fits
    charts: tuple = ()


def held(*missing):
    """Returns the environment that makes the C library ignore these features."""
    return {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=" + ",".join("-" + name for name in missing)}


# The features that the C library must ignore to be held to a level.
TO_AVX2 = ("AVX512F", "AVX512VL", "AVX512BW")
TO_SSE4 = (*TO_AVX2, "AVX2", "AVX_Fast_Unaligned_Load", "ERMS", "FSRM", "MOVBE")
TO_SSSE3 = (*TO_SSE4, "SSE4_1", "SSE4_2")
TO_SSE2 = (*TO_SSSE3, "SSSE3", "BMI2")

LABELS = {
    "libc": "C library", "libc-avx2": "C library held to AVX2",
    "libc-sse4": "C library held to SSE4.2", "libc-ssse3": "C library held to SSSE3",
    "libc-sse2": "C library held to SSE2",
    "zorvac_fast": "dispatcher", "zorvac_avx_rep": "AVX2 member",
    "zorvac_avx512f": "AVX-512 member", "zorvac_new": "SSE2 member",
    "zorvac_ssse3": "SSSE3 member", "zorvac_ssse3_rep": "SSE4.2 member", "zorvac_vec": "VEC member",
    "zorvac_sse2": "SSE2 members", "zorvac_sse4": "SSE4.2 members",
    "zorvac-pair": "SSE2 kernels", "zorvac-avx2": "AVX2 kernels",
    "zorvac-avx512": "AVX-512 kernels",
    "zorvac-general-pair": "general kernels, SSE2", "zorvac-general-avx2": "general kernels, AVX2",
    "zorvac-general-avx512": "general kernels, AVX-512",
    "zorvac-calls": "the C routines", "zorvac-class": "the C++ class",
    "zorvac-float128": "libzorvac_float128", "zorvac": "zorvac",
    "openblas": "OpenBLAS", "blis": "BLIS", "eigen": "Eigen", "matmul": "Fortran's MATMUL",
    "clang_rt": "clang's library", "loop": "a compiled loop", "libdw-warm": "libdw, files read",
    "direct": "the variant itself", "worker": "the worker itself",
    "empty-library": "an empty library",
    # Parts of row names.
    "pair": "freed at once", "crowd": "10,000 blocks alive", "handover": "handed over",
    "foreign": "the C library's block",
    "r8_n_n": "doubles", "r8_t_n": "doubles, A transposed", "r8_n_t": "doubles, B transposed",
    "r4_n_n": "floats", "c4_n_n": "complex floats", "c8_n_n": "complex doubles",
}


AT_THEIR_LEVEL = r"^(dispatcher|SSE2 member|SSSE3 member) "


def by_size(operation):
    return Chart(operation, f"{operation.capitalize()} by size, unaligned",
                 rf"{operation}/fixed-(?P<size>\d+[KM]?)-unaligned",
                 AT_THEIR_LEVEL, x="size in bytes")


FAMILIES = (
    Family(
        "memory", "block_bench", "Memory", ("src/mem", "src/cpu"),
        runs={"": {}, "held to AVX2": held(*TO_AVX2), "held to SSSE3": held(*TO_SSSE3),
              "held to SSE2": held(*TO_SSE2)},
        parts=tuple((operation.capitalize(), f"{operation}/")
                    for operation in ("copy", "move", "fill", "compare")),
        front=("zorvac_fast",),
        reasons=((r"^compare/", "compares by words: part of the interface"),
                 (r"^move/.*zorvac_fast", "no AVX2 move: the SSE4.2 worker's fifteen loops"),
                 (r"avx512f", "streams blocks of every size"),
                 (r"vec", "REP MOVSQ and REP STOSQ up to 16384 bytes"),
                 (r"(fixed-(1|2|4|8|16|32|64|128)|mixed|service)-",
                  "the indirect jump of small counts"),
                 (r"(new|ssse3)", "fifteen merging loops"),
                 (r"", "see [memory](#memory)")),
        charts=(Chart("mixes", "Blocks of unpredictable sizes, unaligned",
                      r"(?P<bar>\w+/(mixed-[\d-]+|service))-unaligned", AT_THEIR_LEVEL),
                by_size("copy"), by_size("move"), by_size("fill"), by_size("compare"))),
    Family(
        "strings", "string_bench", "Strings", ("src/string",),
        runs={"held to SSE4.2": held(*TO_SSE4), "held to SSSE3": held(*TO_SSSE3),
              "held to SSE2": held(*TO_SSE2)},
        parts=(("Decimal numbers", r"ato"),),
        reasons=((r"^ato", "sixteen digits and more take a second round"),
                 (r"^str(len|end|chr)/", "the first block costs a branch of its own"),
                 (r"", "see [strings](#strings)")),
        charts=(Chart("strings", "String routines, all lengths"),
                Chart("strlen", "strlen by length", r"strlen/(?P<size>\d+)$", x="size in bytes"),
                Chart("numbers", "Decimal numbers by digits", r"ato(i|ll)/(?P<size>\d+)$",
                      x="number of digits"))),
    Family(
        "pool", "pool_bench", "Pools", ("src/mem/imalloc.cpp",),
        runs={f"{pools or 'one'} {threads}": {"ZORVAC_BENCH_POOLS": pools,
                                              "ZORVAC_BENCH_THREADS": threads}
              for pools in ("", "5", "50", "spent") for threads in ("one", "several")},
        parts=(("Full pools, foreign blocks", "foreign/|[^/]+/.*spent-pools"),
               ("Pools, one thread", "[^/]+/one-thread"),
               ("Pools, several threads", "[^/]+/")),
        reasons=((r"spent|foreign", "the look-up comes before the C library's work"),
                 (r"two|four", "strict order: all threads share two counters"),
                 (r"mimalloc", "returns the block that was freed last, still cached"),
                 (r"", "see [pools](#pools)")),
        charts=(Chart("pool", "Blocks of 64 bytes from one pool: by threads and by who frees",
                      r"(?P<bar>\w+/\w+-threads?)$"),
                Chart("pools", "Blocks of 64 bytes on one thread, by the number of pools",
                      r"(?P<bar>(pair|crowd|handover)/one-thread(-\w+-pools)?)$"))),
    Family(
        "quad", "quad_bench", "Quad arithmetic", ("src/quad",),
        figures="empty/",
        parts=(("Quad operations", r"(add|subtract|multiply|divide)/"),
               ("Quad comparisons and conversions", r"")),
        reasons=((r"clang_rt", "ignores the rounding mode, raises no flag"),
                 (r"", "see [quad arithmetic](#quad-arithmetic)")),
        charts=(Chart("quad", "Quad operations, one call after the other",
                      r"(?P<bar>\w+)/(?!latency)"),
                Chart("quad-latency", "Quad operations, each waiting for the one before",
                      r"(?P<bar>\w+)/latency"))),
    Family(
        "programs", "programs_bench", "Programs in quads",
        ("src/quad", "bridge/quad", "bridge/float128", "include/zorvac/quad.hpp"),
        charts=(Chart("programs", "Programs in quads", r"program/(?P<bar>[^/]+)"),)),
    Family(
        "text", "text_bench", "Text", ("include/zorvac/quad_text.hpp",),
        reasons=((r"", "few digits or a small exponent"),),
        charts=(Chart("text", "Quads as decimal text", r"decimal/(?P<bar>[^/]+)"),)),
    Family(
        "matrices", "matmul_bench", "Matrices", ("src/array",),
        front=("zorvac-avx512", "zorvac-avx2", "zorvac-pair"),
        figures="limit/",
        parts=(("Matrices, real", "r"), ("Matrices, complex", "c")),
        reasons=((r"x1/", "one column: A is read once, for little computation"),
                 (r"/(4|8|12|16)x", "small products pass two or three jumps"),
                 (r"^c", "products are rounded before they are added"),
                 (r"", "the order of sums; see [matrices](#matrices)")),
        charts=(Chart("matrices", "Products of square matrices of doubles, one thread",
                      r"r8_n_n/(?P<size>\d+)x(?P=size)x(?P=size)$", "^best", x="rows and columns"),
                Chart("products", "Products by type and storage, all shapes",
                      pairs="^best"))),
    Family(
        "reductions", "reduction_bench", "Reductions",
        ("src/array/reductions.h", "src/array/omp_support.cpp"),
        reasons=((r"/(8|64)/", "type and operator are looked up"), (r"", "")),
        charts=(Chart("reductions", "Reductions of arrays of 8 to 65536 elements"),)),
    Family(
        "traceback", "traceback_bench", "Traceback", ("src/diag",),
        figures="protection/",
        parts=(("Walking the stack", "walk/"), ("Traceback with text", "text/")),
        reasons=((r"^walk", "65 signal actions protect the walk"),
                 (r"_fd", "reads names and lines from the images"),
                 (r"", "opens the images each time")),
        charts=(Chart("traceback", "Tracebacks by frames, images and mappings",
                      r"(?P<bar>\w+/[^/]+)$"),)),
    Family(
        "dispatch", "startup_bench", "Dispatch and load",
        ("src/cpu", "src/core", "src/mem"),
        figures="detect/",
        parts=(("Dispatch", "dispatch"), ("Loading the library", "load")),
        reasons=((r"^load", "an empty library has nothing to do"),
                 (r"", "two jumps, a load and a test")),
        charts=(Chart("dispatch", "The cost of a dispatcher and of the constructor",
                      r"(?P<bar>[^/]+/[^/]+)$"),)),
)


# The lines of README's table: what, beside what, and which figures of the first table: the part,
# ours and the peer.
SUMMARY = (
    ("programs in quads, by libzorvac_float128 / by the C++ type", "libgcc",
     (("Programs in quads", "libzorvac_float128", "libgcc"),
      ("Programs in quads", "the C++ class", "libgcc"))),
    ("quads written and read as text", "libquadmath", (("Text", "zorvac", "libquadmath"),)),
    ("products of real matrices", "Fortran's MATMUL",
     (("Matrices, real", "best level", "Fortran's MATMUL"),)),
    ("strings", "the C library at the same level",
     (("Strings", "SSE2 members", "C library held to SSE2"),)),
    ("copies of blocks", "the C library", (("Copy", "dispatcher", "C library"),)),
)


def family_called(name):
    """Returns the family of a program or of a file of rows that is not in the table."""
    title = name.replace("_", " ").capitalize()
    return Family(name, f"{name}_bench", title, figures="", charts=(Chart(name, title),))


def families_of(names):
    """Returns the families of the table, and one for each of the other names."""
    names = [name.removesuffix("_bench") for name in names]
    tabled = {name for f in FAMILIES for name in (f.name, f.program.removesuffix("_bench"))}
    return [*FAMILIES, *(family_called(name) for name in sorted(set(names) - tabled))]
