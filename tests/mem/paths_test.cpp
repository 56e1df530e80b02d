// Which way a block goes: size classes, streaming and its fence, string instructions, prefetches,
// directions, the probe of the caches. The bytes come out the same on every path, so the routines
// are single-stepped, under a clock of the test's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "mem/members.h"
#include "mem/trace.h"
#include "support/guard_pages.h"
#include "support/sanitized.h"

namespace zorvac::test {
namespace {

// A path is named by the instructions below that it executes, and three properties of it: some
// instruction runs more than once (loop), and it begins in the lower (up) or upper half of the
// destination (down).
const std::set<std::string, std::less<>> told{
    "jmp",    "lfence", "loop",        "movntdq",    "movnti",     "movsb", "movsq", "down",
    "sfence", "rdtsc",  "prefetchnta", "prefetcht0", "prefetcht1", "stosb", "stosq", "up"};

class PathTest : public testing::Test {
 protected:
  void SetUp() override {
#ifndef __OPTIMIZE__
    GTEST_SKIP() << "not the code that is shipped";
#endif
    if (sanitized) GTEST_SKIP() << "not the code that is shipped";
  }

  // Traces a call on these offsets into the areas.
  trace run(const member& m, std::size_t to, std::size_t from, std::size_t count,
            const stopped_clock& clock = {}) {
    unsigned char* const d = m.what == kind::compare ? from_.begin() + from : to_.begin() + to;
    const auto source = reinterpret_cast<std::uintptr_t>(from_.begin() + from);
    trace t = trace_of(
        m.entry, [&] { m(d, source, count); }, clock);
    EXPECT_GT(t.size(), 0u);
    return t;
  }
  // Where in the destination a step reads or writes; else beyond it.
  [[nodiscard]] std::size_t in_destination(const step& s) const {
    return s.operand - reinterpret_cast<std::uintptr_t>(to_.begin());
  }

  // The name of the path of a call with so many bytes to this offset.
  [[nodiscard]] std::set<std::string> name_of(const trace& t, std::size_t to, std::size_t n) const {
    std::set<std::string> name;
    for (const step& s : t)
      if (told.contains(s.what)) name.emplace(s.what);
    if (!in_loops(t).empty()) name.insert("loop");
    const auto first = std::find_if(
        t.begin(), t.end(), [this](const step& s) { return in_destination(s) < to_.size(); });
    if (first != t.end()) name.insert(in_destination(*first) < to + n / 2 ? "up" : "down");
    return name;
  }
  // The steps whose instructions ran more than once.
  static trace in_loops(const trace& t) {
    std::map<std::uintptr_t, int> times;
    for (const step& s : t) ++times[s.address];
    trace loops;
    std::copy_if(t.begin(), t.end(), std::back_inserter(loops),
                 [&](const step& s) { return times[s.address] > 1; });
    return loops;
  }
  guarded_block from_{65536}, to_{65536};
};

// Where a way ends and the next one begins: with one byte less than `count` the path is `below`, with
// as many `above`, as far as the row names properties at all. Thresholds compare with what is left
// after alignment, which takes 16 bytes off a copy to offset 16 of an SSSE3 member and 31 off one to
// offset 1 of an AVX2 member. The loop of the former begins a register later.
using names = std::set<std::string>;
struct edge {
  names routines;
  cache_values caches;
  std::size_t to, from, count;
  names below, above;
  // Where the path above prefetches first, from the start of its block on, and how often in all.
  std::vector<std::size_t> ahead = {};
  std::size_t prefetches = 0;
};
const names new_copies{"__zorva_new_memcpy", "__zorva_new_memmove"},
    ssse3_copies{"__zorva_ssse3_memcpy", "__zorva_ssse3_memmove"},
    rep_copies{"__zorva_ssse3_rep_memcpy", "__zorva_ssse3_rep_memmove"},
    both_copies{"__zorva_ssse3_memcpy", "__zorva_ssse3_memmove", "__zorva_ssse3_rep_memcpy",
                "__zorva_ssse3_rep_memmove"},
    avx_copy{"__zorva_avx_rep_memcpy"}, avx512_copy{"__zorva_vpx_avx512f_memcpy"},
    new_fill{"__zorva_new_memset"}, avx_fill{"__zorva_avx_rep_memset"},
    avx512_fill{"__zorva_vpx_avx512f_memset"}, vec_copies{"_VEC_memcpy", "__zorva_VEC_memcpy"},
    vec_fills{"_VEC_memset", "__zorva_VEC_memset", "_VEC_memzero", "__zorva_VEC_memzero"};
const names plain{}, fence{"sfence"}, streams{"movntdq", "sfence"},
    stream_words{"movnti", "sfence"}, nta{"prefetchnta"}, t0{"prefetcht0"}, moves{"movsb", "movsq"},
    fills{"stosb", "stosq"}, streams_nta{"movntdq", "prefetchnta", "sfence"},
    words_nta{"movnti", "prefetchnta", "sfence"}, streams_t0{"movntdq", "prefetcht0", "sfence"},
    streams_t1{"movntdq", "prefetcht1", "sfence"},
    split{"lfence", "movntdq", "prefetcht0", "sfence"},
    split_nta{"lfence", "movntdq", "prefetcht0", "prefetchnta", "sfence"};

const edge edges[] = {
    // Above half the largest cache it streams, after alignment. Method 2 alone has vectors. A loop
    // through the caches leaves less than 168 bytes.
    {new_copies, {2048, 512}, 0, 0, 1025, plain, streams_nta, {384}, 16},
    {new_copies, {2048, 512}, 0, 3, 1025, plain, streams_nta},
    {new_copies, {2048, 512}, 8, 0, 1033, plain, streams_nta},
    {new_copies, {0, 0}, 0, 0, 177, plain, streams_nta},
    {new_copies, {2048, 0, 1}, 0, 0, 1025, plain, words_nta, {384}, 16},
    {new_copies, {2048, 0, 3}, 0, 0, 1025, plain, words_nta},
    {new_copies, {0, 0, 0}, 0, 0, 177, plain, words_nta},
    {new_copies, {-2, 512}, 0, 0, 4000, plain, plain},  // cache values have no sign
    {new_copies, ordinary, 0, 0, 296, plain, {"loop"}},

    // From half the first level on it prefetches, above half the largest it streams; the first
    // three forwards, from sources that are misaligned and not, then backwards.
    {ssse3_copies, {65536, 4096}, 16, 35, 2064, plain, t0, {480, 672}, 30},
    {ssse3_copies, {65536, 4096}, 16, 32, 2064, plain, t0},
    {ssse3_copies, {4096, 1024}, 16, 35, 2065, t0, streams},
    {ssse3_copies, {65536, 4096}, 35, 16, 2062, plain, t0},

    // Large from the first level on, or when aligned from about half of it; backwards above twice.
    // Then the part beyond half the largest cache is streamed, unless it is small or nearly all.
    {rep_copies, {2048, 1024}, 16, 35, 528, plain, t0, {480, 672}, 6},
    {rep_copies, {2048, 1024}, 16, 35, 1040, t0, nta, {480, 480, 672, 672}, 28},
    {rep_copies, {2048, 1024}, 16, 32, 527, plain, nta},
    {rep_copies, {2048, 2048}, 35, 16, 4110, t0, nta},
    {rep_copies, {2048, 512}, 16, 35, 5153, nta, split_nta},
    {rep_copies, {2048, 512}, 35, 16, 5150, nta, split_nta},
    {rep_copies, {2048, 512}, 16, 35, 9249, split_nta, split, {544, 800}, 144},

    // Both choose the direction by the low bytes of the addresses, as signed numbers.
    {both_copies, ordinary, 0x00, 0x10, 145, {"up"}, {"up"}},
    {both_copies, ordinary, 0x10, 0x00, 145, {"down"}, {"down"}},
    {both_copies, ordinary, 0x00, 0x80, 145, {"down"}, {"down"}},
    {both_copies, ordinary, 0x80, 0x00, 145, {"up"}, {"up"}},
    {both_copies, ordinary, 0x80, 0xff, 1500, {"up"}, {"up"}},
    {both_copies, ordinary, 0xff, 0x80, 1500, {"down"}, {"down"}},
    {both_copies, ordinary, 0x35, 0x35, 1500, {"down"}, {"down"}},
    {both_copies, ordinary, 0x100, 0x70, 1500, {"up"}, {"up"}},
    {ssse3_copies, ordinary, 0x70, 0x100, 81, {"down"}, {"down"}},

    // Three quarters of half the first level: the string instruction; half the largest: streaming,
    // while an iteration leaves 768 bytes. An aligned destination moves on by 32 bytes too.
    {avx_copy, {8192, 2048}, 1, 2, 799, plain, {"movsb"}},
    {avx_copy, {8192, 2048}, 0, 2, 800, plain, {"movsb"}},
    {avx_copy, {8192, 2048}, 1, 2, 4127, {"movsb"}, streams_t0, {543, 607, 671, 735}, 52},
    {avx_copy, {1024, 8192}, 1, 2, 3103, plain, streams_t0},
    {avx_copy, {0, 0}, 1, 2, 257, plain, fence},
    {avx_copy, {0, 0}, 1, 2, 1055, fence, streams_t0},

    // Every bulk is streamed, whatever the caches.
    {avx512_copy, {0, 0}, 1, 2, 575, plain, streams_t1, {63, 127, 191}, 32},
    {avx512_copy, {1 << 30, 1 << 30}, 1, 2, 575, plain, streams_t1},
    {avx512_fill, {0, 0}, 1, 0, 575, plain, streams},
    {avx512_fill, {1 << 30, 1 << 30}, 1, 0, 575, plain, streams},

    // Fills compare with the whole largest cache; an unknown one stops streaming on the word path
    // alone, which methods below 2 take.
    {new_fill, {2048, 512}, 0, 0, 2049, plain, streams},
    {new_fill, {2048, 512, 3}, 0, 0, 2049, plain, streams},
    {new_fill, {0, 0}, 0, 0, 65, plain, fence},
    {new_fill, {2048, 0, 1}, 0, 0, 2049, plain, stream_words},
    {new_fill, {0, 0, 0}, 0, 0, 3000, plain, plain},
    {new_fill, {-2, 512}, 0, 0, 4000, plain, plain},

    // Fifteen sixteenths of the first level: the string instruction. Never streams.
    {avx_fill, {1024, 2048}, 1, 0, 1951, plain, {"stosb"}},
    {avx_fill, {0, 0}, 1, 0, 129, plain, {"stosb"}},
    {avx_fill, {1024, 1 << 20}, 1, 0, 5000, plain, plain},

    // String instructions alone up to 16384 bytes, then a probe: of what the 13 bytes before the
    // boundary leave, where the destination is misaligned.
    {vec_copies, ordinary, 0, 0, 16385, moves, {"rdtsc"}},
    {vec_copies, ordinary, 3, 3, 16398, moves, {"rdtsc"}},
    {vec_copies, ordinary, 3, 9, 16398, moves, {"rdtsc"}},
    {vec_fills, ordinary, 0, 0, 16385, fills, {"rdtsc"}},
    {vec_fills, ordinary, 3, 0, 16398, fills, {"rdtsc"}},
};

TEST_F(PathTest, ChangesAtItsEdges) {
  for (const edge& e : edges)
    for (const member& m : members)
      for (const std::size_t n : {e.count - 1, e.count}) {
        if (!m.runs || !e.routines.contains(m.name)) continue;
        SCOPED_TRACE(testing::Message() << "row " << &e - edges << ", " << m << ", " << n);
        set_caches(e.caches);
        const trace t = run(m, e.to, e.from, n);
        names path = name_of(t, e.to, n);
        for (const char* property : {"jmp", "loop", "up", "down"})
          if (!e.below.contains(property) && !e.above.contains(property)) path.erase(property);
        EXPECT_EQ(path, n < e.count ? e.below : e.above);

        // What was streamed is fenced before the return. The stores of loops are aligned, and the
        // loads too where blocks are merged.
        const auto last = [&t](std::string_view what) {
          return std::find_if(t.rbegin(), t.rend(),
                              [=](const step& s) { return s.what.starts_with(what); });
        };
        EXPECT_LE(last("sfence"), last("movnt"));
        const bool merges = (new_copies.contains(m.name) || both_copies.contains(m.name)) &&
                            last("movnt") == t.rend();
        for (const step& s : in_loops(t))
          EXPECT_TRUE(s.bytes < 16 || s.operand % s.bytes == 0 ||
                      (!merges && in_destination(s) >= to_.size()))
              << s.what;
        if (n < e.count || e.ahead.empty()) continue;
        std::vector<std::size_t> found;
        for (const step& s : t)
          if (s.what.starts_with("prefetch"))
            found.push_back(in_destination(s) < to_.size()
                                ? in_destination(s) - e.to
                                : s.operand - reinterpret_cast<std::uintptr_t>(from_.begin()) -
                                      e.from);
        EXPECT_EQ(found.size(), e.prefetches);
        found.resize(e.ahead.size());
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, e.ahead);
      }
}

// Up to its limit a member takes one indirect jump to code that never comes back.
TEST_F(PathTest, SmallCountsDoNotLoop) {
  set_caches(ordinary);
  for (const member& m : members)
    for (std::size_t n = m.runs ? m.small : 0; n > 1; n -= std::min<std::size_t>(n, 3)) {
      names path = name_of(run(m, 64, 64 + n % 64, n), 64, n);
      path.erase("up"), path.erase("down");
      ASSERT_EQ(path, names{"jmp"}) << m << ", count " << n;
    }
}

// The byte at one quarter of the bulk is read, and if that takes more than three times as long as
// reading the clock the one at three quarters; if that does too, the bulk is streamed. Differences
// of the clock have 32 bits.
TEST_F(PathTest, ProbesTellWhetherTheDestinationIsCached) {
  constexpr std::size_t bulk = 136 * 128, quarter = bulk / 4;
  constexpr std::uint64_t little = 2 * stopped_clock::reading, much = little + 1;
  using offsets = std::vector<std::size_t>;
  const struct {
    offsets slow;
    std::uint64_t longer;
    offsets probed;
    std::ptrdiff_t streamed;
  } rows[] = {
      {{}, 0, {quarter}, 0},
      {{quarter}, much, {quarter, 3 * quarter}, 0},
      {{3 * quarter}, much, {quarter}, 0},
      {{quarter, 3 * quarter}, much, {quarter, 3 * quarter}, bulk},
      {{quarter, 3 * quarter}, little, {quarter}, 0},
      {{quarter, 3 * quarter}, std::uint64_t{1} << 32, {quarter}, 0},
  };
  for (const member& m : members)
    for (const auto& row : rows) {
      if (!vec_copies.contains(m.name) && !vec_fills.contains(m.name)) continue;
      SCOPED_TRACE(testing::Message() << m << ", row " << &row - rows);
      stopped_clock clock{(std::uint64_t{2} << 32) - 45, {}, row.longer};  // soon wraps
      for (const std::size_t offset : row.slow)
        clock.slow.push_back(reinterpret_cast<std::uintptr_t>(to_.begin()) + offset);
      offsets probed;
      std::ptrdiff_t times = 0, streamed = 0;
      for (const step& s : run(m, 0, 0, bulk + 100, clock)) {
        times += s.what == "rdtsc";
        streamed += s.what == "movntdq" ? s.bytes : 0;
        if (times % 3 == 2 && in_destination(s) < to_.size()) probed.push_back(in_destination(s));
      }
      EXPECT_EQ(probed, row.probed);
      EXPECT_EQ(streamed, row.streamed);
    }
}

}  // namespace
}  // namespace zorvac::test
