// The legacy processor class over made-up processors.
#include <gtest/gtest.h>

#include <csignal>
#include <random>

#include "cpu/cpu_disp.h"
#include "support/campaign.h"
#include "support/child.h"
#include "support/fake_processor.h"
#include "support/identification_model.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

// Families 6 and 15 with any extended family; another family; leaf 7 present or not. Each class is
// met often, above all those that skip a step or stand out of order.
TEST(ProcessorClass, IsTheLastThatAppliesToAnAcceptedVendor) {
  constexpr vendor_rule own{"GenuineZorva"}, any{"any"};
  std::mt19937 engine{12};
  std::map<std::uint32_t, int> met;
  for (long i = 0; i < random_cases(50000); ++i) {
    const auto often = [&, tries = i % 4] {
      auto word = static_cast<std::uint32_t>(engine());
      for (long n = 0; n < tries; ++n) word |= static_cast<std::uint32_t>(engine());
      return word;
    };
    constexpr std::uint32_t families[] = {0x6f0, 0x6f0, 0x6f0, 0xff006f0, 0xf40, 0x500};
    fake_processor p;
    p.leaf(1) = {.eax = families[i / 4 % 6], .ebx = 0, .ecx = often(), .edx = often()};
    p.leaf(7).ebx = often();
    p.leaf(0x80000001).ecx = often();
    p.xcr0 = often();
    const auto classify = [&](std::uint32_t maximum_leaf, const char* vendor, vendor_rule rule) {
      p.leaf(0) = vendor_leaf(maximum_leaf, vendor);
      return cpu::classify(p, rule);
    };
    const std::uint32_t expected = model::processor_class(p);
    ++met[expected];
    ASSERT_EQ(classify(7, own_vendor, own), expected) << i;
    ASSERT_EQ(classify(1, foreign_vendor, any), expected) << i;  // no leaf but 1 is asked for
    ASSERT_EQ(classify(7, foreign_vendor, own), 1u) << i;
    ASSERT_EQ(classify(0, own_vendor, own), 1u) << i;
    p.cpuid_exists = false;
    ASSERT_EQ(classify(7, own_vendor, own), 1u) << i;
  }
  EXPECT_EQ(met.size(), 13u);
  for (const auto& [word, times] : met) EXPECT_GT(times, 50) << std::hex << word;
}

TEST(DispatchFail, EndsTheProcessByAMemoryFault) {
  const outcome o = run_in_child([] { __zorva_cpu_dispatch_fail(); });
  EXPECT_EQ(o, (outcome{"", "", -1, SIGSEGV}));
}

}  // namespace
