// The family of block routines, call by call: what comes out, byte for byte, with the bytes around
// it, the ends of pages, every overlap, and what the calling convention keeps for the caller; the
// oracle is the C library. Then which way a block goes: the bytes come out the same on every path,
// so the routines are single-stepped, under a clock of the test's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <regex>
#include <set>

#include "cpu/fast_mem_ops.h"
#include "mem/trace.h"
#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "support/registers.h"
#include "support/sanitized.h"
#include "zorvac/mem.h"

namespace zorvac::test {
namespace {

enum class kind { zero, fill, copy, move, compare };  // a zero fill ignores its second argument

// All take three words and return one, of which a comparison means the lower half.
using routine = std::uintptr_t(void*, std::uintptr_t, std::size_t);
struct member {
  std::string name;
  routine* entry;
  kind what;
  int runs;           // on this processor
  std::size_t small;  // the largest count of its table; 0: it has none
};
#define MEMBER(name, ...) \
  { #name, reinterpret_cast < routine*>(reinterpret_cast <void*>(name)), kind::__VA_ARGS__ }
const int ssse3 = __builtin_cpu_supports("ssse3"), avx2 = __builtin_cpu_supports("avx2"),
          avx512f = __builtin_cpu_supports("avx512f");
const member members[] = {
    MEMBER(__zorva_new_memcpy, copy, 1, 176),
    MEMBER(__zorva_memcpy, copy, 1, 176),  // one routine, two names
    MEMBER(__zorva_ssse3_memcpy, copy, ssse3, 79),
    MEMBER(__zorva_ssse3_rep_memcpy, copy, ssse3, 143),
    MEMBER(__zorva_avx_rep_memcpy, copy, avx2, 256),
    MEMBER(__zorva_vpx_avx512f_memcpy, copy, avx512f, 127),
    MEMBER(_VEC_memcpy, copy, 1, 0),
    MEMBER(__zorva_VEC_memcpy, copy, 1, 0),
    MEMBER(__zorva_new_memmove, move, 1, 176),
    MEMBER(__zorva_ssse3_memmove, move, ssse3, 79),
    MEMBER(__zorva_ssse3_rep_memmove, move, ssse3, 143),
    MEMBER(__zorva_new_memset, fill, 1, 64),
    MEMBER(__zorva_memset, fill, 1, 64),
    MEMBER(__zorva_avx_rep_memset, fill, avx2, 128),
    MEMBER(__zorva_vpx_avx512f_memset, fill, avx512f, 127),
    MEMBER(_VEC_memset, fill, 1, 0),
    MEMBER(__zorva_VEC_memset, fill, 1, 0),
    MEMBER(_VEC_memzero, zero, 1, 0),
    MEMBER(__zorva_VEC_memzero, zero, 1, 0),
    MEMBER(__zorva_new_memcmp, compare, 1, 64),
    MEMBER(_zorva_fast_memcmp, compare, 1, 0),
};

// The values that the library's initialiser leaves for the workers: bytes, and the copy method.
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

// Random bytes between two guard pages, and what they are to be.
struct area {
  explicit area(unsigned seed) : master(bytes) {
    std::minstd_rand random(seed);
    for (unsigned char& byte : master) byte = static_cast<unsigned char>(random() >> 8);
    std::copy(master.begin(), master.end(), block.begin());
  }
  static constexpr std::size_t bytes = 33 << 20, slack = 1 << 16;
  guarded_block block{bytes};
  std::vector<unsigned char> master;
};

class Block : public testing::TestWithParam<member> {
 protected:
  // One call, of which one in 64 shows that what belongs to the caller survives: callee-saved
  // registers, the direction flag, and upper halves that were zero, since dirty ones slow down SSE
  // code.
  std::uintptr_t call(unsigned char* to, std::uintptr_t second, std::size_t count) {
    if (counted || ++calls_ % 64 != 0) return GetParam().entry(to, second, count);
    register_file in = filled_registers(calls_);
    in.general[rdi] = reinterpret_cast<std::uintptr_t>(to);
    in.general[rsi] = second;
    in.general[rdx] = count;
    for (auto& vector : in.vector) std::fill(vector.begin() + 16, vector.end(), 0);
    const auto out = call_with_registers(reinterpret_cast<void (*)()>(GetParam().entry), in);
    for (const gpr kept : {rbx, rbp, r12, r13, r14, r15})
      EXPECT_EQ(out.general[kept], in.general[kept]) << kept;
    EXPECT_EQ(out.flags & 0x400, 0u) << "direction flag";
    for (std::size_t i = 0; i < 16; ++i)
      EXPECT_EQ(std::count(out.vector[i].begin() + 16, out.vector[i].end(), 0), 48) << i;
    return out.general[rax];
  }

  // One try, which leaves the areas as they were. Only the low 8 bits of a fill's value count, or
  // none. A comparison is of equal blocks, and of blocks that differ in one byte or two neighbours.
  void expect_exact(const area& d, std::size_t to, const area& s, std::size_t from,
                    std::size_t count) {
    const kind what = GetParam().what;
    unsigned char* const at = d.block.begin() + to;
    const unsigned char* const source = s.master.data() + from;
    const bool fills = what <= kind::fill;
    const auto word = fills ? random_() : reinterpret_cast<std::uintptr_t>(s.block.begin() + from);
    const auto value = static_cast<unsigned char>(what == kind::zero ? 0 : word);
    bool good = true;
    if (what == kind::compare) {
      std::memcpy(at, source, count);
      const std::size_t byte = random_() % (count + 1);
      for (const std::size_t changed : {count, byte, byte + 1}) {
        if (changed < count) at[changed] ^= static_cast<unsigned char>(random_() >> 8);
        const int order = std::memcmp(at, source, count);
        good &= static_cast<int>(call(at, word, count)) == (order > 0) - (order < 0);
      }
    } else {
      good = call(at, word, count) == reinterpret_cast<std::uintptr_t>(at);
      good &= fills ? count == 0 || (*at == value && std::memcmp(at, at + 1, count - 1) == 0)
                    : std::memcmp(at, source, count) == 0;
    }
    std::memcpy(at, d.master.data() + to, count);
    const std::size_t low = to - std::min<std::size_t>(to, 64),
                      high = std::min(to + count + 64, area::bytes);
    ASSERT_TRUE(good &&
                std::equal(d.block.begin() + low, d.block.begin() + high, d.master.data() + low))
        << count << " bytes from " << from << " to " << to << (&d == &s ? " in one" : "");
  }

  area to_{1}, from_{2};
  std::minstd_rand random_{3};
  unsigned calls_ = 0;
};

constexpr cache_values settings[] = {
    ordinary,
    {2048, 512},          // streams, splits and repeats with small blocks
    {0, 0},               // unknown caches
    {0, 0, 0},            // and only general registers
    {4096, 0, 1},         // only the largest level known, no vectors
    {1024, 8192},         // nonsense must stay harmless
    {32 << 20, 1 << 20},  // megabytes within the caches
};

// Every small count, every iteration number of every bulk loop with every length of remainder, and
// both sides of every limit that a member could have under these values, with room for the bytes
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

// All pairs of alignments for the smallest counts, and with them all distances of overlap; the ends
// of pages.
TEST_P(Block, IsExactAtEveryCountAlignmentAndOverlap) {
  const member& m = GetParam();
  if (m.runs == 0) GTEST_SKIP() << "this processor cannot run it";
  for (const cache_values& caches : settings) {
    SCOPED_TRACE(testing::Message() << "setting " << &caches - settings);
    set_caches(caches);
    for (const std::size_t count : counts_for(caches)) {
      const bool all = count <= 300;
      const std::size_t pairs = m.what <= kind::fill ? 64 : 64 * 64;
      const std::size_t tries = all ? pairs : count < 65536 ? 24 : 1;
      for (std::size_t i = 0; i < tries; i += sanitized ? 1 + random_() % 31 : 1) {
        const std::size_t random = random_(), place = count < 65536 ? random % 64 * 64 : 0,
                          pair = all ? i : random / 64, t = pair % 64, f = pair / 64 % 64;
        expect_exact(to_, place + t, from_, f * 65, count);
        if (m.what != kind::move || i > 4 * count) continue;
        const std::size_t apart = all ? i % (count + 1) : random_() % std::min(count, area::slack);
        const std::size_t low = place + f, high = low + apart;
        expect_exact(from_, random % 2 ? low : high, from_, random % 2 ? high : low, count);
      }
      for (const std::size_t t : {std::size_t{0}, area::bytes - count})
        for (const std::size_t f : {std::size_t{0}, area::bytes - count})
          if (count < 65536) expect_exact(to_, t, from_, f, count);
      if (HasFailure()) return;
    }
    if (m.what == kind::compare) break;  // looks at no cache value
  }
  for (const area* a : {&to_, &from_})
    EXPECT_TRUE(std::equal(a->master.begin(), a->master.end(), a->block.begin()));
}
INSTANTIATE_TEST_SUITE_P(Members, Block, testing::ValuesIn(members), name_of_row);

// One takes a count from the upper half for "below 1", the other equal pointers for equal blocks.
TEST(Compare, ReadsNothingWhereNothingCounts) {
  const guarded_block block(4096);
  EXPECT_EQ(__zorva_new_memcmp(block.end(), block.end() + 1, SIZE_MAX), 0);
  EXPECT_EQ(_zorva_fast_memcmp(block.end(), block.end(), 100), 0);
}

// Where a way ends and the next one begins: with one byte less than `count` the path is `below`,
// with as many `above`. Thresholds compare with what is left after alignment, which takes 8 bytes
// off a copy to offset 8 of an SSE2 member, 16 off one to offset 16 of an SSSE3 member, whose loop
// begins a register later, and 31 off one to offset 1 of an AVX2 member.
struct edge {
  std::string routines;
  cache_values caches;
  std::size_t to, from, count;
  std::string below, above;
  std::vector<std::size_t> prefetched = {};  // by the path above: how many, nearest, farthest
  std::uint64_t delays[2] = {};  // when it reads the destination at one quarter, at three quarters
};
constexpr std::uint64_t little = 2 * clock_reading, much = little + 1;
const std::string streamed = "movntdq prefetcht0 sfence",
                  streamed_nta = "movntdq prefetchnta sfence",
                  split = "lfence movntdq prefetcht0 sfence",
                  split_nta = "lfence movntdq prefetchnta prefetcht0 sfence",
                  missed = "12288 4096 movntdq rdtsc sfence";
const edge edges[] = {
    // Above half the largest cache it streams, after alignment. Method 2 alone has vectors. Cache
    // values have no sign. A loop through the caches leaves less than 168 bytes.
    {"new_mem(cpy|move)", {2048, 512}, 8, 3, 1033, "", streamed_nta, {16, 392, 1352}},
    {"new_mem(cpy|move)", {0, 0}, 0, 0, 177, "", streamed_nta},
    {"new_mem(cpy|move)", {512, 0, 3}, 0, 0, 257, "", "movnti prefetchnta sfence", {4, 384, 576}},
    {"new_mem(cpy|move)", {-2, 512}, 0, 0, 296, "", "loop"},

    // From half the first level on it prefetches, above half the largest it streams; forwards, from
    // sources that are misaligned and not, then backwards.
    {"ssse3_mem", {65536, 4096}, 16, 35, 2064, "", "prefetcht0", {30, 480, 2464}},
    {"ssse3_mem", {4096, 1024}, 16, 32, 2065, "prefetcht0", "movntdq sfence"},
    {"ssse3_mem", {65536, 4096}, 35, 16, 2062, "", "prefetcht0"},

    // Large from the first level on, or when aligned from about half of it; backwards above twice.
    // Then the part beyond half the largest cache is streamed, unless it is small or nearly all.
    {"ssse3_rep", {2048, 1024}, 16, 35, 1040, "prefetcht0", "prefetchnta", {28, 480, 1440}},
    {"ssse3_rep", {2048, 1024}, 16, 32, 527, "", "prefetchnta"},
    {"ssse3_rep", {2048, 2048}, 35, 16, 4110, "prefetcht0", "prefetchnta"},
    {"ssse3_rep", {2048, 512}, 16, 35, 5153, "prefetchnta", split_nta},
    {"ssse3_rep", {2048, 512}, 35, 16, 5150, "prefetchnta", split_nta},
    {"ssse3_rep", {2048, 512}, 16, 35, 9249, split_nta, split, {144, 544, 9888}},

    // Both choose the direction by the low bytes of the addresses, as signed numbers.
    {"ssse3", ordinary, 0x00, 0x80, 145, "down", "down"},
    {"ssse3", ordinary, 0x80, 0x00, 145, "up", "up"},
    {"ssse3", ordinary, 0x35, 0x35, 145, "down", "down"},
    {"ssse3_mem", ordinary, 0xff, 0x80, 81, "down", "down"},

    // Three quarters of half the first level: the string instruction; half the largest: streaming,
    // while an iteration leaves 768 bytes. An aligned destination moves on by 32 bytes too.
    {"avx_rep_memcpy", {8192, 2048}, 0, 2, 800, "", "movsb"},
    {"avx_rep_memcpy", {8192, 2048}, 1, 2, 4127, "movsb", streamed, {52, 543, 3807}},
    {"avx_rep_memcpy", {1024, 8192}, 1, 2, 3103, "", streamed},
    {"avx_rep_memcpy", {0, 0}, 1, 2, 257, "", "sfence"},
    {"avx_rep_memcpy", {0, 0}, 1, 2, 1055, "sfence", streamed},

    // Every bulk is streamed, whatever the caches.
    {"avx512f_memcpy", {1 << 30, 0}, 1, 2, 575, "", "movntdq prefetcht1 sfence", {32, 63, 2047}},
    {"avx512f_memset", {1 << 30, 0}, 1, 0, 575, "", "movntdq sfence"},

    // Fills compare with the whole largest cache; an unknown one stops streaming on the word path
    // alone, which methods below 2 take.
    {"new_memset", {2048, 512, 3}, 0, 0, 2049, "", "movntdq sfence"},
    {"new_memset", {0, 0}, 0, 0, 65, "", "sfence"},
    {"new_memset", {2048, 0, 1}, 0, 0, 2049, "", "movnti sfence"},
    {"new_memset", {0, 0, 0}, 0, 0, 3000, "", ""},

    // Fifteen sixteenths of the first level: the string instruction. Never streams.
    {"avx_rep_memset", {1024, 2048}, 1, 0, 1951, "", "stosb"},
    {"avx_rep_memset", {0, 0}, 1, 0, 129, "", "stosb"},

    // String instructions alone up to 16384 bytes, then a probe: of what the 13 bytes before the
    // boundary leave, where the destination is misaligned.
    {"VEC_memcpy", ordinary, 0, 0, 16385, "movsb movsq", "4096 rdtsc"},
    {"VEC_memcpy", ordinary, 3, 3, 16398, "movsb movsq", "4112 rdtsc"},
    {"VEC_mem[sz]", ordinary, 3, 0, 16398, "stosb stosq", "4112 rdtsc"},

    // The byte at one quarter of the bulk, and if that takes more than three times as long as
    // reading the clock the one at three quarters; if that does too, the bulk is streamed.
    // Differences of the clock have 32 bits.
    {"VEC", ordinary, 0, 0, 16400, "12288 4096 rdtsc", "12288 4096 rdtsc", {}, {much, little}},
    {"VEC", ordinary, 0, 0, 16400, missed, missed, {}, {much, much}},
    {"VEC", ordinary, 0, 0, 16400, "4096 rdtsc", "4096 rdtsc", {}, {little, much}},
    {"VEC", ordinary, 0, 0, 16400, "4096 rdtsc", "4096 rdtsc", {}, {much << 32, much}},
};

// A path is told by some of its instructions, by the places in the destination that are probed, and
// by what it should not do: leave what it streamed unfenced, or misalign the stores of loops, or
// their loads where blocks are merged. An edge may also ask whether any instruction runs again
// (loop), whether the call begins in the lower (up) or upper half of its destination (down), and
// whether it takes one indirect jump to code that never comes back (once).
void expect_path(const member& m, const edge& e, std::size_t count) {
  static const std::regex telling("[ls]fence|movnt.*|(mov|sto)s[bq]|prefetch.*|rdtsc"),
      merging("__zorva_(new|ssse3)_.*");
  static const guarded_block from_block(65536), to_block(65536);
  unsigned char* const from = from_block.begin() + e.from;
  unsigned char* const to = m.what == kind::compare ? from : to_block.begin() + e.to;
  const auto start = reinterpret_cast<std::uintptr_t>(to_block.begin()),
             source = reinterpret_cast<std::uintptr_t>(from);
  std::set<std::string> words;
  std::vector<std::size_t> prefetched;  // from the start of either block on
  std::set<std::uintptr_t> seen;
  int jumps = 0, clock_readings = 0;
  set_caches(e.caches);
  const auto observe = [&](const step& s) {
    const std::size_t at = s.operand - start;
    const bool in_destination = at < to_block.size();
    if (std::regex_match(s.what, telling)) words.insert(s.what);
    if (in_destination && !words.contains("up") && !words.contains("down"))
      words.insert(at < e.to + count / 2 ? "up" : "down");
    if (in_destination && clock_readings % 3 == 2) words.insert(std::to_string(at));
    if (s.what.starts_with("prefetch"))
      prefetched.push_back(in_destination ? at - e.to : s.operand - source);
    if (s.what.starts_with("movnt")) words.insert("unfenced");
    if (s.what == "sfence") words.erase("unfenced");
    clock_readings += s.what == "rdtsc";
    jumps += s.what == "jmp";
    if (!seen.insert(s.address).second) {
      words.insert("loop");
      if (s.bytes >= 16 && s.operand % s.bytes != 0 &&
          (in_destination || (std::regex_match(m.name, merging) && !words.contains("movntdq"))))
        words.insert("misaligned");
    }
    return at == 4096 ? e.delays[0] : at == 12288 ? e.delays[1] : 0;
  };
  trace(observe, m.entry, to, source, count);
  if (jumps == 1 && !words.contains("loop")) words.insert("once");
  std::string told;
  for (const std::string& word : words)
    if (!std::regex_match(word, std::regex("down|loop|once|up")) ||
        (e.below + e.above).find(word) != std::string::npos)
      told += (told.empty() ? "" : " ") + word;
  ASSERT_EQ(told, count < e.count ? e.below : e.above);
  if (count < e.count || e.prefetched.empty()) return;
  const auto [nearest, farthest] = std::minmax_element(prefetched.begin(), prefetched.end());
  EXPECT_EQ((std::vector{prefetched.size(), *nearest, *farthest}), e.prefetched);
}

TEST(Paths, ChangeAtTheirEdges) {
#ifndef __OPTIMIZE__
  GTEST_SKIP() << "not the code that is shipped";
#endif
  if (sanitized || counted) GTEST_SKIP() << "not the code that is shipped";
  std::vector<edge> all(std::begin(edges), std::end(edges));
  for (const member& m : members)
    for (std::size_t n = m.small; n > 2; n -= 2)
      all.push_back({"^" + m.name, ordinary, 64, 64 + n % 64, n, "once", "once"});
  for (const edge& e : all)
    for (const member& m : members)
      for (const std::size_t n : {e.count - 1, e.count}) {
        SCOPED_TRACE(testing::Message() << m.name << ' ' << n << ", row " << &e - all.data());
        if (m.runs != 0 && std::regex_search(m.name, std::regex(e.routines))) expect_path(m, e, n);
      }
}

}  // namespace
}  // namespace zorvac::test
