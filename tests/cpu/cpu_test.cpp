// What a processor is found to be: its features and its class, by tables that say once more what
// each bit and each class takes, over random processors; its caches and what is derived from them,
// a row a processor; then the exported routines on the processor at hand.
#include <gtest/gtest.h>

#include <bit>
#include <csignal>
#include <optional>
#include <random>

#include "cpu/cpu_disp.h"
#include "cpu/cpu_feature_disp.h"
#include "cpu/fast_mem_ops.h"
#include "support/campaign.h"
#include "support/child.h"
#include "support/fake_processor.h"
#include "support/hash.h"
#include "support/registers.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

constexpr vendor_rule own{"GenuineZorva"}, any{"any"};

enum { edx1, ecx1, ebx7, ecx7, ecx_extended };
enum { always, fxsr, ymm, mpx, zmm };

// Indicator bit 19 needs both of its rows.
constexpr struct {
  int indicator_bit, from, cpuid_bit, needs = always;
} features[] = {
    // clang-format off
    {1, edx1, 0}, {2, edx1, 15}, {3, edx1, 23}, {4, edx1, 24}, {5, edx1, 25, fxsr},
    {6, edx1, 26, fxsr}, {7, ecx1, 0, fxsr}, {8, ecx1, 9, fxsr}, {9, ecx1, 19, fxsr},
    {10, ecx1, 20, fxsr}, {11, ecx1, 22, fxsr}, {12, ecx1, 23, fxsr}, {13, ecx1, 1, fxsr},
    {14, ecx1, 25, fxsr}, {15, ecx1, 29, ymm}, {16, ecx1, 28, ymm}, {17, ecx1, 30},
    {18, ecx1, 12, ymm}, {19, ebx7, 3}, {19, ebx7, 8}, {20, ecx_extended, 5}, {21, ebx7, 4},
    {22, ebx7, 11}, {23, ebx7, 5, ymm}, {24, ebx7, 17, zmm}, {27, ebx7, 16, zmm}, {28, ebx7, 19},
    {29, ebx7, 18}, {30, ebx7, 21, zmm}, {32, ebx7, 27, zmm}, {33, ebx7, 26, zmm},
    {34, ebx7, 28, zmm}, {35, ebx7, 29, fxsr}, {36, ebx7, 14, mpx}, {37, ebx7, 30, zmm},
    {38, ebx7, 31, zmm}, {39, ecx7, 1, zmm}};
// clang-format on
std::uint64_t feature_word(const fake_processor& p) {
  const cpuid_answer one = p.cpuid(1, 0), seven = p.cpuid(7, 0), extended = p.cpuid(0x80000001, 0);
  const std::uint32_t words[] = {one.edx, one.ecx, seven.ebx, seven.ecx, extended.ecx};
  const std::uint64_t xcr0 = has(one.ecx, 1u << 27) ? p.xcr0 : 0;
  const bool met[] = {true, has(one.edx, 1u << 24), has(xcr0, 0x6ul), has(xcr0, 0x1eul),
                      has(xcr0, 0xe6ul)};
  const std::uint32_t model = one.eax & 0xf00f0;
  const bool in_order = model == 0x100c0 || model == 0x20060 || model == 0x20070;
  std::uint64_t missing = 0, word = in_order ? 0x80000001 : 1;
  for (const auto& f : features) {
    const bool present = has(words[f.from], 1u << f.cpuid_bit) && met[f.needs];
    (present ? word : missing) |= 1ul << f.indicator_bit;
  }
  return word & ~missing;
}

// The classes of family 6 and the features that each takes, FXSAVE or not: the last that a
// processor has whole. Family 15 gets no further than the second, any other stays at the first.
constexpr std::pair<std::uint32_t, std::uint64_t> classes[] = {
    // clang-format off
    {0x1, 0x1}, {0x800, 0x80}, {0x1000, 0x100}, {0x4000, 0x800}, {0x2000, 0x200}, {0x8000, 0x1400},
    {0x10000, 0x6000}, {0x20000, 0x10000}, {0x40000, 0x18000}, {0x200000, 0xfd0000},
    {0x800000, 0x30010000}, {0x2000000, 0x7'0801'0000}, {0x4000000, 0x60'0901'0000}};
// clang-format on
std::uint32_t processor_class(fake_processor p) {
  p.leaf(1).edx |= 1 << 24;
  const std::uint32_t family = p.leaf(1).eax >> 8 & 0xf;
  std::uint32_t last = 1;
  for (const auto& [value, needs] : classes)
    if ((family == 6 || (family == 15 && value == 0x800)) && has(feature_word(p), needs))
      last = value;
  return last;
}

// Of the maximum leaf 0 alone counts. Every class is met often, above all those that skip a step or
// stand out of order.
TEST(Identification, IsWhatTheTablesSayOnRandomProcessors) {
  constexpr std::uint32_t families[] = {0x6f0, 0x6f0, 0x6f0, 0xff006f0, 0xf40, 0x500};
  std::mt19937 engine{12};
  std::map<std::uint32_t, int> met;
  for (std::uint32_t i = 0; i < random_cases(50000); ++i) {
    std::string vendor = own_vendor;
    const bool foreign = i % 5 == 0, own_only = i % 7 != 0;
    if (foreign) vendor[i / 5 % 12] = '?';
    const std::uint32_t maximum_leaf = i % 11;
    const bool accepted = maximum_leaf != 0 && !(foreign && own_only);
    const vendor_rule& rule = own_only ? own : any;

    const auto often = [&] {  // a bit is set in one case of two, or in seven of eight
      return static_cast<std::uint32_t>(engine() | (i % 2) * (engine() | engine()));
    };
    fake_processor p{.xcr0 = often()};
    p.leaf(0) = vendor_leaf(maximum_leaf, vendor.c_str());
    for (const std::uint32_t leaf : {1u, 7u, 0x80000001u})
      p.leaf(leaf) = {.eax = often(), .ebx = often(), .ecx = often(), .edx = often()};
    if (i % 3 != 0) p.leaf(1).eax = families[i / 4 % 6];

    const std::uint64_t word = feature_word(p), untouched = 0xdead;
    std::uint64_t checked = untouched, unchecked = untouched;
    cpu::detect_features(p, cpu::detection_mode::any_vendor, rule, checked, unchecked);
    EXPECT_EQ(checked, maximum_leaf == 0 ? 1 : untouched);
    EXPECT_EQ(unchecked, maximum_leaf == 0 ? untouched : word);
    checked = unchecked = untouched;
    cpu::detect_features(p, cpu::detection_mode::vendor_checked, rule, checked, unchecked);
    EXPECT_EQ(checked, accepted ? word : 1);
    EXPECT_EQ(unchecked, accepted ? word : untouched);

    const std::uint32_t expected = accepted ? processor_class(p) : 1;
    ++met[expected];
    EXPECT_EQ(cpu::classify(p, rule), expected);
    EXPECT_TRUE(p.xgetbv_calls == 0 || has(p.leaf(1).ecx, 1u << 27)) << "it would fault";
    p.cpuid_exists = false;
    EXPECT_EQ(cpu::classify(p, rule), 1u);
    ASSERT_FALSE(HasFailure()) << i << ' ' << vendor;
  }
  EXPECT_EQ(met.size(), std::size(classes));
  for (const auto& [value, times] : met) EXPECT_GT(times, 50) << std::hex << value;
}

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

using levels = std::array<std::uint32_t, 12>;  // KB, line bytes, lines per sector, ways of each
using thresholds = std::array<std::int32_t, 6>;
struct row {
  const char* what;
  const vendor_rule& rule;
  const char* vendor;
  std::uint32_t maximum_leaf;
  std::map<std::uint32_t, std::vector<registers>> leaves;  // by sub-leaf; leaf 2 by execution
  levels caches = {};
  std::optional<thresholds> derived = {};
};
struct row_processor : fake_processor {
  mutable std::uint32_t executions = 0;
  explicit row_processor(const row& r) {
    leaf(0) = vendor_leaf(r.maximum_leaf, r.vendor);
    for (const auto& [number, list] : r.leaves)
      for (std::uint32_t i = 0; i < list.size(); ++i)
        leaf(number, i) = std::bit_cast<cpuid_answer>(list[i]);
  }
  [[nodiscard]] cpuid_answer cpuid(std::uint32_t number, std::uint32_t subleaf) const {
    return fake_processor::cpuid(number, number == 2 ? executions++ : subleaf);
  }
};

constexpr registers mmx = {0x664, 0, 0, 1 << 23}, sse2 = {0x664, 0, 0, 1 << 23 | 1 << 26};
constexpr std::int32_t mb = 1 << 20;
constexpr levels at_level_2 = {0, 0, 0, 0, 4096, 64, 1, 16},
                 at_level_3 = {0, 0, 0, 0, 0, 0, 0, 0, 4096, 64, 1, 16};
const row rows[] = {
    // clang-format off
    {"leaf 4: the later cache of a level from 1 to 3; data and unified; eight sub-leaves, by any",
     any, own_vendor, 4,
     {{1, {sse2}}, {2, {{0x7d01}}}, {0x80000000, {{0x8000001d}}}, {0x8000001d, {usual}},
      {4, {cache(unified, 0, 8, 1, 64, 64), cache(unified, 4, 8, 1, 64, 64), usual, second, third,
           cache(instruction, 1, 4, 1, 9, 8), cache(19, 3, 8, 1, 64, 9),
           cache(data, 1, 1, 1, 64, 128), usual}}},
     {8, 64, 1, 1, 1024, 128, 2, 8, 8192, 64, 1, 16},
     thresholds{8 * mb, 4 * mb, 8192, 4096, 64, 2}},
    {"leaf 4: up to an empty sub-leaf; the line is all of its sector", own, own_vendor, 11,
     {{1, {mmx}}, {4, {cache(data, 1, 8, 2, 64, 64), {}, second}}}, {64, 64, 2, 8},
     thresholds{65536, 32768, 65536, 32768, 128, 1}},
    {"leaf 4 without level 1, of equal sizes the first; leaf 2 once", own, own_vendor, 11,
     {{4, {cache(unified, 3, 8, 2, 64, 2048)}}, {2, {{0x452c01}, {0x0e00}}}},
     {32, 64, 1, 8, 2048, 32, 1, 4, 2048, 64, 2, 8}, thresholds{2 * mb, mb, 32768, 16384, 32, 0}},
    {"leaf 2: four times at most, registers without bit 31, each from its lowest byte", own,
     own_vendor, 3, {{4, {usual}}, {2, {{0x80002c05, 0x60, 0x7e417a00, 0x4c000000}, {},
                                        {0, 0, 0x80007d00}, {0, 0, 0, 0x23}, {0x0e00}}}},
     {16, 64, 1, 8, 256, 128, 1, 12, 1024, 64, 2, 8}},
    {"leaf 2: descriptor 0xff", own, own_vendor, 4,
     {{2, {{0x7d2c01, 0xff00, 0x60}}}, {4, {third}}}},
    {"leaf 2: not once, nor the extended leaf", own, own_vendor, 4,
     {{2, {{0x7d2c00}}}, {0x80000000, {{0x80000020}}}, {0x8000001d, {usual}}}},
    {"no leaf 2", own, own_vendor, 1, {{2, {{0x7d2c01}}}, {4, {usual}}}},
    {"no leaf 1", own, own_vendor, 0, {{1, {sse2}}}, {}, thresholds{}},
    // Level 3 on family 15, model 6: of the extended family the upper four bits count.
    {"0x49, model 6", own, own_vendor, 2, {{1, {{0xf64}}}, {2, {{0x4901}}}}, at_level_3},
    {"0x49, model 22", own, own_vendor, 2, {{1, {{0x10f64}}}, {2, {{0x4901}}}}, at_level_2},
    {"0x49, family 30", own, own_vendor, 2, {{1, {{0xf00f64}}}, {2, {{0x4901}}}}, at_level_3},
    {"0x49, family 31", own, own_vendor, 2, {{1, {{0x1000f64}}}, {2, {{0x4901}}}}, at_level_2},
    {"other vendor", own, foreign_vendor, 4, {{1, {sse2}}, {4, {usual}}}, {}, thresholds{}},
    {"second vendor", own, second_vendor, 4,
     {{1, {sse2}}, {4, {usual}}, {0x80000000, {{0x80000006}}},
      {0x80000006, {{0, 0, 512 << 16 | 0x140}}}}, {}, thresholds{mb / 2, mb / 4, 0, 0, 0, 1}},
    {"second vendor without MMX, nor the leaf", own, second_vendor, 4,
     {{1, {{0, 0, 0, 1 << 26}}}, {0x80000000, {{0x80000005}}}, {0x80000006, {{0, 0, 512 << 16}}}},
     {}, thresholds{}},
    {"any vendor", any, second_vendor, 4,
     {{0x80000000, {{0x8000001d}}}, {0x8000001d, {usual, second}}},
     {32, 64, 1, 8, 1024, 128, 2, 8}, thresholds{mb, mb / 2, 32768, 16384, 256, 0}},
    {"any vendor, no extended leaf", any, second_vendor, 4,
     {{0x80000000, {{0x8000001c}}}, {0x8000001d, {usual}}}},
    // clang-format on
};
TEST(Caches, AreFoundAndThresholdsDerived) {
  for (const row& r : rows)
    for (const bool exists : {true, false}) {
      row_processor p(r);
      p.cpuid_exists = exists;
      cpu::cache_table tables[2] = {};  // a level 4 would stand in the second
      cpu::detect_caches(p, r.rule, tables[0]);
      EXPECT_EQ(std::bit_cast<levels>(tables[0].levels), exists ? r.caches : levels{}) << r.what;
      EXPECT_EQ(tables[0].unused + tables[1].vendor_accepted, 0u) << r.what;
      EXPECT_EQ(tables[0].computed, 1u) << r.what;
      const auto derived = std::bit_cast<thresholds>(cpu::derive_thresholds(p, tables[0]));
      EXPECT_EQ(derived, exists ? r.derived.value_or(derived) : thresholds{}) << r.what;
    }
}

// Loading asks whether there is CPUID, and who made the processor, once, and nothing again that a
// query has found already.
TEST(Caches, LoadingAsksOnceWhoMadeTheProcessor) {
  for (const row& r : rows)
    for (const bool exists : {true, false}) {
      row_processor p(r);
      p.cpuid_exists = exists;
      cpu::cache_table table = {};
      auto derived = std::bit_cast<thresholds>(cpu::thresholds_at_load(p, r.rule, table));
      EXPECT_EQ(derived, exists ? r.derived.value_or(derived) : thresholds{}) << r.what;
      EXPECT_EQ(std::bit_cast<levels>(table.levels), exists ? r.caches : levels{}) << r.what;
      EXPECT_EQ(p.questions, 1) << r.what;
      EXPECT_EQ(p.asked[0], exists ? 1 : 0) << r.what;

      p.asked.clear();
      const auto again = std::bit_cast<thresholds>(cpu::thresholds_at_load(p, r.rule, table));
      EXPECT_EQ(again, derived) << r.what;
      EXPECT_EQ(p.asked[2] + p.asked[4] + p.asked[0x8000001d], 0) << r.what;
    }
}

// All descriptors as makers publish them, but for the size of 0x4c, which callers know as 12228: by
// the hash of the table as it lies in memory.
TEST(Caches, DescriptorsAreThePublishedOnes) {
  const auto* bytes = reinterpret_cast<const char*>(&cpu::cpuid2_cache_tbl);
  EXPECT_EQ(fnv_1a({bytes, sizeof cpu::cpuid2_cache_tbl}), 0xfd2a'35dd'98a6'ecb9u);
}

// What the initialiser left when this program was loaded, and the query, which detects where
// nothing is known, but not for a level that there is not.
TEST(AtHand, CachesAreFoundAtLoadOrWhenAskedFor) {
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

TEST(AtHand, RoutinesChangeNoRegister) {
  const register_file filled = filled_registers(1);
  for (auto* routine :
       {__zorva_cpu_features_init, __zorva_cpu_features_init_x, __zorva_cpu_indicator_init})
    EXPECT_EQ(changed_registers(filled, call_with_registers(routine, filled)).size(), 0u);
  EXPECT_NE(__zorva_cpu_feature_indicator, 0u) << "a dispatcher would ask for ever";
  EXPECT_EQ(run_in_child(__zorva_cpu_dispatch_fail), (outcome{"", "", -1, SIGSEGV}));
}

}  // namespace
