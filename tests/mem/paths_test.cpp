// Which way a block goes: size classes, streaming and its fence, string instructions, prefetches,
// directions, the probe of the caches. The bytes come out the same on every path, so the routines
// are single-stepped, under a clock of the test's own.
#include <algorithm>
#include <map>

#include "mem/members.h"
#include "mem/trace.h"
#include "support/guard_pages.h"

namespace zorvac::test {
namespace {

// Two areas that begin at a multiple of a page.
class PathTest : public testing::Test {
 protected:
  void SetUp() override {
#ifndef __OPTIMIZE__
    GTEST_SKIP() << "not the code that is shipped";
#endif
    if (sanitized) GTEST_SKIP() << "not the code that is shipped";
    fill_with_pattern(from_.begin(), from_.size());
  }

  void call(routine r, std::size_t to, std::size_t from, std::size_t count) {
    unsigned char *const d = to_.begin() + to, *const s = from_.begin() + from;
    if (const auto* copy = std::get_if<copy_function*>(&r)) (*copy)(d, s, count);
    if (const auto* fill = std::get_if<fill_function*>(&r)) (*fill)(d, 0x5a, count);
    if (const auto* compare = std::get_if<compare_function*>(&r)) (*compare)(s, s, count);
  }
  // The steps of a call on these offsets.
  trace run(routine r, std::size_t to, std::size_t from, std::size_t count,
            const stopped_clock& clock = {}) {
    trace t = trace_of(
        entry_of(r), [&] { call(r, to, from, count); }, clock);
    EXPECT_GT(t.size(), 0u);
    return t;
  }
  // Where in the destination a step reads or writes; else beyond it.
  [[nodiscard]] std::size_t offset_of(const step& s) const {
    return s.operand - reinterpret_cast<std::uintptr_t>(to_.begin());
  }
  [[nodiscard]] bool in_destination(const step& s) const { return offset_of(s) < to_.size(); }
  guarded_block from_{65536}, to_{65536};
};

unsigned kinds_in(const trace& t) {
  unsigned all = 0;
  for (const step& s : t) all |= s.what;
  return all;
}
std::ptrdiff_t count(const trace& t, unsigned what) {
  return std::count_if(t.begin(), t.end(), [=](const step& s) { return (s.what & what) != 0; });
}
// The steps whose instructions ran more than once, and so stand in a loop.
trace in_loops(const trace& t) {
  std::map<std::uintptr_t, int> times;
  for (const step& s : t) ++times[s.address];
  trace loops;
  std::copy_if(t.begin(), t.end(), std::back_inserter(loops),
               [&](const step& s) { return times[s.address] > 1; });
  return loops;
}
bool runs_here(routine r) {
  return std::find_if(std::begin(members), std::end(members),
                      [r](const member& m) { return m.call == r; })
      ->runs();
}

// Where a way ends and the next one begins: with one byte less than `count` the routine executes
// the instructions of `below`, with as many those of `above`, and no others that the tests know.
// Thresholds compare with what is left after alignment, which takes 16 bytes off a copy to offset
// 16 of an SSSE3 member and 31 off one to offset 1 of an AVX2 member.
struct edge {
  std::vector<routine> routines;
  cache_values caches;
  std::size_t to, from, count;
  unsigned below, above;
};
const std::vector<routine> new_copies{__zorva_new_memcpy, __zorva_new_memmove},
    ssse3_copies{__zorva_ssse3_memcpy, __zorva_ssse3_memmove},
    rep_copies{__zorva_ssse3_rep_memcpy, __zorva_ssse3_rep_memmove},
    avx_copy{__zorva_avx_rep_memcpy}, avx512_copy{__zorva_vpx_avx512f_memcpy},
    new_fill{__zorva_new_memset}, avx_fill{__zorva_avx_rep_memset},
    avx512_fill{__zorva_vpx_avx512f_memset}, vec_copies{_VEC_memcpy, __zorva_VEC_memcpy},
    vec_fills{_VEC_memset, __zorva_VEC_memset, _VEC_memzero, __zorva_VEC_memzero};

constexpr unsigned streams = streaming_store | store_fence,
                   stream_words = streaming_word | store_fence, nta = prefetch_nta,
                   t0 = prefetch_t0, t1 = prefetch_t1, split = streams | load_fence | t0,
                   moves = rep_move_words | rep_move_bytes, fills = rep_fill_words | rep_fill_bytes;

const edge edges[] = {
    // Above half the largest cache it streams, after alignment. Method 2 alone has vectors.
    {new_copies, {2048, 512}, 0, 0, 1025, 0, streams | nta},
    {new_copies, {2048, 512}, 0, 3, 1025, 0, streams | nta},
    {new_copies, {2048, 512}, 8, 0, 1033, 0, streams | nta},
    {new_copies, {0, 0}, 0, 0, 177, 0, streams | nta},
    {new_copies, {2048, 0, 1}, 0, 0, 1025, 0, stream_words | nta},
    {new_copies, {2048, 0, 3}, 0, 0, 1025, 0, stream_words | nta},
    {new_copies, {0, 0, 0}, 0, 0, 177, 0, stream_words | nta},
    {new_copies, {-2, 512}, 0, 0, 4000, 0, 0},  // cache values have no sign

    // From half the first level on it prefetches, above half the largest it streams; the first
    // three forwards, from sources that are misaligned and not, then backwards.
    {ssse3_copies, {65536, 4096}, 16, 35, 2064, 0, t0},
    {ssse3_copies, {65536, 4096}, 16, 32, 2064, 0, t0},
    {ssse3_copies, {4096, 1024}, 16, 35, 2065, t0, streams},
    {ssse3_copies, {65536, 4096}, 35, 16, 2062, 0, t0},

    // Large from the first level on, or when aligned from about half of it; backwards above twice.
    // Then the part beyond half the largest cache is streamed, unless it is small or nearly all.
    {rep_copies, {2048, 1024}, 16, 35, 528, 0, t0},
    {rep_copies, {2048, 1024}, 16, 35, 1040, t0, nta},
    {rep_copies, {2048, 1024}, 16, 32, 527, 0, nta},
    {rep_copies, {2048, 2048}, 35, 16, 4110, t0, nta},
    {rep_copies, {2048, 512}, 16, 35, 5153, nta, split | nta},
    {rep_copies, {2048, 512}, 35, 16, 5150, nta, split | nta},
    {rep_copies, {2048, 512}, 16, 35, 9249, split | nta, split},

    // Three quarters of half the first level: the string instruction; half the largest: streaming,
    // while an iteration leaves 768 bytes. An aligned destination moves on by 32 bytes too.
    {avx_copy, {8192, 2048}, 1, 2, 799, 0, rep_move_bytes},
    {avx_copy, {8192, 2048}, 0, 2, 800, 0, rep_move_bytes},
    {avx_copy, {8192, 2048}, 1, 2, 4127, rep_move_bytes, streams | t0},
    {avx_copy, {1024, 8192}, 1, 2, 3103, 0, streams | t0},
    {avx_copy, {0, 0}, 1, 2, 257, 0, store_fence},
    {avx_copy, {0, 0}, 1, 2, 1055, store_fence, streams | t0},

    // Every bulk is streamed, whatever the caches.
    {avx512_copy, {0, 0}, 1, 2, 575, 0, streams | t1},
    {avx512_copy, {1 << 30, 1 << 30}, 1, 2, 575, 0, streams | t1},
    {avx512_fill, {0, 0}, 1, 0, 575, 0, streams},
    {avx512_fill, {1 << 30, 1 << 30}, 1, 0, 575, 0, streams},

    // Fills compare with the whole largest cache; an unknown one stops streaming on the word path
    // alone, which methods below 2 take.
    {new_fill, {2048, 512}, 0, 0, 2049, 0, streams},
    {new_fill, {2048, 512, 3}, 0, 0, 2049, 0, streams},
    {new_fill, {0, 0}, 0, 0, 65, 0, store_fence},
    {new_fill, {2048, 0, 1}, 0, 0, 2049, 0, stream_words},
    {new_fill, {0, 0, 0}, 0, 0, 3000, 0, 0},
    {new_fill, {-2, 512}, 0, 0, 4000, 0, 0},

    // Fifteen sixteenths of the first level: the string instruction. Never streams.
    {avx_fill, {1024, 2048}, 1, 0, 1951, 0, rep_fill_bytes},
    {avx_fill, {0, 0}, 1, 0, 129, 0, rep_fill_bytes},
    {avx_fill, {1024, 1 << 20}, 1, 0, 5000, 0, 0},

    // String instructions alone up to 16384 bytes, then a probe: of what the 13 bytes before the
    // boundary leave, where the destination is misaligned.
    {vec_copies, ordinary, 0, 0, 16385, moves, time_stamp},
    {vec_copies, ordinary, 3, 3, 16398, moves, time_stamp},
    {vec_copies, ordinary, 3, 9, 16398, moves, time_stamp},
    {vec_fills, ordinary, 0, 0, 16385, fills, time_stamp},
    {vec_fills, ordinary, 3, 0, 16398, fills, time_stamp},
};

TEST_F(PathTest, BeginsAtItsEdge) {
  for (const edge& e : edges)
    for (const routine r : e.routines) {
      if (!runs_here(r)) continue;
      const under_caches scope(e.caches);
      for (const std::size_t n : {e.count - 1, e.count}) {
        SCOPED_TRACE(testing::Message()
                     << "row " << &e - edges << ", " << e.caches << ", " << n << " bytes");
        const trace t = run(r, e.to, e.from, n);
        const unsigned taken = kinds_in(t) & ~static_cast<unsigned>(indirect_jump);
        EXPECT_EQ(names_of(taken), names_of(n < e.count ? e.below : e.above));

        // What was streamed is fenced before the return, and the stores of loops are aligned.
        const auto last = [&t](unsigned what) {
          return std::find_if(t.rbegin(), t.rend(), [=](auto& s) { return (s.what & what) != 0; });
        };
        EXPECT_LE(last(store_fence), last(streaming_store | streaming_word));
        for (const step& s : in_loops(t))
          EXPECT_TRUE(!in_destination(s) || s.bytes < 16 || s.operand % s.bytes == 0);
      }
    }
}

// Up to its limit a member takes one indirect jump to code that never comes back.
TEST_F(PathTest, SmallCountsDoNotLoop) {
  const under_caches scope(ordinary);
  for (const member& m : members) {
    if (!m.runs() || m.small == 0) continue;
    for (std::size_t n = 0; n <= m.small; ++n) {
      const trace t = run(m.call, 64, 64 + n % 64, n);
      ASSERT_TRUE(in_loops(t).empty()) << m << ", count " << n;
      ASSERT_TRUE(n <= 1 || count(t, indirect_jump) == 1) << m << ", count " << n;
    }
    // Beyond the limit there is a loop, so that the check above is known to see one.
    EXPECT_FALSE(in_loops(run(m.call, 64, 64, 4000)).empty()) << m;
  }
}

// The SSE2 and SSSE3 members read a source that is not aligned like the destination in aligned
// blocks, and merge; in both directions, where there are two.
TEST_F(PathTest, MisalignedSourcesAreMergedFromAlignedBlocks) {
  const under_caches scope(ordinary);
  for (const auto& routines : {new_copies, ssse3_copies, rep_copies})
    for (const routine r : routines)
      for (const std::size_t to : {16u, 32u})
        for (std::size_t misalignment = 0; misalignment < 16 && runs_here(r); ++misalignment)
          for (const step& s : in_loops(run(r, to, 16 + misalignment, 1200)))
            ASSERT_TRUE(s.bytes < 16 || s.operand % 16 == 0) << to << ' ' << misalignment;
}

// Distances of the first prefetches from the place in the source that is read next, which
// alignment has moved on by less than a line, and how many there are in all: so many in each
// iteration, and 24 in front of the AVX-512 loop.
TEST_F(PathTest, PrefetchDistances) {
  std::vector<std::uintptr_t> lines;
  for (std::uintptr_t at = 0; at < 24; ++at) lines.push_back(at * 64);
  const struct {
    routine copy;
    cache_values caches;
    std::size_t count;
    unsigned what;
    std::vector<std::uintptr_t> source, destination;
    std::ptrdiff_t all;
  } rows[] = {
      {__zorva_new_memcpy, {2048, 512}, 4000, nta, {384}, {}, 62},
      {__zorva_new_memcpy, {2048, 0, 1}, 4000, nta, {384}, {}, 62},
      {__zorva_ssse3_memcpy, {65536, 512}, 4000, t0, {448, 640}, {}, 31 * 2},
      {__zorva_ssse3_rep_memcpy, {65536, 2048}, 1100, t0, {448, 640}, {}, 8 * 2},
      {__zorva_ssse3_rep_memcpy, {2048, 512}, 9400, t0, {512, 768}, {}, 73 * 2},
      {__zorva_ssse3_rep_memcpy, {65536, 512}, 4000, nta, {448, 640}, {448, 640}, 31 * 4},
      {__zorva_avx_rep_memcpy, {2048, 512}, 4000, t0, {512, 576, 640, 704}, {}, 12 * 4},
      {__zorva_vpx_avx512f_memcpy, ordinary, 4000, t1, lines, {}, 24 + 7 * 8},
  };
  for (const auto& row : rows) {
    if (!runs_here(row.copy)) continue;
    SCOPED_TRACE(testing::Message() << "row " << &row - rows);
    const under_caches scope(row.caches);
    const trace t = run(row.copy, 16, 35, row.count);
    const auto expect_first = [&](const std::vector<std::uintptr_t>& distances,
                                  const unsigned char* from) {
      std::vector<std::uintptr_t> found;
      for (const step& s : t) {
        const std::uintptr_t distance = s.operand - reinterpret_cast<std::uintptr_t>(from);
        if ((s.what & row.what) != 0 && distance < 65536 && found.size() < distances.size())
          found.push_back(distance);
      }
      ASSERT_EQ(found.size(), distances.size());
      std::sort(found.begin(), found.end());
      for (std::size_t i = 0; i < found.size(); ++i) {
        EXPECT_LT(found[i] - distances[i], 64u);
        EXPECT_EQ(found[i] - found[0], distances[i] - distances[0]);
      }
    };
    expect_first(row.source, from_.begin() + 35);
    expect_first(row.destination, to_.begin() + 16);
    EXPECT_EQ(count(t, row.what), row.all);
  }
}

// The SSSE3 members, copies included, compare the low bytes of the two addresses as signed numbers,
// from the first count on that their table does not serve.
TEST_F(PathTest, LowAddressBytesChooseTheDirection) {
  constexpr struct {
    std::size_t to, from;
    bool forwards;
  } rows[] = {
      {0x00, 0x10, true},  {0x10, 0x00, false},  {0x00, 0x80, false}, {0x80, 0x00, true},
      {0x80, 0xff, true},  {0xff, 0x80, false},  {0x7f, 0xff, false}, {0x35, 0x35, false},
      {0x100, 0x70, true}, {0x70, 0x100, false},  // only the low bytes count
  };
  const under_caches scope(ordinary);
  for (const auto& routines : {ssse3_copies, rep_copies})
    for (const routine r : routines)
      for (const std::size_t n : {routines == rep_copies ? 144u : 80u, 400u, 1500u})
        for (const auto& row : rows) {
          if (!runs_here(r)) continue;
          const trace t = run(r, row.to, row.from, n);
          const auto first =
              std::find_if(t.begin(), t.end(), [this](const step& s) { return in_destination(s); });
          ASSERT_NE(first, t.end());
          EXPECT_EQ(offset_of(*first) < row.to + n / 2, row.forwards)
              << n << " bytes, low bytes of destination and source " << std::hex << row.to << ' '
              << row.from;
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
    std::size_t streamed;
  } rows[] = {
      {{}, 0, {quarter}, 0},
      {{quarter}, much, {quarter, 3 * quarter}, 0},
      {{3 * quarter}, much, {quarter}, 0},
      {{quarter, 3 * quarter}, much, {quarter, 3 * quarter}, bulk},
      {{quarter, 3 * quarter}, little, {quarter}, 0},
      {{quarter, 3 * quarter}, std::uint64_t{1} << 32, {quarter}, 0},
  };
  for (const auto& routines : {vec_copies, vec_fills})
    for (const routine r : routines)
      for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - rows);
        stopped_clock clock{(std::uint64_t{2} << 32) - 45, {}, row.longer};  // soon wraps
        for (const std::size_t offset : row.slow) clock.slow.push_back(to_.begin() + offset);
        const trace t = run(r, 0, 0, bulk + 100, clock);
        offsets probed;
        int times = 0;
        for (const step& s : t) {  // between the second and the third time
          times += s.what == time_stamp ? 1 : 0;
          if (times % 3 == 2 && in_destination(s)) probed.push_back(offset_of(s));
        }
        EXPECT_EQ(probed, row.probed);
        EXPECT_EQ(count(t, streaming_store) * 16, row.streamed);
      }
}

}  // namespace
}  // namespace zorvac::test
