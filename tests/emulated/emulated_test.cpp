// Tests the shared library on emulated processors: which programs it lets start, what it detects,
// and which variants run.
#include <gtest/gtest.h>

#include <array>
#include <regex>

#include "core/mxcsr.h"
#include "cpu/features.h"
#include "cpu/vendor.h"
#include "startup/checks.h"
#include "support/child.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

struct processor {
  std::string model;       // the emulator's model, and changes to it
  std::uint64_t features;  // for any vendor
  std::uint32_t processor_class;
  std::array<std::uint32_t, 3> caches_kb;
  std::string variants;  // of the examples' operations: copy, move, fill and product
};
constexpr std::array<std::uint32_t, 3> usual_caches = {32, 4096, 16384};
constexpr std::uint64_t sandy_bridge = level::avx | mask_of("PCLMULQDQ, AES"),
                        haswell = level::avx2 | mask_of("MOVBE, PCLMULQDQ, AES, RDRND");
const processor processors[] = {
    // clang-format off
    {"core2duo,-ssse3", level::sse3, 0x800, usual_caches, "JAJJ"},
    {"core2duo", level::ssse3, 0x1000, usual_caches, "MMJJ"},
    {"Penryn", level::sse4_1, 0x2000, usual_caches, "MMJJ"},
    {"Nehalem,level=3", level::sse4_2, 0x8000, {32, 2048, 16384}, "PPJJ"},  // caches by leaf 2
    {"SandyBridge", sandy_bridge, 0x20000, usual_caches, "PPJJ"},
    {"Haswell", haswell, 0x40000, usual_caches, "VPVJ"},
    {"Haswell,-bmi2", haswell ^ mask_of("BMI"), 0x40000, usual_caches, "PPJJ"},
    {"Haswell,-xsave", haswell ^ mask_of("F16C, AVX, FMA, AVX2"), 0x10000, usual_caches, "PPJJ"},
    {"Haswell,family=15", haswell, 0x800, usual_caches, "VPVJ"},
    {"Haswell,vendor=OtherVendor!", haswell, 0x40000, usual_caches, "VPVJ"},
    // clang-format on
};

constexpr bool any = cpu::accepted_vendor.accepts_any();
bool is_foreign(const std::string& model) { return model.find("vendor=") != std::string::npos; }
outcome run_on(const std::string& model, const std::string& program, const std::string& argument) {
  const std::string own = std::string(",vendor=") + (any ? "GenuineZorva" : ZORVAC_CPU_VENDOR);
  return run_program({EMULATE, model + (is_foreign(model) ? "" : own), program, argument});
}
// What the library makes of a processor.
processor served(const processor& p) {
  const bool refused = is_foreign(p.model) && !any;
  return refused ? processor{p.model, level::generic, 1, {}, "AAAA"} : p;
}

// Disabled here: runs only on the emulator, where the test below starts it.
class DISABLED_Probe : public testing::TestWithParam<int> {};  // the row of the processor
TEST_P(DISABLED_Probe, SeesWhatIsDetectedAndWhatStarts) {
  const processor &real = processors[GetParam()], seen = served(real);
  for (const check& c : checks) {
    const outcome o = run_in_child([&] {
      routine(c.name)(1);
      std::printf("MXCSR %x", mxcsr::read());
    });
    const bool starts = std::ranges::any_of(c.variants, [&](const variant& v) {
      return v.takes != never_selected && (seen.features & v.takes) == v.takes;
    });
    const bool refuses = !starts && c.refusal != 0;
    const char* const modes = effective(c, 1) == 1 ? "MXCSR 9f80" : "MXCSR 9fc0";
    EXPECT_EQ(o.standard_output, refuses ? "" : starts ? modes : "MXCSR 1f80") << c.name;
    EXPECT_EQ(o.exit_status, refuses ? 1 : 0) << c.name;
    EXPECT_EQ(!o.standard_error.empty(), refuses) << c.name;
  }
  EXPECT_EQ(__zorva_cpu_feature_indicator_x, 0u) << "detected by nobody yet";
  __zorva_cpu_features_init_x();
  EXPECT_EQ(__zorva_cpu_feature_indicator, 0u);
  EXPECT_EQ(__zorva_cpu_feature_indicator_x, real.features);
  __zorva_cpu_features_init();
  EXPECT_EQ(__zorva_cpu_feature_indicator, seen.features);
  __zorva_cpu_indicator_init();
  EXPECT_EQ(__zorva_cpu_indicator, seen.processor_class);
  for (const std::uint32_t level : {1u, 2u, 3u})
    EXPECT_EQ(__cacheSize(level), seen.caches_kb[level - 1]) << "level " << level;
}
INSTANTIATE_TEST_SUITE_P(Emulated, DISABLED_Probe, testing::Range(0, int{std::size(processors)}));

TEST(Emulated, ProcessorsGetTheVariantsOfTheirLevel) {
  setenv("GTEST_ALSO_RUN_DISABLED_TESTS", "1", 1);
  for (const processor& p : processors) {
    SCOPED_TRACE(p.model);
    const auto row = std::to_string(&p - processors);
    const outcome probe = run_on(p.model, SELF, "--gtest_filter=*Probe.*/" + row);
    EXPECT_NE(probe.standard_output.find("PASSED  ] 1 test."), std::string::npos) << probe;

    // The examples check their results and name the variants that ran.
    std::string taken;
    for (const char* example : {EXAMPLES "/memory", EXAMPLES "/matrix"}) {
      const outcome o = run_on(p.model, example, "150");
      EXPECT_EQ(o.exit_status, 0) << o;
      taken += std::regex_replace(o.standard_output, std::regex("by _\\w+\\.(\\w)"), "$1",
                                  std::regex_constants::format_no_copy);
    }
    EXPECT_EQ(taken, served(p).variants);
  }
}

}  // namespace
