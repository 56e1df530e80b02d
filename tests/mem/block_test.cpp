// Tests the block routines call by call: the result, byte for byte, with the bytes around it, at
// the ends of pages and with every overlap, and what the calling convention preserves. The oracle
// is the C library. Then the tests check which path a block takes. The bytes are the same on every
// path, so the routines are single-stepped, with a clock of the test's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "cpu/fast_mem_ops.h"
#include "mem/trace.h"
#include "support/bytes.h"
#include "support/campaign.h"
#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "support/registers.h"
#include "support/sanitized.h"
#include "zorvac/mem.h"

namespace zorvac::test {
namespace {

// ---- The members --------------------------------------------------------------------------------

enum class kind { zero, fill, copy, move, compare };  // a zero fill ignores its second argument

// The worker behind a name, by its instructions and its purpose.
// clang-format off
enum class worker {
  sse2_copy, ssse3_copy, ssse3_rep_copy, avx2_copy, avx512_copy, probing_copy,
  sse2_fill, avx2_fill, avx512_fill, probing_fill, sse2_comparison, comparison
};
// clang-format on
using enum worker;

// All take three words and return one. Of a comparison's result only the lower half counts.
using routine = std::uintptr_t(void*, std::uintptr_t, std::size_t);
struct member {
  std::string name;
  routine* entry;
  worker of;
  kind what;
  int runs;           // whether this processor can run it
  std::size_t small;  // the largest count of its table of small counts; 0: it has none
};
void PrintTo(const member& m, std::ostream* out) { *out << m.name; }
// clang-format off
#define MEMBER(name, of, what, ...)                                                           \
  {#name, reinterpret_cast<routine*>(reinterpret_cast<void*>(name)), of, kind::what,  \
   __VA_ARGS__}
// clang-format on
const int ssse3 = __builtin_cpu_supports("ssse3");
const int avx2 = __builtin_cpu_supports("avx2");
const int avx512f = __builtin_cpu_supports("avx512f");
const member members[] = {
    MEMBER(__zorva_new_memcpy, sse2_copy, copy, 1, 176),
    MEMBER(__zorva_memcpy, sse2_copy, copy, 1, 176),  // one routine, two names
    MEMBER(__zorva_ssse3_memcpy, ssse3_copy, copy, ssse3, 79),
    MEMBER(__zorva_ssse3_rep_memcpy, ssse3_rep_copy, copy, ssse3, 143),
    MEMBER(__zorva_avx_rep_memcpy, avx2_copy, copy, avx2, 256),
    MEMBER(__zorva_vpx_avx512f_memcpy, avx512_copy, copy, avx512f, 127),
    MEMBER(_VEC_memcpy, probing_copy, copy, 1, 0),
    MEMBER(__zorva_VEC_memcpy, probing_copy, copy, 1, 0),
    MEMBER(__zorva_new_memmove, sse2_copy, move, 1, 176),
    MEMBER(__zorva_ssse3_memmove, ssse3_copy, move, ssse3, 79),
    MEMBER(__zorva_ssse3_rep_memmove, ssse3_rep_copy, move, ssse3, 143),
    MEMBER(__zorva_new_memset, sse2_fill, fill, 1, 64),
    MEMBER(__zorva_memset, sse2_fill, fill, 1, 64),
    MEMBER(__zorva_avx_rep_memset, avx2_fill, fill, avx2, 256),
    MEMBER(__zorva_vpx_avx512f_memset, avx512_fill, fill, avx512f, 127),
    MEMBER(_VEC_memset, probing_fill, fill, 1, 0),
    MEMBER(__zorva_VEC_memset, probing_fill, fill, 1, 0),
    MEMBER(_VEC_memzero, probing_fill, zero, 1, 0),
    MEMBER(__zorva_VEC_memzero, probing_fill, zero, 1, 0),
    MEMBER(__zorva_new_memcmp, sse2_comparison, compare, 1, 64),
    MEMBER(_zorva_fast_memcmp, comparison, compare, 1, 0),
};

// The values that the library's initialiser stores for the workers: bytes, and the copy method.
struct cache_values {
  std::int32_t largest, data, method = 2;
};
constexpr cache_values ordinary{1 << 20, 32 << 10};
void set_caches(const cache_values& v) {
  __libvrt_largest_cache_size = v.largest;
  __libvrt_largest_cache_size_half = v.largest / 2;
  __libvrt_data_cache_size = v.data;
  __libvrt_data_cache_size_half = v.data / 2;
  __libvrt_mem_ops_method = v.method;
}

// ---- Results ------------------------------------------------------------------------------------

// Random bytes between two guard pages, and a copy of them. Every attempt restores them.
struct area {
  explicit area(std::uint64_t seed) : master(bytes) {
    case_random random(seed);
    for (unsigned char& byte : master) byte = static_cast<unsigned char>(random());
    std::copy(master.begin(), master.end(), block.begin());
  }
  static constexpr std::size_t bytes = 33 << 20, slack = 1 << 16;
  guarded_block block{bytes};
  std::vector<unsigned char> master;
};
const area to_area(1), from_area(2);
std::vector<unsigned char> expected(area::bytes);

struct attempt {
  const area* destination;
  std::size_t to;
  const area* source;
  std::size_t from, count;
};
std::ostream& operator<<(std::ostream& out, const attempt& a) {
  return out << a.count << " bytes from offset " << a.from << " to offset " << a.to
             << (a.destination == a.source ? " in one area" : "");
}

class Block : public testing::TestWithParam<member> {
 protected:
  void SetUp() override {
    if (GetParam().runs == 0) GTEST_SKIP() << "this processor cannot run it";
  }
  static bool fills() { return GetParam().what == kind::zero || GetParam().what == kind::fill; }

  // Makes one call. One in 64 also checks what the routine must preserve: callee-saved registers,
  // the direction flag, and zeros in the upper halves of vector registers, because other values
  // there slow down SSE code.
  std::uintptr_t call(unsigned char* to, std::uintptr_t second, std::size_t count) {
    if (counted || ++calls_ % 64 != 0) return GetParam().entry(to, second, count);
    register_file in = filled_registers(calls_);
    in.general[rdi] = reinterpret_cast<std::uintptr_t>(to);
    in.general[rsi] = second;
    in.general[rdx] = count;
    for (auto& vector : in.vector) std::fill(vector.begin() + 16, vector.end(), 0);
    const auto out = call_with_registers(reinterpret_cast<void (*)()>(GetParam().entry), in);
    for (const gpr i : {rax, rcx, rdx, rsi, rdi, r8, r9}) in.general[i] = out.general[i];
    for (std::size_t i = 0; i < 32; ++i)
      std::copy_n(out.vector[i].begin(), i < 16 ? 16 : 64, in.vector[i].begin());
    in.mask = out.mask;
    EXPECT_EQ(changed_registers(in, out), std::vector<std::string>{});
    return out.general[rax];
  }

  // Calls the C library at `oracle` and the routine at `at`. A fill uses only the low 8 bits of its
  // value; a zero fill ignores it.
  void write(unsigned char* at, unsigned char* oracle, const attempt& a) {
    std::uintptr_t second = reinterpret_cast<std::uintptr_t>(a.source->block.begin() + a.from);
    if (fills()) {
      second = random_();
      std::memset(oracle, GetParam().what == kind::zero ? 0 : static_cast<int>(second), a.count);
    } else {
      std::memcpy(oracle, a.source->master.data() + a.from, a.count);
    }
    EXPECT_EQ(call(at, second, a.count), reinterpret_cast<std::uintptr_t>(at));
  }
  // Equal blocks, blocks that differ in one byte, blocks that differ in it and its neighbour.
  void compare(unsigned char* at, unsigned char* oracle, const attempt& a) {
    const unsigned char* const source = a.source->block.begin() + a.from;
    std::memcpy(at, source, a.count);
    const std::size_t byte = random_.below(a.count + 1);
    for (const std::size_t changed : {a.count, byte, byte + 1}) {
      if (changed < a.count) at[changed] ^= static_cast<unsigned char>(random_());
      std::memcpy(oracle, at, a.count);
      const int order = std::memcmp(oracle, source, a.count);
      const auto result = call(at, reinterpret_cast<std::uintptr_t>(source), a.count);
      EXPECT_EQ(static_cast<int>(result), (order > 0) - (order < 0)) << "byte " << changed;
    }
  }

  void expect_exact(const attempt& a) {
    now_ = a;
    const area& d = *a.destination;
    unsigned char* const at = d.block.begin() + a.to;
    const std::size_t before = std::min<std::size_t>(a.to, 64);
    const std::size_t behind = std::min<std::size_t>(area::bytes - a.to - a.count, 64);
    const std::size_t all = before + a.count + behind;
    std::memcpy(expected.data(), d.master.data() + a.to - before, all);
    if (GetParam().what == kind::compare)
      compare(at, expected.data() + before, a);
    else
      write(at, expected.data() + before, a);
    EXPECT_BYTES(bytes(at - before, all, before, behind), bytes(expected.data(), all));
    std::memcpy(at, d.master.data() + a.to, a.count);
    ASSERT_FALSE(HasFailure()) << setting_ << ": " << a;
  }

  // Tries all pairs of alignments, and with them all distances of overlap, for the smallest counts;
  // for others, random ones, which depend only on the count.
  void expect_exact_at_many_places(std::size_t count) {
    random_ = case_random(count);
    const bool is_all = count <= 300, is_small = count < 65536;
    std::size_t tries = is_small ? 24 : 1;
    if (is_all) tries = fills() ? 64 : 64 * 64;
    for (std::size_t i = 0; i < tries; i += sanitized ? 1 + random_.below(31) : 1) {
      const std::size_t pair = is_all ? i : random_();
      const std::size_t line = is_small ? random_.below(64) * 64 : 0;
      const std::size_t to = line + pair % 64, from = pair / 64 % 64;
      expect_exact({&to_area, to, &from_area, from * 65, count});
      if (GetParam().what != kind::move || i > 4 * count) continue;
      const std::size_t apart =
          is_all ? i % (count + 1) : random_.below(std::min(count, area::slack));
      std::size_t places[] = {line + from, line + from + apart};
      if (random_.one_in(2)) std::swap(places[0], places[1]);
      expect_exact({&from_area, places[0], &from_area, places[1], count});
    }
  }

  void expect_exact_at_page_ends(std::size_t count) {
    for (const std::size_t to : {std::size_t{0}, area::bytes - count})
      for (const std::size_t from : {std::size_t{0}, area::bytes - count})
        expect_exact({&to_area, to, &from_area, from, count});
  }

  case_random random_{0};
  unsigned calls_ = 0;
  std::string setting_;
  attempt now_{};
  fault_report report_{[this] { return setting_ + ": " + testing::PrintToString(now_); }};
};

// For one routine a count from the upper half is below 1, for the other equal pointers are equal
// blocks.
TEST(Compare, ReadsNothingIfTheResultIsKnown) {
  const guarded_block block(4096);
  EXPECT_EQ(__zorva_new_memcmp(block.end(), block.end() + 1, SIZE_MAX), 0);
  EXPECT_EQ(_zorva_fast_memcmp(block.end(), block.end(), 100), 0);
}

// ---- Paths --------------------------------------------------------------------------------------

// The path of a block, as the executed instructions show.
struct path {
  std::set<std::string> marks;          // the mnemonics that distinguish the paths, and "backwards"
  std::vector<std::size_t> prefetched;  // bytes from the block's start, in source or destination
  bool loops = false;                   // an instruction ran twice
  int indirect_jumps = 0;
  bool unfenced = false;   // no fence came after a streaming store
  std::string misaligned;  // a store in a loop, or a load in one that merges blocks

  // The marks in alphabetical order; if there are none, whether there is a loop.
  [[nodiscard]] std::string way() const {
    if (marks.empty()) return loops ? "loop" : "straight";
    std::string text;
    for (const std::string& mark : marks) text += (text.empty() ? "" : " ") + mark;
    return text;
  }
};
const std::set<std::string> path_mnemonics{
    "lfence", "sfence", "movnti",      "movntdq",    "movsb",      "movsq",     "stosb",
    "stosq",  "rdtsc",  "prefetchnta", "prefetcht0", "prefetcht1", "prefetcht2"};

// The times that it takes to read some bytes of the destination, which are counted from its page.
using delays = std::map<std::size_t, std::uint64_t>;

// Traces a call. The offsets are from the start of a page.
path path_of(const member& m, const cache_values& caches, std::size_t to_offset,
             std::size_t from_offset, std::size_t count, const delays& slow = {}) {
  static const guarded_block from_block(65536), to_block(65536);
  const bool merges = m.of == sse2_copy || m.of == ssse3_copy || m.of == ssse3_rep_copy;
  unsigned char* const from = from_block.begin() + from_offset;
  unsigned char* const to = m.what == kind::compare ? from : to_block.begin() + to_offset;
  const auto start = reinterpret_cast<std::uintptr_t>(to_block.begin());
  const auto source = reinterpret_cast<std::uintptr_t>(from);
  path p;
  std::map<std::uintptr_t, std::uintptr_t> seen;  // instructions, and what each accessed first
  const auto observe = [&](const step& s) -> std::uint64_t {
    const std::size_t at = s.operand - start;  // in the destination, if it is there
    const bool in_destination = at < to_block.size();
    const bool is_streamed = s.what.starts_with("movnt");
    if (path_mnemonics.contains(s.what)) p.marks.insert(s.what);
    if (s.what.starts_with("prefetch"))
      p.prefetched.push_back(in_destination ? at - to_offset : s.operand - source);
    if (is_streamed || s.what == "sfence") p.unfenced = is_streamed;
    if (s.what == "jmp") ++p.indirect_jumps;

    const auto [first, is_new] = seen.try_emplace(s.address, s.operand);
    if (!is_new) {
      p.loops = true;
      const bool may_not = in_destination || (merges && !p.marks.contains("movntdq"));
      if (may_not && s.bytes >= 16 && s.operand % s.bytes != 0) p.misaligned = s.what;
    }
    if (in_destination && s.operand < first->second) p.marks.insert("backwards");
    return slow.contains(at) ? slow.at(at) : 0;
  };
  set_caches(caches);
  trace(observe, m.entry, to, source, count);
  EXPECT_FALSE(p.unfenced);
  EXPECT_EQ(p.misaligned, "");
  return p;
}

// A limit at which a worker changes its path: with one byte less than `count` a block takes the
// path `below`, and from `count` on it takes `above`.
//
// To write a row, take the limit from the worker's source, and choose caches that put it between
// its table of small counts and the 64 KB of the test. The limit is compared with what is left of
// the block after alignment. So `count` is written as a sum: the limit, one more where the path
// changes above it, and the bytes that alignment takes off. These are
//
//   SSE2      8 to offset 8
//   SSSE3    16 to offset 16, and 16 more where the loop has begun, a register later;
//            backwards, down to the boundary below the end: 16 where it ends at one, 1 behind one
//   AVX2     31 to offset 1, 32 to offset 0
//   AVX-512  63 to offset 1
//   probing  13 to offset 3
struct threshold {
  const char* name;
  worker of;
  cache_values caches;  // largest, data, method
  std::size_t to, from, count;
  std::string below, above;
  struct {
    std::size_t count = 0, nearest = 0, farthest = 0;
  } prefetches = {};  // on the path `above`; none: not checked
  delays slow = {};
};
const std::string split = "lfence movntdq prefetchnta prefetcht0 sfence";
constexpr std::uint64_t little = 2 * clock_reading, much = little + 1;
// clang-format off
const threshold thresholds[] = {
    // Only method 2 uses vectors. A loop through the caches takes 128 bytes and leaves less than
    // 168.
    {"AboveHalfTheLargestCacheItStreams", sse2_copy, {2048, 512},
     8, 3, 1024 + 1 + 8, "loop", "movntdq prefetchnta sfence", {16, 392, 1352}},
    {"CacheValuesHaveNoSign", sse2_copy, {-2, 512}, 0, 0, 128 + 168, "straight", "loop"},
    {"WithoutMethod2ItStreamsWords", sse2_copy, {512, 0, 3},
     0, 0, 256 + 1, "prefetchnta", "movnti prefetchnta sfence", {4, 384, 576}},

    {"FromHalfTheFirstLevelOnItPrefetches", ssse3_copy, {65536, 4096},
     16, 35, 2048 + 16, "loop", "prefetcht0", {30, 480, 2464}},
    {"AboveHalfTheLargestCacheItStreams", ssse3_copy, {4096, 1024},
     16, 32, 2048 + 1 + 16, "prefetcht0", "movntdq sfence"},

    // The low bytes of the addresses, as signed numbers, choose the direction: forwards when the
    // source's is greater. Two iterations are a loop.
    {"TheSourcesLowByteIsLess", ssse3_copy, ordinary,
     0x00, 0x80, 256 + 16 + 1, "straight", "backwards"},
    {"TheSourcesLowByteIsGreater", ssse3_copy, ordinary,
     0x80, 0x00, 256 + 16 + 16, "straight", "loop"},
    {"TheLowBytesAreEqual", ssse3_copy, ordinary,
     0x30, 0x30, 256 + 16 + 1, "straight", "backwards"},

    {"FromTheFirstLevelOnItIsLarge", ssse3_rep_copy, {2048, 1024},
     16, 35, 1024 + 16, "prefetcht0", "prefetchnta", {28, 480, 1440}},
    {"AlignedItIsLargeAPartBelowHalfTheFirstLevel", ssse3_rep_copy, {2048, 1024},
     16, 32, 512 - 1 + 16, "loop", "prefetchnta"},
    {"BackwardsItIsLargeAboveTwiceTheFirstLevel", ssse3_rep_copy, {2048, 2048},
     32, 19, 4096 + 16 + 1, "backwards prefetcht0", "backwards prefetchnta"},
    {"FourKilobytesBeyondHalfTheLargestCacheAreStreamed", ssse3_rep_copy, {2048, 512},
     16, 35, 1024 + 4096 + 1 + 16 + 16, "prefetchnta", split},
    {"AboveNineHalvesOfTheLargestCacheAllIsStreamed", ssse3_rep_copy, {2048, 512},
     16, 35, 9 * 1024 + 1 + 16 + 16, split, "lfence movntdq prefetcht0 sfence", {144, 544, 9888}},

    // It streams while an iteration of 256 bytes leaves 768. With unknown caches it fences at once.
    {"FromThreeEighthsOfLevel1ItRepeats", avx2_copy, {8192, 2048}, 0, 2, 768 + 32, "loop", "movsb"},
    {"FromHalfTheLargestCacheOnItStreams", avx2_copy, {8192, 2048},
     1, 2, 4096 + 31, "movsb", "movntdq prefetcht0 sfence", {52, 543, 3807}},
    {"WithALargeFirstLevelItStreamsAtOnce", avx2_copy, {1024, 8192},
     1, 2, 3072 + 31, "loop", "movntdq prefetcht0 sfence"},
    {"WithUnknownCachesItStreamsWhereItMayPrefetch", avx2_copy, {0, 0},
     1, 2, 256 + 768 + 31, "sfence", "movntdq prefetcht0 sfence"},

    {"ItAlwaysStreams", avx512_copy, {1 << 30, 0},
     1, 2, 512 + 63, "straight", "movntdq prefetcht1 sfence", {32, 63, 2047}},
    {"ItAlwaysStreams", avx512_fill, {1 << 30, 0}, 1, 0, 512 + 63, "straight", "movntdq sfence"},

    // Fills compare with the whole largest cache. Methods below 2 take the path of words.
    {"AboveLargestItStreams", sse2_fill, {2048, 512, 3}, 0, 0, 2048 + 1, "loop", "movntdq sfence"},
    {"WithUnknownCachesItFences", sse2_fill, {0, 0}, 0, 0, 64 + 1, "straight", "sfence"},
    {"WordsStreamAboveLargest", sse2_fill, {2048, 0, 1}, 0, 0, 2048 + 1, "loop", "movnti sfence"},
    {"WithUnknownCachesItStreamsNoWords", sse2_fill, {0, 0, 0}, 0, 0, 3000, "loop", "loop"},

    // From fifteen sixteenths of the first level on.
    {"CloseToLevel1ItRepeats", avx2_fill, {1024, 2048}, 1, 0, 1920 + 31, "loop", "stosb"},

    // It takes 64 bytes at a time, and never streams.
    {"AboveTwoIterationsItLoops", sse2_comparison, {0, 0}, 0, 0, 128 + 1, "straight", "loop"},

    // Up to 16384 bytes are left to string instructions. For more, the byte at one quarter of the
    // bulk is read. If that takes more than three times as long as reading the clock, the byte at
    // three quarters is read. If that takes as long, too, the bulk is streamed. Differences of the
    // clock have 32 bits. The bytes up to the destination's boundary are not part of the bulk.
    {"BothAreSlow", probing_copy, ordinary, 3, 3, 16384 + 1 + 13,
     "movsb movsq", "movntdq rdtsc sfence", {}, {{4112, much}, {12304, much}}},
    {"OnlyTheFirstIsSlow", probing_copy, ordinary, 0, 0, 16384 + 1,
     "movsb movsq", "rdtsc", {}, {{4096, much}, {12288, little}}},
    {"TheFirstIsSlowerThan32Bits", probing_copy, ordinary, 0, 0, 16384 + 1,
     "movsb movsq", "rdtsc", {}, {{4096, much << 32}, {12288, much}}},
    {"WithOneMoreIterationOthersAreRead", probing_copy, ordinary, 0, 0, 16384 + 128,
     "movntdq rdtsc sfence", "rdtsc", {}, {{4096, much}, {12288, much}}},
    {"BothAreSlow", probing_fill, ordinary, 3, 0, 16384 + 1 + 13,
     "stosb stosq", "movntdq rdtsc sfence", {}, {{4112, much}, {12304, much}}},
    {"WithOneMoreIterationOthersAreRead", probing_fill, ordinary, 0, 0, 16384 + 128,
     "movntdq rdtsc sfence", "rdtsc", {}, {{4096, much}, {12288, much}}},
};
// clang-format on

class Path : public testing::TestWithParam<member> {
  void SetUp() override {
#ifndef __OPTIMIZE__
    GTEST_SKIP() << "not the code that is shipped";
#endif
    if (sanitized || counted) GTEST_SKIP() << "not the code that is shipped";
    if (GetParam().runs == 0) GTEST_SKIP() << "this processor cannot run it";
  }
};

// A table of small counts is one indirect jump to straight code without a loop.
TEST_P(Path, IsOneJumpForSmallCountsAndChangesAtThresholds) {
  for (std::size_t count = GetParam().small; count > 0; --count) {
    const path seen = path_of(GetParam(), ordinary, 64, 64 + count % 64, count);
    EXPECT_EQ(seen.indirect_jumps, 1) << count << " bytes";
    EXPECT_EQ(seen.way(), "straight") << count << " bytes";
  }
  for (const threshold& row : thresholds) {
    if (row.of != GetParam().of) continue;
    SCOPED_TRACE(row.name);
    const auto with = [&](std::size_t count) {
      return path_of(GetParam(), row.caches, row.to, row.from, count, row.slow);
    };
    EXPECT_EQ(with(row.count - 1).way(), row.below) << "with " << row.count - 1 << " bytes";
    const path above = with(row.count);
    EXPECT_EQ(above.way(), row.above) << "with " << row.count << " bytes";
    if (row.prefetches.count == 0) continue;
    ASSERT_EQ(above.prefetched.size(), row.prefetches.count) << "prefetches";
    EXPECT_EQ(std::ranges::min(above.prefetched), row.prefetches.nearest) << "nearest prefetch";
    EXPECT_EQ(std::ranges::max(above.prefetched), row.prefetches.farthest) << "farthest prefetch";
  }
}
// All but the last, which has one path.
INSTANTIATE_TEST_SUITE_P(Members, Path,
                         testing::ValuesIn(std::begin(members), std::end(members) - 1),
                         name_of_row);

// ---- All counts, alignments and overlaps: last, since they take longest -------------------------

struct setting {
  const char* name;
  cache_values caches;
};
constexpr setting settings[] = {
    {"ordinary", ordinary},
    {"streams, splits and repeats with small blocks", {2048, 512}},
    {"unknown caches", {0, 0}},
    {"unknown caches, general registers only", {0, 0, 0}},
    {"only the largest level known, no vectors", {4096, 0, 1}},
    {"nonsense", {1024, 8192}},
    {"megabytes within the caches", {32 << 20, 1 << 20}},
};

// All small counts, all numbers of iterations of each bulk loop with all lengths of the remainder,
// and both sides of every limit that a member can have with these values, with room for the bytes
// that alignment takes off.
std::vector<std::size_t> counts_for(const cache_values& v) {
  const auto l = static_cast<std::size_t>(v.largest), d = static_cast<std::size_t>(v.data);
  std::vector<std::size_t> counts;
  for (std::size_t count = 0; count < 2600; ++count) counts.push_back(count);
  for (const std::size_t limit : {4096ul, 16384ul, d, 2 * d, d - d / 16, d / 2, d / 2 - d / 8,
                                  d / 2 - d / 512, l, l / 2, l / 2 + 4096, l / 2 * 9})
    for (std::size_t delta = 1; delta <= 256; delta *= 2)
      for (const std::size_t count : {limit - delta, limit + delta - 1})
        if (count < (delta == 64 ? 32u << 20 : 1u << 20)) counts.push_back(count);
  return counts;
}

TEST_P(Block, IsExactAtEveryCountAlignmentAndOverlap) {
  for (const auto& [name, caches] : settings) {
    setting_ = name;
    set_caches(caches);
    for (const std::size_t count : counts_for(caches)) {
      expect_exact_at_many_places(count);
      if (count < 65536) expect_exact_at_page_ends(count);
      if (HasFailure()) return;
    }
    if (GetParam().what == kind::compare) break;  // does not use the cache values
  }
  for (const area* a : {&to_area, &from_area})
    EXPECT_BYTES(bytes(a->block.begin(), area::bytes), a->master);
}
INSTANTIATE_TEST_SUITE_P(Members, Block, testing::ValuesIn(members), name_of_row);

}  // namespace
}  // namespace zorvac::test
