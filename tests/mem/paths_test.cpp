// Which way a block goes: size classes, streaming and its fence, string instructions, prefetches,
// directions, the probe of the caches. The bytes come out the same on every path, so the routines
// are single-stepped, under a clock of the test's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>

#include "mem/members.h"
#include "mem/trace.h"
#include "support/guard_pages.h"
#include "support/sanitized.h"

namespace zorvac::test {
namespace {

// Where a way ends and the next one begins: with one byte less than `count` the path is `below`,
// with as many `above`. Thresholds compare with what is left after alignment, which takes 8 bytes
// off a copy to offset 8 of an SSE2 member, 16 off one to offset 16 of an SSSE3 member, whose loop
// begins a register later, and 31 off one to offset 1 of an AVX2 member.
struct edge {
  std::string routines;
  cache_values caches;
  std::size_t to, from, count;
  std::string below, above;
  std::vector<std::size_t> prefetched = {};  // by the path above: how many, and where the first are
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
    {"new_mem(cpy|move)", {2048, 512}, 8, 3, 1033, "", streamed_nta, {16, 392}},
    {"new_mem(cpy|move)", {0, 0}, 0, 0, 177, "", streamed_nta},
    {"new_mem(cpy|move)", {0, 0, 1}, 0, 0, 177, "", "movnti prefetchnta sfence"},
    {"new_mem(cpy|move)", {2048, 0, 3}, 0, 0, 1025, "", "movnti prefetchnta sfence", {16, 384}},
    {"new_mem(cpy|move)", {-2, 512}, 0, 0, 296, "", "loop"},

    // From half the first level on it prefetches, above half the largest it streams; forwards, from
    // sources that are misaligned and not, then backwards.
    {"ssse3_mem", {65536, 4096}, 16, 35, 2064, "", "prefetcht0", {30, 480, 672}},
    {"ssse3_mem", {4096, 1024}, 16, 32, 2065, "prefetcht0", "movntdq sfence"},
    {"ssse3_mem", {65536, 4096}, 35, 16, 2062, "", "prefetcht0"},

    // Large from the first level on, or when aligned from about half of it; backwards above twice.
    // Then the part beyond half the largest cache is streamed, unless it is small or nearly all.
    {"ssse3_rep",
     {2048, 1024},
     16,
     35,
     1040,
     "prefetcht0",
     "prefetchnta",
     {28, 480, 480, 672, 672}},
    {"ssse3_rep", {2048, 1024}, 16, 32, 527, "", "prefetchnta"},
    {"ssse3_rep", {2048, 2048}, 35, 16, 4110, "prefetcht0", "prefetchnta"},
    {"ssse3_rep", {2048, 512}, 16, 35, 5153, "prefetchnta", split_nta},
    {"ssse3_rep", {2048, 512}, 35, 16, 5150, "prefetchnta", split_nta},
    {"ssse3_rep", {2048, 512}, 16, 35, 9249, split_nta, split, {144, 544, 800}},

    // Both choose the direction by the low bytes of the addresses, as signed numbers.
    {"ssse3", ordinary, 0x00, 0x80, 145, "down", "down"},
    {"ssse3", ordinary, 0x80, 0x00, 145, "up", "up"},
    {"ssse3", ordinary, 0x35, 0x35, 1500, "down", "down"},
    {"ssse3", ordinary, 0x100, 0x70, 1500, "up", "up"},
    {"ssse3_mem", ordinary, 0xff, 0x80, 81, "down", "down"},

    // Three quarters of half the first level: the string instruction; half the largest: streaming,
    // while an iteration leaves 768 bytes. An aligned destination moves on by 32 bytes too.
    {"avx_rep_memcpy", {8192, 2048}, 0, 2, 800, "", "movsb"},
    {"avx_rep_memcpy", {8192, 2048}, 1, 2, 4127, "movsb", streamed, {52, 543, 607, 671, 735}},
    {"avx_rep_memcpy", {1024, 8192}, 1, 2, 3103, "", streamed},
    {"avx_rep_memcpy", {0, 0}, 1, 2, 257, "", "sfence"},
    {"avx_rep_memcpy", {0, 0}, 1, 2, 1055, "sfence", streamed},

    // Every bulk is streamed, whatever the caches.
    {"avx512f_memcpy", {1 << 30, 0}, 1, 2, 575, "", "movntdq prefetcht1 sfence", {32, 63, 127}},
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
    {"VEC_mem[sz]", ordinary, 0, 0, 16385, "stosb stosq", "4096 rdtsc"},
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
struct path {
  std::set<std::string> words;
  std::vector<std::size_t> prefetched;  // from the start of either block on
};
path path_of(const member& m, const edge& e, std::size_t count) {
  static const std::regex telling("[ls]fence|movnt.*|(mov|sto)s[bq]|prefetch.*|rdtsc");
  static const guarded_block from_block(65536), to_block(65536);
  unsigned char* const from = from_block.begin() + e.from;
  unsigned char* const to = m.what == kind::compare ? from : to_block.begin() + e.to;
  const auto start = reinterpret_cast<std::uintptr_t>(to_block.begin()),
             source = reinterpret_cast<std::uintptr_t>(from);
  set_caches(e.caches);
  path p;
  std::map<std::string, int> times;
  std::map<std::uintptr_t, int> runs;
  bool unfenced = false;
  for (const step& s : trace_of({{start + 4096, e.delays[0]}, {start + 12288, e.delays[1]}},
                                m.entry, to, source, count)) {
    const std::size_t at = s.operand - start;
    const bool in_destination = at < to_block.size();
    if (std::regex_match(s.what, telling)) p.words.insert(s.what);
    if (in_destination && !p.words.contains("up") && !p.words.contains("down"))
      p.words.insert(at < e.to + count / 2 ? "up" : "down");
    if (in_destination && times["rdtsc"] % 3 == 2) p.words.insert(std::to_string(at));
    if (s.what.starts_with("prefetch"))
      p.prefetched.push_back(in_destination ? at - e.to : s.operand - source);
    unfenced = s.what.starts_with("movnt") || (unfenced && s.what != "sfence");
    ++times[s.what];
    if (++runs[s.address] == 1) continue;
    p.words.insert("loop");
    if (s.bytes >= 16 && s.operand % s.bytes != 0)
      p.words.insert(in_destination ? "misaligned store" : "misaligned load");
  }
  if (unfenced) p.words.insert("unfenced");
  if (times["jmp"] == 1 && !p.words.contains("loop")) p.words.insert("once");
  if (p.words.contains("movntdq") ||
      !std::regex_match(m.name, std::regex("__zorva_(new|ssse3)_.*")))
    p.words.erase("misaligned load");
  return p;
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
        if (m.runs == 0 || !std::regex_search(m.name, std::regex(e.routines))) continue;
        SCOPED_TRACE(m.name + ", " + std::to_string(n) + " bytes, row " +
                     std::to_string(&e - all.data()));
        path p = path_of(m, e, n);
        std::string told;
        for (const std::string& word : p.words)
          if (!std::regex_match(word, std::regex("down|loop|once|up")) ||
              (e.below + e.above).find(word) != std::string::npos)
            told += (told.empty() ? "" : " ") + word;
        EXPECT_EQ(told, n < e.count ? e.below : e.above);
        if (n < e.count || e.prefetched.empty()) continue;
        const std::size_t number = p.prefetched.size();
        p.prefetched.resize(e.prefetched.size() - 1);
        std::sort(p.prefetched.begin(), p.prefetched.end());
        p.prefetched.insert(p.prefetched.begin(), number);
        EXPECT_EQ(p.prefetched, e.prefetched);
      }
}

}  // namespace
}  // namespace zorvac::test
