// Which way a block goes: size classes, streaming and its fence, string instructions, prefetches,
// directions. The bytes come out the same on every path, so the routines are single-stepped.
#include <algorithm>
#include <set>
#include <variant>

#include "mem/members.h"
#include "mem/trace.h"
#include "support/guard_pages.h"

namespace zorvac::test {
namespace {

#ifdef __OPTIMIZE__
constexpr bool optimized = true;
#else
constexpr bool optimized = false;
#endif

using routine = std::variant<copy_function*, fill_function*, compare_function*>;
const void* entry_of(routine r) {
  return std::visit([](auto* f) { return reinterpret_cast<const void*>(f); }, r);
}

// Blocks within two areas that begin at a multiple of a page.
class PathTest : public testing::Test {
 protected:
  void SetUp() override {
    if (sanitized || !optimized) GTEST_SKIP() << "not the code that is shipped";
    fill_with_pattern(from_.begin(), from_.size());
  }

  // Runs the routine on `count` bytes at these offsets, watching two bytes of the destination.
  trace run(routine r, std::size_t to, std::size_t from, std::size_t count) {
    unsigned char* const d = to_.begin() + to;
    const unsigned char* const s = from_.begin() + from;
    const trace t = trace_of(
        entry_of(r),
        [&] {
          if (const auto* copy = std::get_if<copy_function*>(&r)) (*copy)(d, s, count);
          if (const auto* fill = std::get_if<fill_function*>(&r)) (*fill)(d, 0x5a, count);
          if (const auto* compare = std::get_if<compare_function*>(&r)) (*compare)(s, s, count);
        },
        d + count / 4, d + count / 4 * 3);
    EXPECT_GT(t.steps.size(), 0u);
    std::memset(d, 0, count);
    return t;
  }
  [[nodiscard]] const unsigned char* source(std::size_t at) const { return from_.begin() + at; }

 private:
  guarded_block from_{65536}, to_{65536};
};

// What these tests tell apart; every other instruction is left out of the comparison.
std::set<kind> notable(const trace& t, const std::set<kind>& ignored) {
  std::set<kind> kinds;
  for (const instruction& step : t.steps)
    if (step.what != kind::other && step.what < kind::indirect_jump && !ignored.contains(step.what))
      kinds.insert(step.what);
  if (t.has(kind::time_stamp)) kinds.insert(kind::time_stamp);
  return kinds;
}

struct path {
  const char* name;
  routine call;
  needs level;
  cache_values caches;
  std::size_t to, from, count;
  std::set<kind> expected;
  std::set<kind> ignored = {};
};

using enum kind;
const std::set<kind> streamed{streaming_store, store_fence, prefetch_nta};
const std::set<kind> streamed_words{streaming_word, store_fence, prefetch_nta};
const std::set<kind> split{streaming_store, store_fence, load_fence, prefetch_t0, prefetch_nta};
const std::set<kind> all_streamed{streaming_store, store_fence, load_fence, prefetch_t0};

// Largest cache and first-level cache in bytes, and the method.
constexpr cache_values caches(std::int32_t largest, std::int32_t data, std::int32_t method = 2) {
  return {"", largest, data, method};
}

const path paths[] = {
    // Above half the largest cache it streams. Alignment comes first, the comparison after.
    {"NewCopyAtHalf", __zorva_new_memcpy, needs::baseline, caches(2048, 512), 0, 0, 1024, {}},
    {"NewCopyAboveHalf", __zorva_new_memcpy, needs::baseline, caches(2048, 512), 0, 0, 1025,
     streamed},
    {"NewCopyAlignsFirst", __zorva_new_memcpy, needs::baseline, caches(2048, 512), 8, 0, 1032, {}},
    {"NewCopyMisaligned", __zorva_new_memcpy, needs::baseline, caches(2048, 512), 0, 3, 1024, {}},
    {"NewCopyUnknownCaches", __zorva_new_memcpy, needs::baseline, caches(0, 0), 0, 0, 300,
     streamed},
    {"NewCopyTable", __zorva_new_memcpy, needs::baseline, caches(0, 0), 0, 0, 176, {}},
    {"NewCopyWordsAtHalf", __zorva_new_memcpy, needs::baseline, caches(2048, 0, 1), 0, 0, 1024, {}},
    {"NewCopyWordsAboveHalf", __zorva_new_memcpy, needs::baseline, caches(2048, 0, 1), 0, 0, 1025,
     streamed_words},
    {"NewCopyWordsUnknown", __zorva_new_memcpy, needs::baseline, caches(0, 0, 0), 0, 0, 300,
     streamed_words},
    {"NewMoveAtHalf", __zorva_new_memmove, needs::baseline, caches(2048, 512), 0, 0, 1024, {}},
    {"NewMoveAboveHalf", __zorva_new_memmove, needs::baseline, caches(2048, 512), 0, 0, 1025,
     streamed},
    {"NewMoveWords", __zorva_new_memmove, needs::baseline, caches(2048, 0, 0), 0, 0, 1025,
     streamed_words},

    // Above half the largest cache it streams; from half the first level on it prefetches.
    {"Ssse3Below", __zorva_ssse3_memcpy, needs::ssse3, caches(65536, 4096), 16, 35, 1800, {}},
    {"Ssse3Prefetches",
     __zorva_ssse3_memcpy,
     needs::ssse3,
     caches(65536, 4096),
     16,
     35,
     2300,
     {prefetch_t0}},
    {"Ssse3PrefetchesAligned",
     __zorva_ssse3_memcpy,
     needs::ssse3,
     caches(65536, 4096),
     16,
     32,
     2300,
     {prefetch_t0}},
    {"Ssse3PrefetchesBackwards",
     __zorva_ssse3_memcpy,
     needs::ssse3,
     caches(65536, 4096),
     35,
     16,
     2300,
     {prefetch_t0}},
    {"Ssse3AtHalf", __zorva_ssse3_memcpy, needs::ssse3, caches(4096, 8192), 16, 35, 2048, {}},
    {"Ssse3AboveHalf",
     __zorva_ssse3_memcpy,
     needs::ssse3,
     caches(4096, 8192),
     16,
     35,
     2090,
     {streaming_store, store_fence}},
    {"Ssse3MoveAboveHalf",
     __zorva_ssse3_memmove,
     needs::ssse3,
     caches(4096, 8192),
     35,
     16,
     2090,
     {streaming_store, store_fence}},

    // The part beyond half the largest cache is streamed, unless it is small or nearly all.
    {"RepBelow",
     __zorva_ssse3_rep_memcpy,
     needs::ssse3,
     caches(2048, 512),
     16,
     35,
     480,
     {},
     {prefetch_t0}},
    {"RepAlignedBelow",
     __zorva_ssse3_rep_memcpy,
     needs::ssse3,
     caches(2048, 1024),
     16,
     32,
     480,
     {},
     {prefetch_t0}},
    {"RepAlignedCached",
     __zorva_ssse3_rep_memcpy,
     needs::ssse3,
     caches(2048, 1024),
     16,
     32,
     560,
     {prefetch_nta}},
    {"RepCached",
     __zorva_ssse3_rep_memcpy,
     needs::ssse3,
     caches(2048, 512),
     16,
     35,
     600,
     {prefetch_nta}},
    {"RepSmallRest",
     __zorva_ssse3_rep_memcpy,
     needs::ssse3,
     caches(2048, 512),
     16,
     35,
     5000,
     {prefetch_nta}},
    {"RepSplit", __zorva_ssse3_rep_memcpy, needs::ssse3, caches(2048, 512), 16, 35, 5300, split},
    {"RepAllStreamed", __zorva_ssse3_rep_memcpy, needs::ssse3, caches(2048, 512), 16, 35, 9400,
     all_streamed},
    {"RepMoveSplit", __zorva_ssse3_rep_memmove, needs::ssse3, caches(2048, 512), 16, 35, 5300,
     split},
    {"RepForwardsFromOnce", __zorva_ssse3_rep_memcpy, needs::ssse3, caches(2048, 4096), 16, 35,
     6000, split},
    {"RepBackwardsFromTwice",
     __zorva_ssse3_rep_memcpy,
     needs::ssse3,
     caches(2048, 4096),
     35,
     16,
     6000,
     {},
     {prefetch_t0, prefetch_nta}},
    {"RepBackwardsSplit", __zorva_ssse3_rep_memcpy, needs::ssse3, caches(2048, 2048), 35, 16, 6000,
     split},

    // Three quarters of half the first level: the string instruction; half the largest: streaming.
    {"AvxLoop", __zorva_avx_rep_memcpy, needs::avx2, caches(8192, 2048), 1, 2, 760, {}},
    {"AvxString",
     __zorva_avx_rep_memcpy,
     needs::avx2,
     caches(8192, 2048),
     1,
     2,
     830,
     {rep_move_bytes}},
    {"AvxStringAtMost",
     __zorva_avx_rep_memcpy,
     needs::avx2,
     caches(8192, 2048),
     1,
     2,
     4095,
     {rep_move_bytes}},
    {"AvxStreams",
     __zorva_avx_rep_memcpy,
     needs::avx2,
     caches(8192, 2048),
     1,
     2,
     4160,
     {streaming_store, store_fence, prefetch_t0}},
    {"AvxLoopComesFirst", __zorva_avx_rep_memcpy, needs::avx2, caches(1024, 8192), 1, 2, 2000, {}},
    {"AvxUnknownCaches",
     __zorva_avx_rep_memcpy,
     needs::avx2,
     caches(0, 0),
     1,
     2,
     2000,
     {streaming_store, store_fence, prefetch_t0}},
    {"AvxTable", __zorva_avx_rep_memcpy, needs::avx2, caches(0, 0), 1, 2, 256, {}},

    // Streams every bulk, whatever the caches.
    {"Avx512Below", __zorva_vpx_avx512f_memcpy, needs::avx512f, ordinary, 1, 2, 511, {}},
    {"Avx512Streams",
     __zorva_vpx_avx512f_memcpy,
     needs::avx512f,
     ordinary,
     1,
     2,
     600,
     {streaming_store, store_fence, prefetch_t1}},
    {"Avx512FillBelow", __zorva_vpx_avx512f_memset, needs::avx512f, ordinary, 1, 0, 511, {}},
    {"Avx512FillStreams",
     __zorva_vpx_avx512f_memset,
     needs::avx512f,
     ordinary,
     1,
     0,
     600,
     {streaming_store, store_fence}},

    // Fills compare with the whole size; an unknown size stops streaming on the word path alone.
    {"NewFillAtSize", __zorva_new_memset, needs::baseline, caches(2048, 512), 0, 0, 2048, {}},
    {"NewFillAboveSize",
     __zorva_new_memset,
     needs::baseline,
     caches(2048, 512),
     0,
     0,
     2049,
     {streaming_store, store_fence}},
    {"NewFillUnknown",
     __zorva_new_memset,
     needs::baseline,
     caches(0, 0),
     0,
     0,
     300,
     {streaming_store, store_fence}},
    {"NewFillWordsAtSize", __zorva_new_memset, needs::baseline, caches(2048, 0, 1), 0, 0, 2048, {}},
    {"NewFillWordsAboveSize",
     __zorva_new_memset,
     needs::baseline,
     caches(2048, 0, 1),
     0,
     0,
     2049,
     {streaming_word, store_fence}},
    {"NewFillWordsUnknown", __zorva_new_memset, needs::baseline, caches(0, 0, 0), 0, 0, 3000, {}},

    // Never streams.
    {"AvxFillLoop", __zorva_avx_rep_memset, needs::avx2, caches(1024, 2048), 1, 0, 1919, {}},
    {"AvxFillString",
     __zorva_avx_rep_memset,
     needs::avx2,
     caches(1024, 2048),
     1,
     0,
     1960,
     {rep_fill_bytes}},
    {"AvxFillUnknown",
     __zorva_avx_rep_memset,
     needs::avx2,
     caches(0, 0),
     1,
     0,
     200,
     {rep_fill_bytes}},
    {"AvxFillTable", __zorva_avx_rep_memset, needs::avx2, caches(0, 0), 1, 0, 128, {}},

    // String instructions alone up to 16384 bytes, a probe of the cache beyond.
    {"VecString",
     _VEC_memcpy,
     needs::baseline,
     ordinary,
     3,
     9,
     16383,
     {rep_move_words, rep_move_bytes}},
    {"VecStringAtMost",
     _VEC_memcpy,
     needs::baseline,
     ordinary,
     3,
     9,
     16384,
     {rep_move_words},
     {rep_move_bytes}},
    {"VecProbes",
     __zorva_VEC_memcpy,
     needs::baseline,
     ordinary,
     0,
     0,
     16385,
     {time_stamp},
     {streaming_store, store_fence}},
    {"VecFillString",
     _VEC_memset,
     needs::baseline,
     ordinary,
     3,
     0,
     16383,
     {rep_fill_words, rep_fill_bytes}},
    {"VecFillProbes",
     _VEC_memset,
     needs::baseline,
     ordinary,
     0,
     0,
     16385,
     {time_stamp},
     {streaming_store, store_fence}},
    {"VecZeroString",
     _VEC_memzero,
     needs::baseline,
     ordinary,
     3,
     0,
     16383,
     {rep_fill_words, rep_fill_bytes}},
};
std::ostream& operator<<(std::ostream& out, const path& p) { return out << p.name; }

class Path : public PathTest, public testing::WithParamInterface<path> {};

TEST_P(Path, IsTaken) {
  const path& p = GetParam();
  if (!host_has(p.level)) GTEST_SKIP() << "this processor cannot run it";
  const under_caches scope(p.caches);
  const trace t = run(p.call, p.to, p.from, p.count);
  EXPECT_EQ(notable(t, p.ignored), p.expected);

  // What was streamed is fenced before the return.
  int last_store = -1, last_fence = -1;
  for (int i = 0; i < static_cast<int>(t.steps.size()); ++i) {
    const kind what = t.steps[static_cast<std::size_t>(i)].what;
    if (what == streaming_store || what == streaming_word) last_store = i;
    if (what == store_fence) last_fence = i;
  }
  EXPECT_GE(last_fence, last_store);
  EXPECT_FALSE(t.loops_over(unaligned_store)) << "bulk stores are aligned";
}
INSTANTIATE_TEST_SUITE_P(Block, Path, testing::ValuesIn(paths), name_of_row);

// Up to its limit a member takes one indirect jump to code that never comes back.
TEST_F(PathTest, SmallCountsDoNotLoop) {
  const struct {
    routine call;
    needs level;
    std::size_t limit;
  } members[] = {
      {__zorva_new_memcpy, needs::baseline, 176},
      {__zorva_new_memmove, needs::baseline, 176},
      {__zorva_ssse3_memcpy, needs::ssse3, 79},
      {__zorva_ssse3_memmove, needs::ssse3, 79},
      {__zorva_ssse3_rep_memcpy, needs::ssse3, 143},
      {__zorva_ssse3_rep_memmove, needs::ssse3, 143},
      {__zorva_avx_rep_memcpy, needs::avx2, 256},
      {__zorva_vpx_avx512f_memcpy, needs::avx512f, 127},
      {__zorva_new_memset, needs::baseline, 64},
      {__zorva_avx_rep_memset, needs::avx2, 128},
      {__zorva_vpx_avx512f_memset, needs::avx512f, 127},
      {__zorva_new_memcmp, needs::baseline, 64},
  };
  const under_caches scope(ordinary);
  for (std::size_t i = 0; i < std::size(members); ++i) {
    const auto& m = members[i];
    if (!host_has(m.level)) continue;
    for (std::size_t count = 0; count <= m.limit; ++count) {
      const trace t = run(m.call, 64, 64 + count % 64, count);
      ASSERT_FALSE(t.loops()) << "member " << i << ", count " << count;
      if (count > 1) {
        ASSERT_EQ(t.count(indirect_jump), 1) << "member " << i << ", count " << count;
      }
    }
    // Beyond the limit there is a loop, so that the check above is known to see one.
    EXPECT_TRUE(run(m.call, 64, 64, 4000).loops()) << "member " << i;
  }
}

// The SSE2 and SSSE3 members read a source that is not aligned like the destination in aligned
// blocks, and merge.
TEST_F(PathTest, MisalignedSourcesAreMergedFromAlignedBlocks) {
  const under_caches scope(ordinary);
  for (copy_function* const copy :
       {__zorva_new_memcpy, __zorva_new_memmove, __zorva_ssse3_memcpy, __zorva_ssse3_memmove,
        __zorva_ssse3_rep_memcpy, __zorva_ssse3_rep_memmove})
    for (std::size_t to = 0; to < 17; to += 16)  // both directions of the members that have two
      for (std::size_t misalignment = 0; misalignment < 16; ++misalignment) {
        const trace t = run(copy, 16 + to, 16 + misalignment, 1200);
        EXPECT_FALSE(t.loops_over(unaligned_load)) << to << ' ' << misalignment;
        EXPECT_FALSE(t.loops_over(unaligned_store)) << to << ' ' << misalignment;
        EXPECT_EQ(t.loops_over(shift_and_merge), misalignment != 0) << to << ' ' << misalignment;
      }
}

// Distances of the first prefetches from the place in the source that is read next, which
// alignment has moved on by less than a line.
TEST_F(PathTest, PrefetchDistances) {
  const struct {
    const char* name;
    copy_function* copy;
    needs level;
    cache_values values;
    std::size_t count;
    kind what;
    std::vector<std::uintptr_t> distances;
  } rows[] = {
      {"new", __zorva_new_memcpy, needs::baseline, caches(2048, 512), 4000, prefetch_nta, {384}},
      {"ssse3",
       __zorva_ssse3_memcpy,
       needs::ssse3,
       caches(65536, 512),
       4000,
       prefetch_t0,
       {448, 640}},
      {"rep",
       __zorva_ssse3_rep_memcpy,
       needs::ssse3,
       caches(2048, 512),
       9400,
       prefetch_t0,
       {512, 768}},
      {"avx",
       __zorva_avx_rep_memcpy,
       needs::avx2,
       caches(2048, 512),
       4000,
       prefetch_t0,
       {512, 576, 640, 704}},
      {"avx512",
       __zorva_vpx_avx512f_memcpy,
       needs::avx512f,
       ordinary,
       4000,
       prefetch_t1,
       {0,   64,  128, 192,  256,  320,  384,  448,  512,  576,  640,  704,  768,
        832, 896, 960, 1024, 1088, 1152, 1216, 1280, 1344, 1408, 1472, 1536, 1600}},
  };
  for (const auto& row : rows) {
    if (!host_has(row.level)) continue;
    const under_caches scope(row.values);
    const trace t = run(row.copy, 16, 35, row.count);
    std::vector<std::uintptr_t> first;
    for (const instruction& step : t.steps)
      if (step.what == row.what && first.size() < row.distances.size())
        first.push_back(step.operand - reinterpret_cast<std::uintptr_t>(source(35)));
    ASSERT_EQ(first.size(), row.distances.size()) << row.name;
    std::sort(first.begin(), first.end());
    const std::uintptr_t moved = first[0] - row.distances[0];
    EXPECT_LE(moved, 64u) << row.name;
    for (std::uintptr_t& distance : first) distance -= moved;
    EXPECT_EQ(first, row.distances) << row.name;
  }
}

// The SSSE3 members, copies included, compare the low bytes of the two addresses as signed numbers.
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
  for (copy_function* const copy : {__zorva_ssse3_memcpy, __zorva_ssse3_memmove,
                                    __zorva_ssse3_rep_memcpy, __zorva_ssse3_rep_memmove})
    for (const std::size_t count : {400u, 1500u})
      for (const auto& row : rows) {
        const trace t = run(copy, row.to, row.from, count);
        ASSERT_GE(t.first_written, 0);
        ASSERT_GE(t.second_written, 0);
        EXPECT_EQ(t.first_written < t.second_written, row.forwards)
            << "count " << count << ", low bytes of destination and source " << std::hex << row.to
            << ' ' << row.from;
      }
}

}  // namespace
}  // namespace zorvac::test
