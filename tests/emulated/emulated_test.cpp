// The shared library end to end on emulated processors: what it finds and which programs it lets
// start must be what the model makes of the CPUID answers that the program itself saw there.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "cpu/fast_mem_ops.h"
#include "support/child.h"
#include "support/fake_processor.h"
#include "support/identification_model.h"
#include "support/name_of_row.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

struct emulated {
  const char* name;
  const char* processor;
  std::uint64_t with, without;   // features that it must and must not turn out to have
  const char* vendor = nullptr;  // null: the vendor that the library was built for
};
constexpr std::uint64_t bit(int n) { return std::uint64_t{1} << n; }
constexpr std::uint64_t ssse3 = bit(8), sse41 = bit(9), sse42 = bit(10), popcnt = bit(12),
                        f16c = bit(15), avx = bit(16), fma = bit(18), bmi = bit(19), avx2 = bit(23),
                        in_order = bit(31);
constexpr emulated processors[] = {
    {"core2duo", "core2duo", ssse3, sse41},
    {"core2duo_without_ssse3", "core2duo,-ssse3", bit(7), ssse3},
    {"in_order_model", "core2duo,model=28", ssse3 | in_order, sse41},
    {"family_15", "Nehalem,family=15", sse42, avx},
    {"Penryn", "Penryn", sse41, sse42},
    {"Nehalem", "Nehalem", sse42 | popcnt, avx},
    {"Nehalem_without_popcnt", "Nehalem,-popcnt", sse42, popcnt},
    {"Nehalem_with_leaf_2_only", "Nehalem,level=3", sse42, avx},
    {"Nehalem_with_leaf_1_only", "Nehalem,level=1", sse42, avx},
    {"SandyBridge", "SandyBridge", avx, avx2 | f16c},
    {"IvyBridge", "IvyBridge", avx | f16c, avx2},
    {"Haswell", "Haswell", avx2 | fma | bmi, bit(27)},
    {"Haswell_without_avx2", "Haswell,-avx2", avx | fma, avx2},
    {"Haswell_without_bmi2", "Haswell,-bmi2", avx2, bmi},
    {"Haswell_without_xsave", "Haswell,-xsave", sse42, avx | avx2 | fma | f16c},
    {"maximum", "max", avx2, bit(27)},
    {"of_another_vendor", "Haswell", avx2, bit(27), "OtherVendor!"},
};

class Emulated : public testing::TestWithParam<emulated> {
 protected:
  static outcome run(const char* program, const char* argument = "") {
    const char* built_for = accepted_vendor.accepts_any() ? own_vendor : ZORVAC_CPU_VENDOR;
    const char* vendor = GetParam().vendor == nullptr ? built_for : GetParam().vendor;
    return run_program(
        {EMULATE, std::string(GetParam().processor) + ",vendor=" + vendor, program, argument});
  }
  void SetUp() override {
    const outcome o = run(PROBE);
    ASSERT_EQ(o.exit_status, 0) << o;
    std::istringstream lines(o.standard_output);
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string key;
      words >> key >> std::hex;
      if (key == "cpuid") {
        std::uint32_t leaf = 0, subleaf = 0;
        cpuid_answer a{};
        words >> leaf >> subleaf >> a.eax >> a.ebx >> a.ecx >> a.edx;
        seen_.leaf(leaf, subleaf) = a;
      } else if (key == "xcr0") {
        words >> seen_.xcr0;
      } else {
        std::getline(words >> std::ws, facts_[key]);
      }
    }
  }
  // Whether the library accepts the processor's vendor.
  static bool own() { return GetParam().vendor == nullptr || accepted_vendor.accepts_any(); }
  std::uint64_t number(const std::string& key) { return std::stoull(facts_.at(key), nullptr, 16); }

  fake_processor seen_;  // the processor as the program saw it
  std::map<std::string, std::string> facts_;
};

TEST_P(Emulated, IsIdentified) {
  const emulated& e = GetParam();
  const std::uint64_t word = model::feature_word(seen_);
  EXPECT_EQ(word & e.with, e.with) << "the emulator gives another processor than it should";
  EXPECT_EQ(word & e.without, 0u) << "the emulator gives another processor than it should";
  EXPECT_EQ(number("untouched"), 0u);
  EXPECT_EQ(number("indicator"), own() ? word : 1);
  EXPECT_EQ(number("indicator_x"), word);
  EXPECT_EQ(number("class"), own() ? model::processor_class(seen_) : 1);
}

TEST_P(Emulated, CachesAreMeasured) {
  std::map<std::uint32_t, std::uint32_t> kb = {{1, 0}, {2, 0}, {3, 0}};
  const std::uint32_t maximum_leaf = seen_.cpuid(0, 0).eax;
  if (own() && maximum_leaf >= 4) {
    for (std::uint32_t i = 0; i < 8 && seen_.cpuid(4, i).eax % 32 != 0; ++i) {
      const cpuid_answer a = seen_.cpuid(4, i);
      if (a.eax % 32 != 2)
        kb[a.eax >> 5 & 7] = static_cast<std::uint32_t>(
            (std::uint64_t{a.ebx >> 22} + 1) * ((a.ebx >> 12 & 0x3ff) + 1) * ((a.ebx & 0xfff) + 1) *
            (std::uint64_t{a.ecx} + 1) / 1024);
    }
  } else if (own() && maximum_leaf >= 2) {
    // The descriptors that the emulator is known to use (CPUID leaf 2, makers' tables).
    const std::map<std::uint32_t, std::pair<std::uint32_t, std::uint32_t>> known = {
        {0x01, {0, 0}}, {0x00, {0, 0}},    {0x2c, {1, 32}},
        {0x30, {0, 0}}, {0x7d, {2, 2048}}, {0x4d, {3, 16384}}};
    const cpuid_answer a = seen_.cpuid(2, 0);
    for (const std::uint32_t word : {a.eax, a.ebx, a.ecx, a.edx})
      for (int shift = 0; shift < 32; shift += 8) {
        const auto found = known.find(word >> shift & 0xff);
        ASSERT_NE(found, known.end()) << std::hex << word;
        if (found->second.first != 0) kb[found->second.first] = found->second.second;
      }
    EXPECT_GT(kb[1], 0u);
  }
  for (const std::uint32_t level : {1u, 2u, 3u})
    EXPECT_EQ(number("cache" + std::to_string(level)), kb[level]) << level;
}

TEST_P(Emulated, ProgramsStartOrAreRefused) {
  const std::uint64_t word = own() ? model::feature_word(seen_) : 1;
  const auto expected = [&](std::uint64_t mask, const char* mxcsr) {
    return (word & mask) == mask ? mxcsr : "refused";
  };
  static const std::map<std::string, std::uint64_t> new_masks = {
      {"new_B", 0x7f},    {"new_N", 0x7f},     {"new_P", 0xff},   {"new_T", 0x1ff},
      {"new_L", 0x1ff},   {"new_S", 0x3ff},    {"new_H", 0x17ff}, {"new_G", 0x117ff},
      {"new_I", 0x197ff}, {"new_E", 0x9d97ff}, {"mask", 0x800040}};
  static const std::map<std::string, std::uint64_t> old_masks = {
      {"old_B", 0x7f}, {"old_N", 0x7f}, {"old_P", 0xff}, {"old_T", 0x1ff}};
  for (const auto& [name, mask] : new_masks)
    EXPECT_EQ(facts_.at(name), expected(mask, "9f80")) << name;
  for (const auto& [name, mask] : old_masks)
    EXPECT_EQ(facts_.at(name), expected(mask, "9fc0")) << name;
  const bool base = (word & 0x3f) == 0x3f;
  EXPECT_EQ(facts_.at("new"), base ? "9f80" : "1f80");
  EXPECT_EQ(facts_.at("old"), base ? "9fc0" : "1f80");
}

// The example copies, moves and fills, checks the bytes and names the variants that ran.
TEST_P(Emulated, BlockRoutinesTakeTheVariantOfTheirLevel) {
  const std::uint64_t word = own() ? model::feature_word(seen_) : 1;
  const outcome o = run(MEMORY_EXAMPLE);
  EXPECT_EQ(o.exit_status, 0) << o;
  const auto expect = [&](const std::string& routine,
                          const std::vector<std::pair<std::uint64_t, char>>& rows) {
    char letter = 'A';
    for (const auto& [mask, variant] : rows)
      if (letter == 'A' && (word & mask) == mask) letter = variant;
    EXPECT_NE(o.standard_output.find("by " + routine + "." + letter + " "), std::string::npos)
        << routine << "." << letter << " expected\n"
        << o;
  };
  expect("_zorva_fast_memcpy", {{0x9d97ff, 'V'}, {0x17ff, 'P'}, {0x1ff, 'M'}, {0x7f, 'J'}});
  expect("_zorva_fast_memmove", {{0x17ff, 'P'}, {0x1ff, 'M'}});
  expect("_zorva_fast_memset", {{0x9d97ff, 'V'}, {0x7f, 'J'}});
}

// The example checks its product and names the variant that ran.
TEST_P(Emulated, MatrixProductsTakeTheVariantOfTheirLevel) {
  const outcome o = run(MATRIX_EXAMPLE, "150");
  EXPECT_EQ(o.exit_status, 0) << o;
  const std::uint64_t word = own() ? model::feature_word(seen_) : 1;
  const std::string variant = (word & 0x7f) == 0x7f ? "J" : "A";
  EXPECT_NE(o.standard_output.find("by _MATMUL_r8_n_n." + variant + ":"), std::string::npos) << o;
}

INSTANTIATE_TEST_SUITE_P(Processors, Emulated, testing::ValuesIn(processors), name_of_row);

}  // namespace
