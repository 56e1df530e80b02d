// Which way a block goes: size classes, streaming and its fence, string instructions, prefetches,
// directions, the probe of the caches. The bytes come out the same on every path, so the routines
// are single-stepped, under a clock of the test's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>

#include "mem/members.h"
#include "mem/trace.h"
#include "support/guard_pages.h"
#include "support/sanitized.h"

namespace zorvac::test {
namespace {

// Where a way ends and the next one begins: with one byte less than `count` the path is `below`, with
// as many `above`. Thresholds compare with what is left after alignment, which takes 16 bytes off a
// copy to offset 16 of an SSSE3 member and 31 off one to offset 1 of an AVX2 member. The loop of the
// former begins a register later.
struct edge {
  const char* routines;
  cache_values caches;
  std::size_t to, from, count;
  std::string below, above;
  std::vector<std::size_t> prefetched = {};  // by the path above, first
  std::size_t prefetches = 0;                // in all
  std::vector<std::size_t> slow = {};        // bytes of the destination that take long
  std::uint64_t longer = 0;                  // than others
};

// A path is told by the instructions below that are executed and by the places in the destination
// that are probed; where an edge tells of it, by whether one of any kind runs again (loop), and
// whether the call begins in the lower (up) or upper half of its destination (down).
const std::set<std::string, std::less<>> instructions{
    "jmp",   "lfence",      "movntdq",    "movnti",     "movsb", "movsq", "sfence",
    "rdtsc", "prefetchnta", "prefetcht0", "prefetcht1", "stosb", "stosq"};
const std::set<std::string> optional{"down", "jmp", "loop", "up"};
struct path {
  std::set<std::string> words;
  std::vector<std::size_t> prefetched;  // from the start of either block on
  int jumps = 0;
  bool unfenced = false, misaligned_store = false, misaligned_load = false;
};

class PathTest : public testing::Test {
 protected:
  void SetUp() override {
#ifndef __OPTIMIZE__
    GTEST_SKIP() << "not the code that is shipped";
#endif
    if (sanitized || counted) GTEST_SKIP() << "not the code that is shipped";
  }

  path path_of(const member& m, const edge& e, std::size_t count) {
    const auto start = reinterpret_cast<std::uintptr_t>(to_.begin()),
               source = reinterpret_cast<std::uintptr_t>(from_.begin()) + e.from;
    stopped_clock clock{(std::uint64_t{2} << 32) - 45, {}, e.longer};  // soon wraps
    for (const std::size_t offset : e.slow) clock.slow.push_back(start + offset);
    unsigned char* const to = m.what == kind::compare ? from_.begin() + e.from : to_.begin() + e.to;
    set_caches(e.caches);
    path p;
    std::map<std::string_view, int> times;
    std::map<std::uintptr_t, int> runs;
    for (const step& s : trace_of(
             m.entry, [&] { m(to, source, count); }, clock)) {
      const std::size_t at = s.operand - start;
      const bool in_destination = at < to_.size();
      if (instructions.contains(s.what)) p.words.emplace(s.what);
      if (in_destination && !p.words.contains("up") && !p.words.contains("down"))
        p.words.insert(at < e.to + count / 2 ? "up" : "down");
      if (in_destination && times["rdtsc"] % 3 == 2) p.words.insert(std::to_string(at));
      ++times[s.what];
      p.jumps = times["jmp"];
      if (s.what.starts_with("prefetch"))
        p.prefetched.push_back(in_destination ? at - e.to : s.operand - source);
      p.unfenced = s.what.starts_with("movnt") || (p.unfenced && s.what != "sfence");
      if (++runs[s.address] == 1) continue;
      p.words.insert("loop");
      const bool misaligned = s.bytes >= 16 && s.operand % s.bytes != 0;
      (in_destination ? p.misaligned_store : p.misaligned_load) |= misaligned;
    }
    return p;
  }
  guarded_block from_{65536}, to_{65536};
};

constexpr const char *new_copies = "__zorva_new_mem(cpy|move)", *new_fill = "__zorva_new_memset",
                     *ssse3_copies = "__zorva_ssse3_mem.*", *rep_copies = "__zorva_ssse3_rep_.*",
                     *both_copies = "__zorva_ssse3_.*", *avx_copy = "__zorva_avx_rep_memcpy",
                     *avx_fill = "__zorva_avx_rep_memset", *avx512_copy = "__zorva_vpx_.*cpy",
                     *avx512_fill = "__zorva_vpx_.*set", *vec_copies = "_.*VEC_memcpy",
                     *vec_fills = "_.*VEC_mem(set|zero)", *vec = "_.*VEC_.*";
constexpr std::uint64_t little = 2 * stopped_clock::reading, much = little + 1;

const std::string split = "lfence movntdq prefetcht0 sfence",
                  split_nta = "lfence movntdq prefetchnta prefetcht0 sfence",
                  streamed = "12288 4096 movntdq rdtsc sfence";
const edge edges[] = {
    // Above half the largest cache it streams, after alignment. Method 2 alone has vectors. A loop
    // through the caches leaves less than 168 bytes.
    {new_copies, {2048, 512}, 0, 3, 1025, "", "movntdq prefetchnta sfence", {384}, 16},
    {new_copies, {2048, 512}, 8, 0, 1033, "", "movntdq prefetchnta sfence"},
    {new_copies, {0, 0}, 0, 0, 177, "", "movntdq prefetchnta sfence"},
    {new_copies, {2048, 0, 1}, 0, 0, 1025, "", "movnti prefetchnta sfence", {384}, 16},
    {new_copies, {2048, 0, 3}, 0, 0, 1025, "", "movnti prefetchnta sfence"},
    {new_copies, {0, 0, 0}, 0, 0, 177, "", "movnti prefetchnta sfence"},
    {new_copies, {-2, 512}, 0, 0, 4000, "", ""},  // cache values have no sign
    {new_copies, ordinary, 0, 0, 296, "", "loop"},

    // From half the first level on it prefetches, above half the largest it streams; the first
    // three forwards, from sources that are misaligned and not, then backwards.
    {ssse3_copies, {65536, 4096}, 16, 35, 2064, "", "prefetcht0", {480, 672}, 30},
    {ssse3_copies, {65536, 4096}, 16, 32, 2064, "", "prefetcht0"},
    {ssse3_copies, {4096, 1024}, 16, 35, 2065, "prefetcht0", "movntdq sfence"},
    {ssse3_copies, {65536, 4096}, 35, 16, 2062, "", "prefetcht0"},

    // Large from the first level on, or when aligned from about half of it; backwards above twice.
    // Then the part beyond half the largest cache is streamed, unless it is small or nearly all.
    {rep_copies, {2048, 1024}, 16, 35, 1040, "prefetcht0", "prefetchnta", {480, 480, 672, 672}, 28},
    {rep_copies, {2048, 1024}, 16, 32, 527, "", "prefetchnta"},
    {rep_copies, {2048, 2048}, 35, 16, 4110, "prefetcht0", "prefetchnta"},
    {rep_copies, {2048, 512}, 16, 35, 5153, "prefetchnta", split_nta},
    {rep_copies, {2048, 512}, 35, 16, 5150, "prefetchnta", split_nta},
    {rep_copies,
     {2048, 512},
     16,
     35,
     9249,
     "lfence movntdq prefetchnta prefetcht0 sfence",
     "lfence movntdq prefetcht0 sfence",
     {544, 800},
     144},

    // Both choose the direction by the low bytes of the addresses, as signed numbers.
    {both_copies, ordinary, 0x00, 0x10, 145, "up", "up"},
    {both_copies, ordinary, 0x00, 0x80, 145, "down", "down"},
    {both_copies, ordinary, 0x80, 0x00, 145, "up", "up"},
    {both_copies, ordinary, 0x35, 0x35, 1500, "down", "down"},
    {both_copies, ordinary, 0x100, 0x70, 1500, "up", "up"},
    {ssse3_copies, ordinary, 0xff, 0x80, 81, "down", "down"},

    // Three quarters of half the first level: the string instruction; half the largest: streaming,
    // while an iteration leaves 768 bytes. An aligned destination moves on by 32 bytes too.
    {avx_copy, {8192, 2048}, 1, 2, 799, "", "movsb"},
    {avx_copy, {8192, 2048}, 0, 2, 800, "", "movsb"},
    {avx_copy,
     {8192, 2048},
     1,
     2,
     4127,
     "movsb",
     "movntdq prefetcht0 sfence",
     {543, 607, 671, 735},
     52},
    {avx_copy, {1024, 8192}, 1, 2, 3103, "", "movntdq prefetcht0 sfence"},
    {avx_copy, {0, 0}, 1, 2, 257, "", "sfence"},
    {avx_copy, {0, 0}, 1, 2, 1055, "sfence", "movntdq prefetcht0 sfence"},

    // Every bulk is streamed, whatever the caches.
    {avx512_copy, {0, 0}, 1, 2, 575, "", "movntdq prefetcht1 sfence", {63, 127, 191}, 32},
    {avx512_copy, {1 << 30, 1 << 30}, 1, 2, 575, "", "movntdq prefetcht1 sfence"},
    {avx512_fill, {0, 0}, 1, 0, 575, "", "movntdq sfence"},
    {avx512_fill, {1 << 30, 1 << 30}, 1, 0, 575, "", "movntdq sfence"},

    // Fills compare with the whole largest cache; an unknown one stops streaming on the word path
    // alone, which methods below 2 take.
    {new_fill, {2048, 512}, 0, 0, 2049, "", "movntdq sfence"},
    {new_fill, {2048, 512, 3}, 0, 0, 2049, "", "movntdq sfence"},
    {new_fill, {0, 0}, 0, 0, 65, "", "sfence"},
    {new_fill, {2048, 0, 1}, 0, 0, 2049, "", "movnti sfence"},
    {new_fill, {0, 0, 0}, 0, 0, 3000, "", ""},

    // Fifteen sixteenths of the first level: the string instruction. Never streams.
    {avx_fill, {1024, 2048}, 1, 0, 1951, "", "stosb"},
    {avx_fill, {0, 0}, 1, 0, 129, "", "stosb"},
    {avx_fill, {1024, 1 << 20}, 1, 0, 5000, "", ""},

    // String instructions alone up to 16384 bytes, then a probe: of what the 13 bytes before the
    // boundary leave, where the destination is misaligned.
    {vec_copies, ordinary, 0, 0, 16385, "movsb movsq", "4096 rdtsc"},
    {vec_copies, ordinary, 3, 9, 16398, "movsb movsq", "4112 rdtsc"},
    {vec_fills, ordinary, 0, 0, 16385, "stosb stosq", "4096 rdtsc"},
    {vec_fills, ordinary, 3, 0, 16398, "stosb stosq", "4112 rdtsc"},

    // The byte at one quarter of the bulk, and if that takes more than three times as long as reading
    // the clock the one at three quarters; if that does too, the bulk is streamed. Differences of
    // the clock have 32 bits.
    {vec, ordinary, 0, 0, 16400, "12288 4096 rdtsc", "12288 4096 rdtsc", {}, 0, {4096}, much},
    {vec, ordinary, 0, 0, 16400, "4096 rdtsc", "4096 rdtsc", {}, 0, {12288}, much},
    {vec, ordinary, 0, 0, 16400, streamed, streamed, {}, 0, {4096, 12288}, much},
    {vec, ordinary, 0, 0, 16400, "4096 rdtsc", "4096 rdtsc", {}, 0, {4096, 12288}, little},
    {vec, ordinary, 0, 0, 16400, "4096 rdtsc", "4096 rdtsc", {}, 0, {4096, 12288}, much << 32},
};

TEST_F(PathTest, ChangesAtItsEdges) {
  for (const edge& e : edges)
    for (const member& m : members)
      for (const std::size_t n : {e.count - 1, e.count}) {
        if (!m.runs || !std::regex_match(m.name, std::regex(e.routines))) continue;
        SCOPED_TRACE(testing::Message() << "row " << &e - edges << ", " << m << ", " << n);
        path p = path_of(m, e, n);
        std::string told;
        for (const std::string& word : p.words)
          if (!optional.contains(word) || (e.below + e.above).find(word) != std::string::npos)
            told += (told.empty() ? "" : " ") + word;
        EXPECT_EQ(told, n < e.count ? e.below : e.above);

        // What was streamed is fenced before the return. The stores of loops are aligned, and the
        // loads too where blocks are merged.
        EXPECT_FALSE(p.unfenced || p.misaligned_store);
        EXPECT_TRUE(!p.misaligned_load || p.words.contains("movntdq") ||
                    !std::regex_match(m.name, std::regex("__zorva_(new|ssse3)_.*")));
        if (n < e.count || e.prefetched.empty()) continue;
        EXPECT_EQ(p.prefetched.size(), e.prefetches);
        p.prefetched.resize(e.prefetched.size());
        std::sort(p.prefetched.begin(), p.prefetched.end());
        EXPECT_EQ(p.prefetched, e.prefetched);
      }
}

// Up to its limit a member takes one indirect jump to code that never comes back.
TEST_F(PathTest, SmallCountsDoNotLoop) {
  for (const member& m : members)
    for (std::size_t n = m.runs ? m.small : 0; n > 1; n -= std::min<std::size_t>(n, 3)) {
      const path p = path_of(m, {"", ordinary, 64, 64 + n % 64, n, "", ""}, n);
      ASSERT_TRUE(p.jumps == 1 && !p.words.contains("loop")) << m << ", count " << n;
    }
}

}  // namespace
}  // namespace zorvac::test
