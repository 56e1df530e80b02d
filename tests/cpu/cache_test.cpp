// Cache discovery over made-up processors, and the values derived for the block workers.
#include <gtest/gtest.h>

#include <array>
#include <sstream>

#include "cpu/fast_mem_ops.h"
#include "support/fake_processor.h"
#include "support/hash.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;
using cpu::cache_record;

constexpr vendor_rule own{"GenuineZorva"}, any{"any"};
constexpr cache_record none{}, usual{32, 64, 1, 8};

// A sub-leaf of CPUID leaf 4. Counts are those of the cache; the encoding stores them less one.
constexpr std::uint32_t data = 1, instruction = 2, unified = 3;
cpuid_answer cache(std::uint32_t type, std::uint32_t level, std::uint32_t ways,
                   std::uint32_t partitions, std::uint32_t line_bytes, std::uint32_t sets) {
  return {.eax = type | level << 5 | 0xfc000000,
          .ebx = (ways - 1) << 22 | (partitions - 1) << 12 | (line_bytes - 1),
          .ecx = sets - 1,
          .edx = 0};
}
const cpuid_answer usual_data = cache(data, 1, 8, 1, 64, 64);
cpuid_answer words(std::uint32_t eax, std::uint32_t ebx = 0, std::uint32_t ecx = 0,
                   std::uint32_t edx = 0) {
  return {eax, ebx, ecx, edx};
}

// A processor of family 6 of the own vendor with many leaves, unless `answers` say otherwise.
cpu::cache_table caches_of(const cpuid_answers& answers, const vendor_rule& rule = own) {
  fake_processor p{.answers = answers};
  p.answers.try_emplace({0, 0}, vendor_leaf(0xb, own_vendor));
  p.answers.try_emplace({1, 0}, words(0x6f0));
  cpu::cache_table table{};
  cpu::detect_caches(p, rule, table);
  EXPECT_EQ(table.computed, 1u);
  EXPECT_EQ(table.unused, 0u);
  return table;
}
void expect_levels(cpu::cache_table table, cache_record level_1, cache_record level_2 = none,
                   cache_record level_3 = none) {
  const auto fields = [](const cache_record& r) {
    return std::array{r.size_kb, r.line_bytes, r.lines_per_sector, r.ways};
  };
  EXPECT_EQ(fields(table.level(1)), fields(level_1));
  EXPECT_EQ(fields(table.level(2)), fields(level_2));
  EXPECT_EQ(fields(table.level(3)), fields(level_3));
}

struct found {
  const char* name;
  cpuid_answers answers;
  cache_record level_1 = none, level_2 = none, level_3 = none;
};
const found cases[] = {
    // clang-format off
    {"Leaf4",
     {{{4, 0}, usual_data},
      {{4, 1}, cache(instruction, 1, 4, 1, 64, 256)},
      {{4, 2}, cache(unified, 2, 8, 2, 128, 512)},
      {{4, 3}, cache(unified, 3, 16, 1, 64, 8192)}},
     usual, {1024, 128, 2, 8}, {8192, 64, 1, 16}},
    {"Leaf4LaterCacheOfALevelWins",
     {{{4, 0}, usual_data}, {{4, 1}, cache(unified, 1, 4, 1, 32, 128)}},
     {16, 32, 1, 4}},
    {"Leaf4StopsAtTheFirstEmptySubleaf",
     {{{4, 0}, usual_data}, {{4, 2}, cache(unified, 2, 8, 1, 64, 512)}},
     usual},
    {"Leaf4ReadsEightSubleaves",
     {{{4, 0}, usual_data}, {{4, 1}, usual_data}, {{4, 2}, usual_data}, {{4, 3}, usual_data},
      {{4, 4}, usual_data}, {{4, 5}, usual_data}, {{4, 6}, usual_data},
      {{4, 7}, cache(data, 1, 1, 1, 64, 128)}, {{4, 8}, usual_data}},
     {8, 64, 1, 1}},
    {"Leaf4LevelsWithoutARecordAreIgnored",
     {{{4, 0}, cache(unified, 0, 8, 1, 64, 64)}, {{4, 1}, cache(unified, 4, 8, 1, 64, 64)},
      {{4, 2}, cache(unified, 7, 8, 1, 64, 64)}, {{4, 3}, usual_data}},
     usual},
    {"Leaf4TypesAboveThreeAreIgnored",
     {{{4, 0}, usual_data}, {{4, 1}, cache(5, 2, 8, 1, 64, 512)},
      {{4, 2}, cache(0x13, 3, 8, 1, 64, 512)}},
     usual},
    {"Leaf4SpeaksLast",  // of level 1; leaf 2 is not consulted, nor for the other levels
     {{{4, 0}, usual_data}, {{2, 0}, words(0x00007d01)}},
     usual},
    {"Leaf4WithoutLevel1LeavesTheRestToLeaf2",
     {{{4, 0}, cache(unified, 3, 16, 1, 64, 8192)}, {{2, 0}, words(0x007d2c01)}},
     usual, {2048, 64, 2, 8}, {8192, 64, 1, 16}},
    {"Leaf2EveryRegisterFromItsLowestByte",  // two level 2 entries: the later byte wins
     {{{0, 0}, vendor_leaf(3, own_vendor)},
      {{2, 0}, words(0x00000001, 0x0000002c, 0x7a417e00, 0x4c000000)}},
     usual, {256, 64, 2, 8}, {12228, 64, 1, 12}},
    {"Leaf2RegistersWithBit31AreSkipped",
     {{{2, 0}, words(0x80002c01, 0x00000060, 0x80007d00, 0x0000004d)}},
     {16, 64, 1, 8}, none, {16384, 64, 1, 16}},
    {"Leaf2DescriptorFfClearsAll",
     {{{4, 0}, cache(unified, 3, 16, 1, 64, 8192)},
      {{2, 0}, words(0x007d2c01, 0x0000ff00, 0x00000060)}}},
    {"Leaf2WithACountOfZero", {{{2, 0}, words(0x007d2c00)}}},
    {"Leaf2NotReachedBelowLeaf2",
     {{{0, 0}, vendor_leaf(1, own_vendor)}, {{2, 0}, words(0x007d2c01)}, {{4, 0}, usual_data}}},
    {"OtherVendor", {{{0, 0}, vendor_leaf(0xb, foreign_vendor)}, {{4, 0}, usual_data}}},
    {"OwnVendorIgnoresTheExtendedCacheLeaf",
     {{{0x80000000, 0}, words(0x80000020)}, {{0x8000001d, 0}, usual_data}}},
    // clang-format on
};
TEST(Caches, AreFound) {
  for (const found& f : cases) {
    SCOPED_TRACE(f.name);
    expect_levels(caches_of(f.answers), f.level_1, f.level_2, f.level_3);
  }
}

TEST(Caches, AreUnknownWithoutCpuid) {
  const fake_processor p{.answers = {{{0, 0}, vendor_leaf(0xb, own_vendor)}, {{4, 0}, usual_data}},
                         .cpuid_exists = false};
  cpu::cache_table table{};
  cpu::detect_caches(p, own, table);
  EXPECT_EQ(table.computed, 1u);
  expect_levels(table, none);
}

// Level 3 on family 15, model 6: the extended model counts, and of the extended family its upper
// four bits.
TEST(CacheDescriptors, LevelOf49DependsOnTheModel) {
  const std::pair<std::uint32_t, int> levels[] = {
      {0x6f0, 2}, {0xf64, 3}, {0x10f64, 2}, {0x1000f64, 2}, {0xf00f64, 3}};
  for (const auto& [signature, level] : levels) {
    const cache_record found{4096, 64, 1, 16};
    expect_levels(caches_of({{{1, 0}, words(signature)}, {{2, 0}, words(0x00492c01)}}), usual,
                  level == 2 ? found : none, level == 3 ? found : none);
  }
}

// Answers differently at every execution of leaf 2.
struct many_answers : fake_processor {
  mutable std::uint32_t executions = 0;
  std::uint32_t wanted = 0;
  [[nodiscard]] cpuid_answer cpuid(std::uint32_t leaf, std::uint32_t subleaf) const {
    if (leaf != 2) return fake_processor::cpuid(leaf, subleaf);
    // Level 1 caches of 8, 16, 32, 64 KB (0x66 to 0x69), then one of 24 KB.
    const std::uint32_t code = executions < 4 ? 0x66 + executions : 0x0e;
    ++executions;
    return {.eax = code << 8 | wanted, .ebx = 0, .ecx = 0, .edx = 0};
  }
};
TEST(CacheDescriptors, LeafIsExecutedAsOftenAsItSaysButFourTimesAtMost) {
  const std::pair<std::uint32_t, std::uint32_t> size_by_count[] = {{1, 8},  {2, 16}, {3, 32},
                                                                   {4, 64}, {5, 64}, {9, 64}};
  for (const auto& [count, size_kb] : size_by_count) {
    many_answers p;
    p.leaf(0) = vendor_leaf(2, own_vendor);
    p.wanted = count;
    cpu::cache_table table{};
    cpu::detect_caches(p, own, table);
    EXPECT_EQ(table.level(1).size_kb, size_kb) << count;
    EXPECT_EQ(p.executions, count < 4 ? count : 4) << count;
  }
}

// The 256 entries as makers publish them, but for the size of 0x4c, which callers know as 12228:
// by the FNV-1a hash of "code level/size/ways/line/lines per sector;" in decimal, of each in turn.
TEST(CacheDescriptors, TableIsThePublishedOne) {
  int caches = 0;
  std::string text;
  for (int code = 0; code < 256; ++code) {
    const cpu::packed_descriptor& d = cpu::cpuid2_cache_tbl.entry[code];
    EXPECT_EQ(d.level() == 0, d.geometry == 0 && d.size_kb == 0);
    if (d.level() == 0) continue;
    ++caches;
    std::ostringstream line;
    const cache_record r = d.record();
    line << code << ' ' << d.level() << '/' << r.size_kb << '/' << r.ways << '/' << r.line_bytes
         << '/' << r.lines_per_sector << ';';
    text += line.str();
  }
  EXPECT_EQ(caches, 76);
  EXPECT_EQ(fnv_1a(text), 0x42b1'7f85'7198'28aau);
}

TEST(AnyVendor, TakesTheExtendedCacheLeafWhereLeaf4IsEmpty) {
  cpuid_answers answers = {{{0, 0}, vendor_leaf(0x10, second_vendor)},
                           {{1, 0}, words(0, 0, 0, 1 << 26 | 1 << 23)},
                           {{0x80000000, 0}, words(0x8000001d)},
                           {{0x8000001d, 0}, usual_data},
                           {{0x8000001d, 1}, cache(instruction, 1, 8, 1, 64, 64)},
                           {{0x8000001d, 2}, cache(unified, 2, 8, 1, 64, 2048)}};
  cpu::cache_table table = caches_of(answers, any);
  expect_levels(table, usual, {1024, 64, 1, 8});
  const auto t = cpu::derive_thresholds(fake_processor{.answers = answers}, table);
  EXPECT_EQ(t.mem_ops_method, 2);  // not the second vendor's rule
  EXPECT_EQ(t.largest_cache_size, 1024 * 1024);

  answers[{4, 0}] = cache(data, 1, 4, 1, 64, 64);
  expect_levels(caches_of(answers, any), {16, 64, 1, 4});
  answers[{4, 0}] = {};
  answers[{0x80000000, 0}] = words(0x8000001c);
  expect_levels(caches_of(answers, any), none);
}

struct thresholds {
  const char* name;
  const char* vendor;
  std::uint32_t maximum_leaf, leaf1_edx;
  std::uint32_t kb[3];         // of the three levels, 64-byte lines, one (level 2: two) a sector
  std::uint32_t extended_max;  // of leaf 0x80000000
  std::array<std::int32_t, 6> expected;
};
constexpr std::uint32_t mmx = 1 << 23, sse2 = 1 << 26;
constexpr std::int32_t kb = 1024, mb = 1024 * 1024;
const thresholds derived[] = {
    // clang-format off
    {"LargestIsLevel3", own_vendor, 4, sse2 | mmx, {32, 256, 8192}, 0,
     {8 * mb, 4 * mb, 32 * kb, 16 * kb, 64, 2}},
    {"LargestIsLevel2", own_vendor, 4, sse2, {32, 2048, 2048}, 0,  // strictly larger only
     {2 * mb, mb, 32 * kb, 16 * kb, 128, 2}},
    {"LargestIsLevel1", own_vendor, 4, mmx, {64, 64, 0}, 0,
     {64 * kb, 32 * kb, 64 * kb, 32 * kb, 64, 1}},
    {"NothingKnown", own_vendor, 4, 0, {0, 0, 0}, 0, {}},
    {"OddSizeIsHalved", own_vendor, 4, sse2, {0, 0, 3}, 0, {3 * kb, 1536, 0, 0, 64, 2}},
    {"MethodNeedsLeaf1", own_vendor, 0, sse2 | mmx, {0, 0, 0}, 0, {}},
    {"SecondVendor", second_vendor, 4, sse2 | mmx, {0, 0, 0}, 0x80000008,
     {512 * kb, 256 * kb, 0, 0, 0, 1}},
    {"SecondVendorWithoutMmx", second_vendor, 4, sse2, {0, 0, 0}, 0x80000006,
     {512 * kb, 256 * kb, 0, 0, 0, 0}},
    {"SecondVendorWithoutTheLeaf", second_vendor, 4, mmx, {0, 0, 0}, 0x80000005,
     {0, 0, 0, 0, 0, 1}},
    {"OtherVendor", foreign_vendor, 4, sse2 | mmx, {0, 0, 0}, 0x80000008, {}},
    // clang-format on
};
TEST(Thresholds, AreDerived) {
  for (const thresholds& t : derived) {
    const fake_processor p{.answers = {{{0, 0}, vendor_leaf(t.maximum_leaf, t.vendor)},
                                       {{1, 0}, words(0, 0, 0, t.leaf1_edx)},
                                       {{0x80000000, 0}, words(t.extended_max)},
                                       {{0x80000006, 0}, words(0, 0, 512u << 16 | 0x140)}}};
    const bool accepted = t.vendor == own_vendor;
    cpu::cache_table table{.vendor_accepted = accepted,
                           .maximum_leaf = accepted ? t.maximum_leaf : 0,
                           .unused = 0,
                           .computed = 1,
                           .levels = {}};
    for (std::uint32_t level = 1; level <= 3; ++level)
      if (t.kb[level - 1] != 0) table.level(level) = {t.kb[level - 1], 64, level == 2 ? 2u : 1u, 8};
    const cpu::cache_thresholds got = cpu::derive_thresholds(p, table);
    EXPECT_EQ((std::array{got.largest_cache_size, got.largest_cache_size_half, got.data_cache_size,
                          got.data_cache_size_half, got.largest_cachelinesize, got.mem_ops_method}),
              t.expected)
        << t.name;
  }
}

// On the processor at hand: what the initialiser left when this program was loaded.
TEST(CacheSize, OtherLevelsAreZeroAndDetectNothing) {
  const cpu::cache_table saved = __libvrt_cache_tbl;
  __libvrt_cache_tbl = {};
  EXPECT_EQ(__cacheSize(0), 0u);
  EXPECT_EQ(__cacheSize(4), 0u);
  EXPECT_EQ(__cacheSize(~0u), 0u);
  EXPECT_EQ(__libvrt_cache_tbl.computed, 0u);
  for (std::uint32_t level = 1; level <= 3; ++level)
    EXPECT_EQ(__cacheSize(level), __libvrt_cache_tbl.level(level).size_kb);
  EXPECT_EQ(__libvrt_cache_tbl.computed, 1u);
  __libvrt_cache_tbl = saved;
}

TEST(CacheSize, InitialiserRanAtLoad) {
  EXPECT_EQ(__libvrt_cache_tbl.computed, 1u);
  EXPECT_EQ(__libvrt_data_cache_size, static_cast<std::int32_t>(__cacheSize(1) * 1024));
  EXPECT_EQ(__libvrt_tmp, __libvrt_mem_ops_method);
}

}  // namespace
