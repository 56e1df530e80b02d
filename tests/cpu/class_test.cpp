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

constexpr vendor_rule own{"GenuineZorva"};

constexpr std::uint32_t family_6 = 0x000006f0, family_15 = 0x00000f40;
constexpr std::uint32_t sse3 = 1, ssse3 = 1 << 9, movbe = 1 << 22, sse41 = 1 << 19;
constexpr std::uint32_t avx_enabled = 1 << 27 | 1 << 28, fma = 1 << 12;
constexpr std::uint32_t avx2_group = 1 << 5 | 1 << 3 | 1 << 8 | 1 << 4 | 1 << 11;
constexpr std::uint32_t adx_rdseed = 1 << 18 | 1 << 19;
constexpr std::uint32_t er_pf = 1 << 16 | 1 << 26 | 1 << 27 | 1 << 28;
constexpr std::uint32_t bw_vl = 1u << 16 | 1u << 17 | 1u << 30 | 1u << 31;

// Where a class is not what its name suggests; the model has all the others.
struct classified {
  const char* name;
  std::uint32_t signature, leaf1_ecx, leaf7_ebx, extended_ecx;
  std::uint64_t xcr0;
  std::uint32_t expected;
};
constexpr classified processors[] = {
    {"Sse2Only", family_6, 0, 0, 0, 0, 0x1},
    {"Family15WithSse3", family_15, ~0u, ~0u, ~0u, 0xff, 0x800},
    {"Family5", 0x00000500, ~0u, ~0u, ~0u, 0xff, 0x1},
    {"ExtendedFamilyIsIgnored", 0x0ff006f0, sse3, 0, 0, 0, 0x800},
    {"MovbeWithoutSse41", family_6, sse3 | ssse3 | movbe, 0, 0, 0, 0x4000},
    {"Sse41OutranksMovbe", family_6, sse3 | ssse3 | movbe | sse41, 0, 0, 0, 0x2000},
    {"AvxNotEnabled", family_6, ssse3 | avx_enabled, 0, 0, 0x3, 0x1000},
    {"AdxAndRdseedWithoutAvx2", family_6, avx_enabled, adx_rdseed, 0, 0x7, 0x800000},
    {"BothAvx512Groups", family_6, avx_enabled, er_pf | bw_vl, 0, 0xe7, 0x4000000},
    {"Avx512StateNotEnabled", family_6, avx_enabled, er_pf | bw_vl | adx_rdseed, 0, 0x67, 0x800000},
    {"Avx512StateNotEnabledNoAdx", family_6, avx_enabled | fma, er_pf | bw_vl | avx2_group, 1 << 5,
     0xc7, 0x200000},
};
TEST(ProcessorClass, IsTheLastThatAppliesToTheOwnVendor) {
  for (const classified& c : processors) {
    fake_processor p{.answers = {{{1, 0}, {c.signature, 0, c.leaf1_ecx, ~0u}},
                                 {{7, 0}, {0, c.leaf7_ebx, 0, 0}},
                                 {{0x80000001, 0}, {0, 0, c.extended_ecx, 0}}},
                     .xcr0 = c.xcr0};
    const auto classify = [&](std::uint32_t maximum_leaf, const char* vendor, vendor_rule rule) {
      p.leaf(0) = vendor_leaf(maximum_leaf, vendor);
      return cpu::classify(p, rule);
    };
    EXPECT_EQ(classify(7, own_vendor, own), c.expected) << c.name;
    EXPECT_EQ(classify(7, foreign_vendor, own), 1u) << c.name;
    EXPECT_EQ(classify(7, foreign_vendor, vendor_rule{"any"}), c.expected) << c.name;
    EXPECT_EQ(classify(0, own_vendor, own), 1u) << c.name;
    p.cpuid_exists = false;
    EXPECT_EQ(classify(7, own_vendor, own), 1u) << c.name;
  }
}

TEST(ProcessorClass, AgreesWithTheModelOnRandomProcessors) {
  std::mt19937 engine{12};
  const auto random = [&] { return static_cast<std::uint32_t>(engine()); };
  for (long i = 0; i < random_cases(50000); ++i) {
    const auto often = [&, tries = i % 4] {
      std::uint32_t word = random();
      for (long n = 0; n < tries; ++n) word |= random();
      return word;
    };
    fake_processor p;
    p.leaf(0) = vendor_leaf(7, own_vendor);
    p.leaf(1) = {.eax = i % 7 == 0 ? random() : family_6, .ebx = 0, .ecx = often(), .edx = 0};
    p.leaf(7).ebx = often();
    p.leaf(0x80000001).ecx = often();
    p.xcr0 = often();
    ASSERT_EQ(cpu::classify(p, own), model::processor_class(p)) << i;
  }
}

TEST(DispatchFail, EndsTheProcessByAMemoryFault) {
  const outcome o = run_in_child([] { __zorva_cpu_dispatch_fail(); });
  EXPECT_EQ(o, (outcome{"", "", -1, SIGSEGV}));
}

}  // namespace
