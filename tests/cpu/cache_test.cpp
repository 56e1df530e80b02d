// Cache discovery over made-up processors, and the values derived for the block workers.
#include <gtest/gtest.h>

#include <functional>

#include "cpu/fast_mem_ops.h"
#include "support/fake_processor.h"
#include "support/name_of_row.h"
#include "zorvac/cpu.h"

namespace zorvac::cpu {
static bool operator==(const cache_record& a, const cache_record& b) {
  return a.size_kb == b.size_kb && a.line_bytes == b.line_bytes &&
         a.lines_per_sector == b.lines_per_sector && a.ways == b.ways;
}
static std::ostream& operator<<(std::ostream& out, const cache_record& r) {
  return out << r.size_kb << " KB, " << r.line_bytes << "-byte lines, " << r.lines_per_sector
             << " per sector, " << r.ways << " ways";
}
}  // namespace zorvac::cpu

namespace {

using namespace zorvac;
using namespace zorvac::test;
using cpu::cache_record;

constexpr vendor_rule own{"GenuineZorva"}, any{"any"};
constexpr std::uint32_t family_6 = 0x000006f0;
constexpr cache_record none{};

// A sub-leaf of CPUID leaf 4. Counts are those of the cache; the encoding stores them less one.
constexpr std::uint32_t data = 1, instruction = 2, unified = 3;
cpuid_answer cache_leaf(std::uint32_t type, std::uint32_t level, std::uint32_t ways,
                        std::uint32_t partitions, std::uint32_t line_bytes, std::uint32_t sets) {
  return {.eax = type | level << 5 | 0xfc000000,
          .ebx = (ways - 1) << 22 | (partitions - 1) << 12 | (line_bytes - 1),
          .ecx = sets - 1,
          .edx = 0};
}

struct found {
  const char* name;
  std::function<void(fake_processor&)> prepare;
  cache_record level_1, level_2, level_3;
};
fake_processor processor_with(const found& f) {
  fake_processor p;
  p.leaf(0) = vendor_leaf(0xb, own_vendor);
  p.leaf(1) = {.eax = family_6, .ebx = 0, .ecx = 0, .edx = 1 << 26};
  f.prepare(p);
  return p;
}

const found cases[] = {
    {"Leaf4",
     [](fake_processor& p) {
       p.leaf(4, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
       p.leaf(4, 1) = cache_leaf(instruction, 1, 4, 1, 64, 256);
       p.leaf(4, 2) = cache_leaf(unified, 2, 8, 2, 128, 512);
       p.leaf(4, 3) = cache_leaf(unified, 3, 16, 1, 64, 8192);
     },
     {32, 64, 1, 8},
     {1024, 128, 2, 8},
     {8192, 64, 1, 16}},
    {"Leaf4LaterCacheOfALevelWins",
     [](fake_processor& p) {
       p.leaf(4, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
       p.leaf(4, 1) = cache_leaf(unified, 1, 4, 1, 32, 128);
     },
     {16, 32, 1, 4},
     none,
     none},
    {"Leaf4StopsAtTheFirstEmptySubleaf",
     [](fake_processor& p) {
       p.leaf(4, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
       p.leaf(4, 2) = cache_leaf(unified, 2, 8, 1, 64, 512);
     },
     {32, 64, 1, 8},
     none,
     none},
    {"Leaf4ReadsEightSubleaves",
     [](fake_processor& p) {
       for (std::uint32_t i = 0; i < 12; ++i)
         p.leaf(4, i) = cache_leaf(data, 1, 1, 1, 64, 16 * (i + 1));
     },
     {8, 64, 1, 1},
     none,
     none},
    {"Leaf4LevelsWithoutARecordAreIgnored",
     [](fake_processor& p) {
       p.leaf(4, 0) = cache_leaf(unified, 0, 8, 1, 64, 64);
       p.leaf(4, 1) = cache_leaf(unified, 4, 8, 1, 64, 64);
       p.leaf(4, 2) = cache_leaf(unified, 7, 8, 1, 64, 64);
       p.leaf(4, 3) = cache_leaf(data, 1, 8, 1, 64, 64);
     },
     {32, 64, 1, 8},
     none,
     none},
    {"Leaf4TypesAboveThreeAreIgnored",
     [](fake_processor& p) {
       p.leaf(4, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
       p.leaf(4, 1) = cache_leaf(5, 2, 8, 1, 64, 512);
       p.leaf(4, 2) = cache_leaf(0x13, 3, 8, 1, 64, 512);
     },
     {32, 64, 1, 8},
     none,
     none},
    {"Leaf4SpeaksLast",  // of level 1; leaf 2 is not consulted, nor for the other levels
     [](fake_processor& p) {
       p.leaf(4, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
       p.leaf(2).eax = 0x00007d01;
     },
     {32, 64, 1, 8},
     none,
     none},
    {"Leaf4WithoutLevel1LeavesTheRestToLeaf2",
     [](fake_processor& p) {
       p.leaf(4, 0) = cache_leaf(unified, 3, 16, 1, 64, 8192);
       p.leaf(2).eax = 0x007d2c01;
     },
     {32, 64, 1, 8},
     {2048, 64, 2, 8},
     {8192, 64, 1, 16}},
    {"Leaf2",
     [](fake_processor& p) {
       p.leaf(0).eax = 3;
       p.leaf(2) = {.eax = 0x00492c01, .ebx = 0, .ecx = 0, .edx = 0};
     },
     {32, 64, 1, 8},
     {4096, 64, 1, 16},
     none},
    {"Leaf2EveryRegisterFromItsLowestByte",  // two level 2 entries: the later byte wins
     [](fake_processor& p) {
       p.leaf(2) = {.eax = 0x00000001, .ebx = 0x0000002c, .ecx = 0x7a417e00, .edx = 0x4c000000};
     },
     {32, 64, 1, 8},
     {256, 64, 2, 8},
     {12228, 64, 1, 12}},
    {"Leaf2RegistersWithBit31AreSkipped",
     [](fake_processor& p) {
       p.leaf(2) = {.eax = 0x80002c01, .ebx = 0x00000060, .ecx = 0x80007d00, .edx = 0x0000004d};
     },
     {16, 64, 1, 8},
     none,
     {16384, 64, 1, 16}},
    {"Leaf2Descriptor49OnFamily15Model6",
     [](fake_processor& p) {
       p.leaf(1).eax = 0x00000f64;
       p.leaf(2).eax = 0x00492c01;
     },
     {32, 64, 1, 8},
     none,
     {4096, 64, 1, 16}},
    {"Leaf2Descriptor49OnFamily15Model22",  // the extended model counts
     [](fake_processor& p) {
       p.leaf(1).eax = 0x00010f64;
       p.leaf(2).eax = 0x00492c01;
     },
     {32, 64, 1, 8},
     {4096, 64, 1, 16},
     none},
    {"Leaf2Descriptor49OnAnExtendedFamily",
     [](fake_processor& p) {
       p.leaf(1).eax = 0x01000f64;
       p.leaf(2).eax = 0x00492c01;
     },
     {32, 64, 1, 8},
     {4096, 64, 1, 16},
     none},
    {"Leaf2Descriptor49OnFamily15WithLowExtendedBits",  // only the upper four bits count
     [](fake_processor& p) {
       p.leaf(1).eax = 0x00f00f64;
       p.leaf(2).eax = 0x00492c01;
     },
     {32, 64, 1, 8},
     none,
     {4096, 64, 1, 16}},
    {"Leaf2DescriptorFfClearsAll",
     [](fake_processor& p) {
       p.leaf(4, 0) = cache_leaf(unified, 3, 16, 1, 64, 8192);
       p.leaf(2) = {.eax = 0x007d2c01, .ebx = 0x0000ff00, .ecx = 0x00000060, .edx = 0};
     },
     none, none, none},
    {"Leaf2WithACountOfZero", [](fake_processor& p) { p.leaf(2).eax = 0x007d2c00; }, none, none,
     none},
    {"Leaf2NotReachedBelowLeaf2",
     [](fake_processor& p) {
       p.leaf(0).eax = 1;
       p.leaf(2).eax = 0x007d2c01;
       p.leaf(4, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
     },
     none, none, none},
    {"OtherVendor",
     [](fake_processor& p) {
       p.leaf(0) = vendor_leaf(0xb, foreign_vendor);
       p.leaf(4, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
     },
     none, none, none},
    {"NoCpuid",
     [](fake_processor& p) {
       p.cpuid_exists = false;
       p.leaf(4, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
     },
     none, none, none},
    {"OwnVendorIgnoresTheExtendedCacheLeaf",
     [](fake_processor& p) {
       p.leaf(0x80000000).eax = 0x80000020;
       p.leaf(0x8000001d, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
     },
     none, none, none},
};
class Caches : public testing::TestWithParam<found> {};
TEST_P(Caches, AreFound) {
  cpu::cache_table table{};
  cpu::detect_caches(processor_with(GetParam()), own, table);
  EXPECT_EQ(table.computed, 1u);
  EXPECT_EQ(table.unused, 0u);
  EXPECT_EQ(table.level(1), GetParam().level_1);
  EXPECT_EQ(table.level(2), GetParam().level_2);
  EXPECT_EQ(table.level(3), GetParam().level_3);
}
INSTANTIATE_TEST_SUITE_P(Processors, Caches, testing::ValuesIn(cases), name_of_row);

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

TEST(CacheDescriptors, TableHas76Caches) {
  int caches = 0;
  for (const cpu::packed_descriptor& d : cpu::cpuid2_cache_tbl.entry) {
    caches += d.level() != 0 ? 1 : 0;
    EXPECT_LE(d.level(), 3u);
    EXPECT_EQ(d.level() == 0, d.geometry == 0 && d.size_kb == 0);
  }
  EXPECT_EQ(caches, 76);
  EXPECT_EQ(cpu::cpuid2_cache_tbl.entry[0x4c].size_kb, 12228u);  // as callers know it, not 12288
}

TEST(AnyVendor, TakesTheExtendedCacheLeafWhereLeaf4IsEmpty) {
  fake_processor p;
  p.leaf(0) = vendor_leaf(0x10, second_vendor);
  p.leaf(1).edx = 1 << 26 | 1 << 23;
  p.leaf(0x80000000).eax = 0x8000001d;
  p.leaf(0x8000001d, 0) = cache_leaf(data, 1, 8, 1, 64, 64);
  p.leaf(0x8000001d, 1) = cache_leaf(instruction, 1, 8, 1, 64, 64);
  p.leaf(0x8000001d, 2) = cache_leaf(unified, 2, 8, 1, 64, 2048);
  cpu::cache_table table{};
  cpu::detect_caches(p, any, table);
  EXPECT_EQ(table.level(1), (cache_record{32, 64, 1, 8}));
  EXPECT_EQ(table.level(2), (cache_record{1024, 64, 1, 8}));
  const cpu::cache_thresholds t = cpu::derive_thresholds(p, table);
  EXPECT_EQ(t.mem_ops_method, 2);  // not the second vendor's rule
  EXPECT_EQ(t.largest_cache_size, 1024 * 1024);

  p.leaf(4, 0) = cache_leaf(data, 1, 4, 1, 64, 64);
  cpu::cache_table listed{};
  cpu::detect_caches(p, any, listed);
  EXPECT_EQ(listed.level(1), (cache_record{16, 64, 1, 4}));
  EXPECT_EQ(listed.level(2), none);

  p.leaf(4, 0) = {};
  p.leaf(0x80000000).eax = 0x8000001c;
  cpu::cache_table unlisted{};
  cpu::detect_caches(p, any, unlisted);
  EXPECT_EQ(unlisted.level(1), none);
}

struct thresholds {
  const char* name;
  const char* vendor;
  std::uint32_t maximum_leaf, leaf1_edx;
  std::uint32_t kb[3];         // of the three levels, 64-byte lines, one (level 2: two) a sector
  std::uint32_t extended_max;  // of leaf 0x80000000
  cpu::cache_thresholds expected;
};
constexpr std::uint32_t mmx = 1 << 23, sse2 = 1 << 26;
constexpr std::int32_t mb = 1024 * 1024;
const thresholds derived[] = {
    {"LargestIsLevel3",
     own_vendor,
     4,
     sse2 | mmx,
     {32, 256, 8192},
     0,
     {8 * mb, 4 * mb, 32768, 16384, 64, 2}},
    {"LargestIsLevel2",
     own_vendor,
     4,
     sse2,
     {32, 2048, 2048},
     0,  // strictly larger only
     {2 * mb, mb, 32768, 16384, 128, 2}},
    {"LargestIsLevel1", own_vendor, 4, mmx, {64, 64, 0}, 0, {65536, 32768, 65536, 32768, 64, 1}},
    {"NothingKnown", own_vendor, 4, 0, {0, 0, 0}, 0, {0, 0, 0, 0, 0, 0}},
    {"OddSizeIsHalvedTowardZero", own_vendor, 4, sse2, {0, 0, 3}, 0, {3072, 1536, 0, 0, 64, 2}},
    {"MethodNeedsLeaf1", own_vendor, 0, sse2 | mmx, {0, 0, 0}, 0, {}},
    {"SecondVendor",
     second_vendor,
     4,
     sse2 | mmx,
     {0, 0, 0},
     0x80000008,
     {512 * 1024, 256 * 1024, 0, 0, 0, 1}},
    {"SecondVendorWithoutMmx",
     second_vendor,
     4,
     sse2,
     {0, 0, 0},
     0x80000006,
     {512 * 1024, 256 * 1024, 0, 0, 0, 0}},
    {"SecondVendorWithoutTheLeaf",
     second_vendor,
     4,
     mmx,
     {0, 0, 0},
     0x80000005,
     {0, 0, 0, 0, 0, 1}},
    {"OtherVendor", foreign_vendor, 4, sse2 | mmx, {0, 0, 0}, 0x80000008, {}},
};
class Thresholds : public testing::TestWithParam<thresholds> {};
TEST_P(Thresholds, AreDerived) {
  const thresholds& t = GetParam();
  fake_processor p;
  p.leaf(0) = vendor_leaf(t.maximum_leaf, t.vendor);
  p.leaf(1).edx = t.leaf1_edx;
  p.leaf(0x80000000).eax = t.extended_max;
  p.leaf(0x80000006).ecx = 512u << 16 | 0x140;
  cpu::cache_table table{};
  table.vendor_accepted = t.vendor == own_vendor ? 1 : 0;
  table.maximum_leaf = t.vendor == own_vendor ? t.maximum_leaf : 0;
  table.computed = 1;
  for (std::uint32_t level = 1; level <= 3; ++level)
    if (t.kb[level - 1] != 0) table.level(level) = {t.kb[level - 1], 64, level == 2 ? 2u : 1u, 8};
  const cpu::cache_thresholds got = cpu::derive_thresholds(p, table);
  EXPECT_EQ(got.largest_cache_size, t.expected.largest_cache_size);
  EXPECT_EQ(got.largest_cache_size_half, t.expected.largest_cache_size_half);
  EXPECT_EQ(got.data_cache_size, t.expected.data_cache_size);
  EXPECT_EQ(got.data_cache_size_half, t.expected.data_cache_size_half);
  EXPECT_EQ(got.largest_cachelinesize, t.expected.largest_cachelinesize);
  EXPECT_EQ(got.mem_ops_method, t.expected.mem_ops_method);
}
INSTANTIATE_TEST_SUITE_P(Processors, Thresholds, testing::ValuesIn(derived), name_of_row);

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
