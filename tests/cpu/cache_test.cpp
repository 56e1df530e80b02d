// Cache discovery and the values derived from it, over made-up processors: a row a processor.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <optional>

#include "cpu/fast_mem_ops.h"
#include "support/fake_processor.h"
#include "support/hash.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

constexpr vendor_rule own{"GenuineZorva"}, any{"any"};
constexpr std::uint32_t mmx = 1 << 23, sse2 = 1 << 26;
constexpr std::int32_t mb = 1 << 20;

using registers = std::array<std::uint32_t, 4>;  // EAX, EBX, ECX, EDX

// A sub-leaf of CPUID leaf 4. Counts are those of the cache; the encoding stores them less one.
constexpr std::uint32_t data = 1, instruction = 2, unified = 3;
constexpr registers cache(std::uint32_t type, std::uint32_t level, std::uint32_t ways,
                          std::uint32_t partitions, std::uint32_t line_bytes, std::uint32_t sets) {
  return {type | level << 5 | 0xfc000000,
          (ways - 1) << 22 | (partitions - 1) << 12 | (line_bytes - 1), sets - 1};
}
constexpr registers usual = cache(data, 1, 8, 1, 64, 64),
                    second = cache(unified, 2, 8, 2, 128, 512),
                    third = cache(unified, 3, 16, 1, 64, 8192);

struct machine {
  std::uint32_t maximum_leaf = 0xb;
  const char* vendor = own_vendor;
  std::uint32_t edx = 0, signature = 0x664;  // of leaf 1
  const vendor_rule& rule = own;
  std::uint32_t extended_maximum = 0x80000020;
};
using levels = std::array<std::uint32_t, 12>;  // KB, line bytes, lines per sector, ways of each
using thresholds = std::array<std::int32_t, 6>;
struct row {
  const char* what;
  machine m;
  std::map<std::uint32_t, std::vector<registers>> leaves;  // by sub-leaf; leaf 2 by execution
  levels caches = {};
  std::optional<thresholds> derived = {};
};

struct row_processor : fake_processor {
  mutable std::uint32_t executions = 0;
  explicit row_processor(const row& r) {
    leaf(0) = vendor_leaf(r.m.maximum_leaf, r.m.vendor);
    leaf(1) = {.eax = r.m.signature, .ebx = 0, .ecx = 0, .edx = r.m.edx};
    leaf(0x80000000).eax = r.m.extended_maximum;
    leaf(0x80000006).ecx = 512 << 16 | 0x140;
    for (const auto& [number, list] : r.leaves)
      for (std::uint32_t i = 0; i < list.size(); ++i)
        leaf(number, i) = std::bit_cast<cpuid_answer>(list[i]);
  }
  [[nodiscard]] cpuid_answer cpuid(std::uint32_t number, std::uint32_t subleaf) const {
    return fake_processor::cpuid(number, number == 2 ? executions++ : subleaf);
  }
};

constexpr levels x49_level_2 = {32, 64, 1, 8, 4096, 64, 1, 16},
                 x49_level_3 = {32, 64, 1, 8, 0, 0, 0, 0, 4096, 64, 1, 16};
const row rows[] = {
    // clang-format off
    {"leaf 4: the later cache of a level, data and unified caches only, eight sub-leaves",
     {.edx = sse2 | mmx},
     {{4, {usual, second, third, cache(unified, 1, 4, 1, 32, 9), cache(instruction, 1, 4, 1, 9, 8),
           cache(5, 2, 8, 1, 64, 9), cache(19, 3, 8, 1, 64, 9), cache(data, 1, 1, 1, 64, 128),
           usual}},
      {2, {{0x7d01}}}},
     {8, 64, 1, 1, 1024, 128, 2, 8, 8192, 64, 1, 16},
     thresholds{8 * mb, 4 * mb, 8192, 4096, 64, 2}},
    {"leaf 4: levels without a record, an empty sub-leaf", {.edx = mmx},
     {{4, {cache(unified, 0, 8, 1, 64, 64), cache(unified, 4, 8, 1, 64, 64), usual, {}, second}},
      {2, {{0x7d01}}}},
     {32, 64, 1, 8}, thresholds{32768, 16384, 32768, 16384, 64, 1}},
    {"leaf 4 without level 1, of equal sizes the first", {},
     {{4, {cache(unified, 3, 8, 2, 64, 2048)}}, {2, {{0x452c01}}}},
     {32, 64, 1, 8, 2048, 32, 1, 4, 2048, 64, 2, 8}, thresholds{2 * mb, mb, 32768, 16384, 32, 0}},
    {"the line is all of its sector", {.edx = sse2}, {{4, {cache(data, 1, 8, 2, 64, 64)}}},
     {64, 64, 2, 8}, thresholds{65536, 32768, 65536, 32768, 128, 2}},
    {"leaf 2: every register from its lowest byte", {3},
     {{2, {{1, 0x60, 0x7a417e00, 0x4c000000}}}, {4, {usual}}},
     {16, 64, 1, 8, 256, 64, 2, 8, 12228, 64, 1, 12}},
    {"leaf 2: registers with bit 31", {}, {{2, {{0x80002c01, 0x60, 0x80007d00, 0x4d}}}},
     {16, 64, 1, 8, 0, 0, 0, 0, 16384, 64, 1, 16}},
    {"leaf 2: descriptor 0xff", {}, {{2, {{0x7d2c01, 0xff00, 0x60}}}, {4, {third}}}},
    {"leaf 2: three times", {}, {{2, {{0x6603}, {0x6700}, {0x6800}, {0x6900}}}}, {32, 64, 2, 4}},
    {"leaf 2: four times at most", {}, {{2, {{0x6605}, {0x6700}, {0x6800}, {0x6900}, {0x0e00}}}},
     {64, 64, 2, 4}},
    {"leaf 2: not once, nor the extended leaf", {}, {{2, {{0x7d2c00}}}, {0x8000001d, {usual}}}},
    {"no leaf 2", {1}, {{2, {{0x7d2c01}}}, {4, {usual}}}},
    {"no leaf 1", {.maximum_leaf = 0, .edx = sse2 | mmx}, {}, {}, thresholds{}},
    // Level 3 on family 15, model 6: of the extended family the upper four bits count.
    {"0x49, family 6", {}, {{2, {{0x492c01}}}}, x49_level_2},
    {"0x49, model 6", {.signature = 0xf64}, {{2, {{0x492c01}}}}, x49_level_3},
    {"0x49, model 22", {.signature = 0x10f64}, {{2, {{0x492c01}}}}, x49_level_2},
    {"0x49, family 30", {.signature = 0xf00f64}, {{2, {{0x492c01}}}}, x49_level_3},
    {"0x49, family 31", {.signature = 0x1000f64}, {{2, {{0x492c01}}}}, x49_level_2},
    {"other vendor", {4, foreign_vendor, sse2 | mmx}, {{4, {usual}}}, {}, thresholds{}},
    {"second vendor", {4, second_vendor, sse2 | mmx}, {{4, {usual}}}, {},
     thresholds{mb / 2, mb / 4, 0, 0, 0, 1}},
    {"second vendor without MMX", {4, second_vendor, sse2, 0, own, 0x80000006}, {}, {},
     thresholds{mb / 2, mb / 4, 0, 0, 0, 0}},
    {"second vendor without the leaf", {4, second_vendor, mmx, 0, own, 0x80000005}, {}, {},
     thresholds{0, 0, 0, 0, 0, 1}},
    {"any vendor", {4, second_vendor, sse2 | mmx, 0, any, 0x8000001d},
     {{0x8000001d, {usual, cache(instruction, 1, 4, 1, 64, 64), second}}},
     {32, 64, 1, 8, 1024, 128, 2, 8}, thresholds{mb, mb / 2, 32768, 16384, 256, 2}},
    {"any vendor, leaf 4 first", {4, second_vendor, 0, 0, any},
     {{4, {usual}}, {0x8000001d, {second}}}, {32, 64, 1, 8}},
    {"any vendor, no extended leaf", {4, second_vendor, 0, 0, any, 0x8000001c},
     {{0x8000001d, {usual}}}},
    // clang-format on
};
void expect(const row& r, const row_processor& p, const levels& caches) {
  struct {
    cpu::cache_table table;
    levels behind;  // where a level beyond the last would stand
  } memory{};
  cpu::detect_caches(p, r.m.rule, memory.table);
  EXPECT_EQ(memory.table.computed, 1u);
  EXPECT_EQ(memory.table.unused, 0u);
  EXPECT_EQ(memory.behind, levels{});
  EXPECT_EQ(std::bit_cast<levels>(memory.table.levels), caches) << r.what;
  const auto derived = std::bit_cast<thresholds>(cpu::derive_thresholds(p, memory.table));
  EXPECT_EQ(derived, p.cpuid_exists ? r.derived.value_or(derived) : thresholds{}) << r.what;
}
TEST(Caches, AreFoundAndThresholdsDerived) {
  for (const row& r : rows) {
    row_processor p(r);
    expect(r, p, r.caches);
    p.cpuid_exists = false;
    expect(r, p, {});
  }
}

// All descriptors as makers publish them, but for the size of 0x4c, which callers know as 12228: by
// the hash of the three levels that each leads to, as they lie in memory.
TEST(Caches, DescriptorsAreThePublishedOnes) {
  std::string all;
  for (std::uint32_t code = 0; code < 256; ++code) {
    cpu::cache_table table{};
    cpu::detect_caches(row_processor({"", {}, {{2, {{code << 8 | 1}}}}}), own, table);
    all.append(reinterpret_cast<const char*>(table.levels), sizeof table.levels);
  }
  EXPECT_EQ(fnv_1a(all), 0x5942'd941'0915'01ddu);
}

// What the initialiser left when this program was loaded, and the query, which detects where
// nothing is known, but not for a level that there is not.
TEST(Caches, OfTheProcessorAtHand) {
  const std::uint32_t bytes = __libvrt_cache_tbl.level(1).size_kb * 1024;
  EXPECT_EQ(__libvrt_data_cache_size, static_cast<std::int32_t>(bytes));
  EXPECT_EQ(__libvrt_tmp, __libvrt_mem_ops_method);
  for (const std::uint32_t level : {0u, 4u, ~0u, 1u, 2u, 3u}) {
    const cpu::cache_table loaded = std::exchange(__libvrt_cache_tbl, {});
    const bool exists = level - 1 < 3;
    EXPECT_EQ(loaded.computed, 1u);
    EXPECT_EQ(__cacheSize(level), exists ? loaded.levels[level - 1].size_kb : 0);
    EXPECT_EQ(__libvrt_cache_tbl.computed, exists ? 1u : 0u);
    __libvrt_cache_tbl = loaded;
  }
}

}  // namespace
