// Tests the shared library on emulated processors: which programs it lets start, what it detects,
// and which variants run.
#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <sstream>

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
  std::vector<std::uint32_t> caches_kb;
  const char *copy, *move, *fill, *product;  // the variants of the examples' operations
};
const std::vector<std::uint32_t> usual_caches = {32, 4096, 16384};
constexpr std::uint64_t sandy_bridge = level::avx | mask_of("PCLMULQDQ, AES"),
                        haswell = level::avx2 | mask_of("MOVBE, PCLMULQDQ, AES, RDRND");
const processor processors[] = {
    // clang-format off
    {"core2duo,-ssse3", level::sse3, 0x800, usual_caches, "J", "A", "J", "J"},
    {"core2duo", level::ssse3, 0x1000, usual_caches, "M", "M", "J", "J"},
    {"Penryn", level::sse4_1, 0x2000, usual_caches, "M", "M", "J", "J"},
    {"Nehalem", level::sse4_2, 0x8000, usual_caches, "P", "P", "J", "J"},
    {"Nehalem,level=3", level::sse4_2, 0x8000, {32, 2048, 16384}, "P", "P", "J", "J"},  // by leaf 2
    {"SandyBridge", sandy_bridge, 0x20000, usual_caches, "P", "P", "J", "J"},
    {"Haswell", haswell, 0x40000, usual_caches, "V", "P", "V", "J"},
    {"Haswell,-bmi2", haswell ^ mask_of("BMI"), 0x40000, usual_caches, "P", "P", "J", "J"},
    {"Haswell,-xsave", haswell ^ mask_of("F16C, AVX, FMA, AVX2"), 0x10000, usual_caches,
     "P", "P", "J", "J"},
    {"Haswell,family=15", haswell, 0x800, usual_caches, "V", "P", "V", "J"},
    {"Haswell,vendor=OtherVendor!", haswell, 0x40000, usual_caches, "V", "P", "V", "J"},
    // clang-format on
};

constexpr bool any = cpu::accepted_vendor.accepts_any();
bool is_foreign(const std::string& model) { return model.find("vendor=") != std::string::npos; }
outcome run_on(const std::string& model, const std::string& program, const char* argument) {
  const std::string own = std::string(",vendor=") + (any ? "GenuineZorva" : ZORVAC_CPU_VENDOR);
  return run_program({EMULATE, model + (is_foreign(model) ? "" : own), program, argument});
}

// Runs on this machine's processor, too.
TEST(Probe, PrintsWhatIsDetectedAndWhatStarts) {
  for (const check& c : checks) {
    const outcome o = run_in_child([&] {
      routine(c.name)(1);
      std::printf("leaves MXCSR %x", mxcsr::read());
    });
    const bool refuses = o.exit_status == 1 && !o.standard_error.empty();
    std::cerr << c.name << ' ' << (refuses ? "refuses" : o.standard_output) << '\n';
  }
  EXPECT_EQ(__zorva_cpu_feature_indicator_x, 0u) << "detected by nobody yet";
  __zorva_cpu_features_init_x();
  EXPECT_EQ(__zorva_cpu_feature_indicator, 0u);
  std::cerr << std::hex << "any vendor's features " << __zorva_cpu_feature_indicator_x << '\n';
  __zorva_cpu_features_init();
  std::cerr << "features " << __zorva_cpu_feature_indicator << '\n';
  __zorva_cpu_indicator_init();
  std::cerr << "class " << __zorva_cpu_indicator << "\ncaches" << std::dec;
  for (const std::uint32_t level : {1u, 2u, 3u}) std::cerr << ' ' << __cacheSize(level);
  std::cerr << '\n';
}
std::string expected_of_probe(const processor& p, std::uint64_t features_whoever_made_it) {
  std::ostringstream out;
  for (const check& c : checks) {
    const bool starts = std::ranges::any_of(c.variants, [&](const variant& v) {
      return v.takes != never_selected && (p.features & v.takes) == v.takes;
    });
    const char* modes_set = effective(c, 1) == 1 ? " leaves MXCSR 9f80\n" : " leaves MXCSR 9fc0\n";
    const char* otherwise = c.refusal == 0 ? " leaves MXCSR 1f80\n" : " refuses\n";
    out << c.name << (starts ? modes_set : otherwise);
  }
  out << std::hex << "any vendor's features " << features_whoever_made_it << "\nfeatures "
      << p.features << "\nclass " << p.processor_class << "\ncaches" << std::dec;
  for (const std::uint32_t kb : p.caches_kb) out << ' ' << kb;
  return out.str() + '\n';
}

TEST(Emulated, ProcessorsGetTheVariantsOfTheirLevel) {
  for (const processor& p : processors) {
    SCOPED_TRACE(p.model);
    processor served = p;
    if (is_foreign(p.model) && !any)
      served = {p.model, level::generic, 1, {0, 0, 0}, "A", "A", "A", "A"};
    const outcome probe = run_on(p.model, SELF, "--gtest_filter=Probe.*");
    EXPECT_EQ(probe.exit_status, 0) << probe;
    EXPECT_EQ(probe.standard_error, expected_of_probe(served, p.features));

    // The examples check their results and name the variants that ran.
    std::string taken;
    for (const char* example : {EXAMPLES "/memory", EXAMPLES "/matrix"}) {
      const outcome o = run_on(p.model, example, "150");
      EXPECT_EQ(o.exit_status, 0) << o;
      taken += std::regex_replace(o.standard_output, std::regex("by (_\\w+\\.\\w)"), "$1 ",
                                  std::regex_constants::format_no_copy);
    }
    EXPECT_EQ(taken, std::string("_zorva_fast_memcpy.") + served.copy + " _zorva_fast_memmove." +
                         served.move + " _zorva_fast_memset." + served.fill + " _MATMUL_r8_n_n." +
                         served.product + ' ');
  }
}

// The blocked product is chosen from SSE2 on, which is part of the interface, but fills its strip
// by MOVDDUP of SSE3.
TEST(Emulated, BlockedProductsNeedSse3) {
  const outcome o = run_on("core2duo,-ssse3,-sse3", EXAMPLES "/matrix", "150");
  EXPECT_EQ(o.exit_status, 128 + SIGILL) << o;
}

// The static library, in a program without shared libraries.
TEST(Emulated, StaticProgramsFindTheProcessor) {
  const outcome o = run_on("Haswell", STATIC, "");
  EXPECT_EQ(o.exit_status, 0) << o;
  EXPECT_NE(o.standard_output.find("class                        0x40000\n"), std::string::npos)
      << o;
}

}  // namespace
