// The legacy processor class over made-up processors.
#include <gtest/gtest.h>

#include <csignal>
#include <random>

#include "cpu/cpu_disp.h"
#include "support/campaign.h"
#include "support/child.h"
#include "support/fake_processor.h"
#include "support/identification_model.h"
#include "support/name_of_row.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

constexpr vendor_rule own{"GenuineZorva"};

constexpr std::uint32_t family_6 = 0x000006f0, family_15 = 0x00000f40;
constexpr std::uint32_t sse3 = 1, ssse3 = 1 << 9, movbe = 1 << 22, sse41 = 1 << 19,
                        sse42_popcnt = 1 << 20 | 1 << 23, crypto = 1 << 1 | 1 << 25,
                        avx_enabled = 1 << 27 | 1 << 28, f16c = 1 << 29, fma = 1 << 12;
constexpr std::uint32_t avx2_group = 1 << 5 | 1 << 3 | 1 << 8 | 1 << 4 | 1 << 11;
constexpr std::uint32_t adx_rdseed = 1 << 18 | 1 << 19;
constexpr std::uint32_t er_pf = 1 << 16 | 1 << 26 | 1 << 27 | 1 << 28;
constexpr std::uint32_t bw_vl = 1u << 16 | 1u << 17 | 1u << 30 | 1u << 31;
constexpr std::uint32_t up_to_crypto = sse3 | ssse3 | sse41 | sse42_popcnt | crypto;

struct classified {
  const char* name;
  std::uint32_t signature, leaf1_ecx, leaf7_ebx, extended_ecx;
  std::uint64_t xcr0;
  std::uint32_t expected;
};
constexpr classified processors[] = {
    {"Sse2Only", family_6, 0, 0, 0, 0, 0x1},
    {"Family15WithSse3", family_15, ~0u, ~0u, ~0u, 0xff, 0x800},
    {"Family15WithoutSse3", family_15, ~sse3, ~0u, ~0u, 0xff, 0x1},
    {"Family5", 0x00000500, ~0u, ~0u, ~0u, 0xff, 0x1},
    {"ExtendedFamilyIsIgnored", 0x0ff006f0, sse3, 0, 0, 0, 0x800},
    {"Sse3", family_6, sse3, 0, 0, 0, 0x800},
    {"Ssse3WithoutSse3", family_6, ssse3, 0, 0, 0, 0x1000},
    {"MovbeWithoutSse41", family_6, sse3 | ssse3 | movbe, 0, 0, 0, 0x4000},
    {"Sse41OutranksMovbe", family_6, sse3 | ssse3 | movbe | sse41, 0, 0, 0, 0x2000},
    {"Sse42WithoutPopcnt", family_6, sse3 | ssse3 | sse41 | 1 << 20, 0, 0, 0, 0x2000},
    {"Sse42AndPopcnt", family_6, sse3 | ssse3 | sse41 | sse42_popcnt, 0, 0, 0, 0x8000},
    {"AesWithoutPclmulqdq", family_6, up_to_crypto & ~2u, 0, 0, 0, 0x8000},
    {"PclmulqdqAndAes", family_6, up_to_crypto, 0, 0, 0, 0x10000},
    {"AvxNotEnabled", family_6, up_to_crypto | avx_enabled, 0, 0, 0x3, 0x10000},
    {"AvxWithoutOsxsave", family_6, up_to_crypto | 1 << 28, 0, 0, 0x7, 0x10000},
    {"OsxsaveWithoutAvx", family_6, up_to_crypto | 1 << 27 | f16c, ~0u, ~0u, 0xff, 0x10000},
    {"Avx", family_6, up_to_crypto | avx_enabled, 0, 0, 0x7, 0x20000},
    {"AvxAlone", family_6, avx_enabled, 0, 0, 0x7, 0x20000},
    {"F16c", family_6, up_to_crypto | avx_enabled | f16c, 0, 0, 0x7, 0x40000},
    {"Avx2Group", family_6, avx_enabled | fma, avx2_group, 1 << 5, 0x7, 0x200000},
    {"Avx2WithoutRtm", family_6, avx_enabled | fma, avx2_group & ~(1u << 11), 1 << 5, 0x7, 0x20000},
    {"Avx2WithoutLzcnt", family_6, avx_enabled | fma | f16c, avx2_group, 0, 0x7, 0x40000},
    {"Avx2WithoutFma", family_6, avx_enabled, avx2_group, 1 << 5, 0x7, 0x20000},
    {"AdxAndRdseedWithoutAvx2", family_6, avx_enabled, adx_rdseed, 0, 0x7, 0x800000},
    {"AdxWithoutRdseed", family_6, avx_enabled, 1 << 19, 0, 0x7, 0x20000},
    {"Avx512ErPf", family_6, avx_enabled, er_pf, 0, 0xe7, 0x2000000},
    {"Avx512BwVl", family_6, avx_enabled, bw_vl, 0, 0xe7, 0x4000000},
    {"BothAvx512Groups", family_6, avx_enabled, er_pf | bw_vl, 0, 0xe7, 0x4000000},
    {"Avx512StateNotEnabled", family_6, avx_enabled, er_pf | bw_vl | adx_rdseed, 0, 0x67, 0x800000},
    {"Avx512StateNotEnabledNoAdx", family_6, avx_enabled | fma, er_pf | bw_vl | avx2_group, 1 << 5,
     0xc7, 0x200000},
};
class ProcessorClass : public testing::TestWithParam<classified> {
 protected:
  static fake_processor make(const classified& c) {
    fake_processor p;
    p.leaf(0) = vendor_leaf(7, own_vendor);
    p.leaf(1) = {.eax = c.signature, .ebx = 0, .ecx = c.leaf1_ecx, .edx = ~0u};
    p.leaf(7).ebx = c.leaf7_ebx;
    p.leaf(0x80000001).ecx = c.extended_ecx;
    p.xcr0 = c.xcr0;
    return p;
  }
};
TEST_P(ProcessorClass, IsTheLastThatApplies) {
  EXPECT_EQ(cpu::classify(make(GetParam()), own), GetParam().expected);
}
TEST_P(ProcessorClass, IsGenericForAnotherVendorOrNoLeaves) {
  fake_processor p = make(GetParam());
  p.leaf(0) = vendor_leaf(7, foreign_vendor);
  EXPECT_EQ(cpu::classify(p, own), 1u);
  EXPECT_EQ(cpu::classify(p, vendor_rule{"any"}), GetParam().expected);
  p.leaf(0) = vendor_leaf(0, own_vendor);
  EXPECT_EQ(cpu::classify(p, own), 1u);
  p.leaf(0) = vendor_leaf(7, own_vendor);
  p.cpuid_exists = false;
  EXPECT_EQ(cpu::classify(p, own), 1u);
}
INSTANTIATE_TEST_SUITE_P(Processors, ProcessorClass, testing::ValuesIn(processors), name_of_row);

TEST(ProcessorClassModel, AgreesOnRandomProcessors) {
  std::mt19937 engine{12};
  const auto random = [&] { return static_cast<std::uint32_t>(engine()); };
  const auto mostly_set = [&] { return random() | random() | random() | random(); };
  for (long i = 0; i < random_cases(20000); ++i) {
    fake_processor p;
    p.leaf(0) = vendor_leaf(7, own_vendor);
    p.leaf(1) = {.eax = i % 8 == 0 ? random() : family_6, .ebx = 0, .ecx = mostly_set(), .edx = 0};
    p.leaf(7).ebx = mostly_set();
    p.leaf(0x80000001).ecx = mostly_set();
    p.xcr0 = mostly_set();
    ASSERT_EQ(cpu::classify(p, own), model::processor_class(p)) << i;
  }
}

TEST(DispatchFail, EndsTheProcessByAMemoryFault) {
  const outcome o = run_in_child([] { __zorva_cpu_dispatch_fail(); });
  EXPECT_EQ(
      o,
      (outcome{.standard_output = "", .standard_error = "", .exit_status = -1, .signal = SIGSEGV}));
}

}  // namespace
