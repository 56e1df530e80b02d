// Which features and which class a processor is found to have: the tables below say it once more,
// each bit by all that it takes, and random processors are put to both. Then the exported routines
// on the processor at hand.
#include <gtest/gtest.h>

#include <csignal>
#include <random>

#include "cpu/cpu_disp.h"
#include "cpu/cpu_feature_disp.h"
#include "support/campaign.h"
#include "support/child.h"
#include "support/fake_processor.h"
#include "support/registers.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

constexpr vendor_rule own{"GenuineZorva"}, any{"any"};
constexpr std::uint64_t untouched = 0xdead;

enum reg { edx1, ecx1, ebx7, ecx7, ecx_extended };
enum condition { always, fxsr, ymm, mpx, zmm };

// Indicator bit 19 needs both of its rows.
constexpr struct {
  int indicator_bit;
  reg from;
  int cpuid_bit;
  condition needs = always;
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
    {38, ebx7, 31, zmm}, {39, ecx7, 1, zmm},
    // clang-format on
};
std::uint64_t feature_word(const fake_processor& p) {
  const cpuid_answer one = p.cpuid(1, 0), seven = p.cpuid(7, 0), extended = p.cpuid(0x80000001, 0);
  const std::uint32_t words[] = {one.edx, one.ecx, seven.ebx, seven.ecx, extended.ecx};
  const bool saved = (one.ecx >> 27 & 1) != 0 && (p.xcr0 & 0x6) == 0x6;
  const bool met[] = {true, (one.edx >> 24 & 1) != 0, saved, saved && (p.xcr0 & 0x18) == 0x18,
                      saved && (p.xcr0 & 0xe0) == 0xe0};
  const std::uint32_t model = one.eax & 0xf00f0;
  const bool in_order = model == 0x100c0 || model == 0x20060 || model == 0x20070;
  std::uint64_t missing = 0, word = in_order ? 0x80000001 : 1;
  for (const auto& f : features)
    ((words[f.from] >> f.cpuid_bit & 1) != 0 && met[f.needs] ? word : missing) |=
        std::uint64_t{1} << f.indicator_bit;
  return word & ~missing;
}

// The classes of family 6 and the features that each takes, FXSAVE or not: the last that a
// processor has whole. Family 15 gets no further than the second, any other stays at the first.
constexpr std::pair<std::uint32_t, std::uint64_t> classes[] = {{0x1, 0x1},
                                                               {0x800, 0x80},
                                                               {0x1000, 0x100},
                                                               {0x4000, 0x800},
                                                               {0x2000, 0x200},
                                                               {0x8000, 0x1400},
                                                               {0x10000, 0x6000},
                                                               {0x20000, 0x10000},
                                                               {0x40000, 0x18000},
                                                               {0x200000, 0xfd0000},
                                                               {0x800000, 0x30010000},
                                                               {0x2000000, 0x7'0801'0000},
                                                               {0x4000000, 0x60'0901'0000}};
std::uint32_t processor_class(fake_processor p) {
  p.leaf(1).edx |= 1 << 24;
  const std::uint32_t family = p.leaf(1).eax >> 8 & 0xf;
  std::uint32_t last = 1;
  for (const auto& [value, needs] : classes)
    if ((family == 6 || (family == 15 && value == 0x800)) && has(feature_word(p), needs))
      last = value;
  return last;
}

// A maximum leaf of 0 alone counts. Every class is met often, above all those that skip a step or
// stand out of order.
TEST(Identification, IsWhatTheTablesSayOnRandomProcessors) {
  struct maker {
    std::uint32_t maximum_leaf;
    std::string vendor;
    bool accepted;
    const vendor_rule& rule = own;
  };
  std::vector<maker> makers = {{7, own_vendor, true},
                               {1, own_vendor, true},
                               {1, foreign_vendor, true, any},
                               {0, own_vendor, false}};
  for (std::size_t i = 0; i < 12; ++i) {
    makers.push_back({7, own_vendor, false});
    makers.back().vendor[i] = '?';
  }
  constexpr std::uint32_t families[] = {0x6f0, 0x6f0, 0x6f0, 0xff006f0, 0xf40, 0x500};
  std::mt19937 engine{12};
  std::map<std::uint32_t, int> met;
  for (long i = 0; i < random_cases(50000); ++i) {
    const auto often = [&] {
      std::uint32_t word = 0;
      for (long n = 0; n <= i % 4; ++n) word |= static_cast<std::uint32_t>(engine());
      return word;
    };
    const maker& m = makers[static_cast<std::size_t>(i % 8 < 4 ? i / 8 % 4 : i / 8 % 16)];
    fake_processor p{.xcr0 = often()};
    for (const std::uint32_t leaf : {1u, 7u, 0x80000001u})
      p.leaf(leaf) = {.eax = often(), .ebx = often(), .ecx = often(), .edx = often()};
    if (i % 3 != 0) p.leaf(1).eax = families[i / 4 % 6];
    p.leaf(0) = vendor_leaf(m.maximum_leaf, m.vendor.c_str());

    const std::uint64_t word = feature_word(p);
    std::uint64_t checked = untouched, unchecked = untouched;
    cpu::detect_features(p, cpu::detection_mode::any_vendor, m.rule, checked, unchecked);
    EXPECT_EQ(checked, m.maximum_leaf == 0 ? 1 : untouched);
    EXPECT_EQ(unchecked, m.maximum_leaf == 0 ? untouched : word);
    checked = unchecked = untouched;
    cpu::detect_features(p, cpu::detection_mode::vendor_checked, m.rule, checked, unchecked);
    EXPECT_EQ(checked, m.accepted ? word : 1);
    EXPECT_EQ(unchecked, m.accepted ? word : untouched);

    const std::uint32_t expected = m.accepted ? processor_class(p) : 1;
    ++met[expected];
    EXPECT_EQ(cpu::classify(p, m.rule), expected);
    EXPECT_TRUE(p.xgetbv_calls == 0 || (p.leaf(1).ecx >> 27 & 1) != 0) << "it would fault";
    p.cpuid_exists = false;
    EXPECT_EQ(cpu::classify(p, m.rule), 1u);
    ASSERT_FALSE(HasFailure()) << i << ' ' << m.vendor;
  }
  EXPECT_EQ(met.size(), std::size(classes));
  for (const auto& [value, times] : met) EXPECT_GT(times, 50) << std::hex << value;
}

// The routines store their words whole, and change no register.
TEST(Identification, OfTheProcessorAtHand) {
  const hardware_processor here;
  const std::uint64_t word = cpu::feature_word(here);
  const bool accepted = accepted_vendor.accepts(here.cpuid(0, 0));
  __zorva_cpu_feature_indicator = __zorva_cpu_feature_indicator_x = untouched;
  const auto expect = [&](void (*routine)(), std::uint64_t checked, std::uint64_t x) {
    const register_file before = filled_registers(1);
    const register_file after = call_with_registers(routine, before);
    EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
    EXPECT_EQ(__zorva_cpu_feature_indicator, checked);
    EXPECT_EQ(__zorva_cpu_feature_indicator_x, x);
  };
  expect(__zorva_cpu_indicator_init, untouched, untouched);
  expect(__zorva_cpu_features_init_x, untouched, word);
  expect(__zorva_cpu_features_init, accepted ? word : 1, word);
  EXPECT_EQ(__zorva_cpu_indicator, cpu::classify(here, accepted_vendor));
}

TEST(DispatchFail, EndsTheProcessByAMemoryFault) {
  EXPECT_EQ(run_in_child(__zorva_cpu_dispatch_fail), (outcome{"", "", -1, SIGSEGV}));
}

}  // namespace
