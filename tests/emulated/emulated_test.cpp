// The shared library end to end on emulated processors: which programs it lets start there, what it
// finds out, and which variants run.
#include <gtest/gtest.h>

#include <csignal>
#include <regex>

#include "core/mxcsr.h"
#include "cpu/cpu_feature_disp.h"
#include "startup/checks.h"
#include "support/child.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

// Runs on the processor at hand, too. Prints the last letters of the checks that set the modes, '-'
// for one that refuses, '.' for one that only returns; class and caches.
TEST(Probe, TellsWhatTheLibraryMakesOfAProcessor) {
  for (const check& c : checks) {
    const outcome o = run_in_child([&] {
      reinterpret_cast<void (*)(int)>(routine(c.name))(1);
      const bool set = mxcsr::read() == (c.name.starts_with("__zorva_new") ? 0x9f80 : 0x9fc0);
      std::putchar(set ? c.name.back() : '.');
    });
    std::cerr << (o.exit_status == 1 && !o.standard_error.empty() ? "-" : o.standard_output);
  }
  const bool own = accepted_vendor.accepts(hardware_processor::cpuid(0, 0));
  const std::uint64_t word = cpu::feature_word(hardware_processor{});
  EXPECT_EQ(__zorva_cpu_feature_indicator_x, 0u) << "detected by nobody yet";
  __zorva_cpu_features_init_x();
  EXPECT_EQ(__zorva_cpu_feature_indicator, 0u);
  EXPECT_EQ(__zorva_cpu_feature_indicator_x, word);
  __zorva_cpu_features_init();
  EXPECT_EQ(__zorva_cpu_feature_indicator, own ? word : 1);
  __zorva_cpu_indicator_init();
  std::cerr << ' ' << std::hex << __zorva_cpu_indicator << std::dec;
  for (const std::uint32_t level : {1u, 2u, 3u}) std::cerr << ' ' << __cacheSize(level);
  std::cerr << '\n';
}

constexpr bool any = accepted_vendor.accepts_any();
outcome run_on(const std::string& processor, const std::string& program, const char* argument) {
  const std::string own = std::string(",vendor=") + (any ? "GenuineZorva" : ZORVAC_CPU_VENDOR);
  const bool foreign = processor.find("vendor=") != std::string::npos;
  return run_program({EMULATE, processor + (foreign ? "" : own), program, argument});
}

// On a processor: the checks that let a program start, of which the older ones are the first five;
// the variants of block copy, move and fill, and of the matrix product; class and caches.
constexpr const char* processors[][4] = {
    {"core2duo,-ssse3", "tBNP-------", "JAJJ", "800 32 4096 16384"},
    {"core2duo", "tBNPTL-----", "MMJJ", "1000 32 4096 16384"},
    {"Penryn", "tBNPTLS----", "MMJJ", "2000 32 4096 16384"},
    {"Nehalem", "tBNPTLSH---", "PPJJ", "8000 32 4096 16384"},
    {"Nehalem,level=3", "tBNPTLSH---", "PPJJ", "8000 32 2048 16384"},  // caches by leaf 2
    {"SandyBridge", "tBNPTLSHG--", "PPJJ", "20000 32 4096 16384"},
    {"Haswell", "tBNPTLSHGIE", "VPVJ", "40000 32 4096 16384"},
    {"Haswell,-bmi2", "tBNPTLSHGI-", "PPJJ", "40000 32 4096 16384"},
    {"Haswell,-xsave", "tBNPTLSH---", "PPJJ", "10000 32 4096 16384"},
    {"max,family=15", "tBNPTLSHGIE", "VPVJ", "800 32 4096 16384"},
    {"Haswell,vendor=OtherVendor!", any ? "tBNPTLSHGIE" : ".----------", any ? "VPVJ" : "AAAA",
     any ? "40000 32 4096 16384" : "1 0 0 0"},
};
TEST(Emulated, ProcessorsAreServedByTheirLevel) {
  for (const auto& [processor, starts, variants, found] : processors) {
    const outcome probe = run_on(processor, SELF, "--gtest_filter=Probe.*");
    EXPECT_EQ(probe.exit_status, 0) << processor << probe;
    const std::string started = starts;
    EXPECT_EQ(probe.standard_error, started + started.substr(0, 5) + ' ' + found + '\n')
        << processor;

    // The examples check their results and name the variants that ran.
    std::string taken;
    for (const char* example : {EXAMPLES "/memory", EXAMPLES "/matrix"}) {
      const outcome o = run_on(processor, example, "150");
      EXPECT_EQ(o.exit_status, 0) << processor << o;
      taken += std::regex_replace(o.standard_output, std::regex("by _\\w+\\.(\\w)"), "$1",
                                  std::regex_constants::format_no_copy);
    }
    EXPECT_EQ(taken, variants) << processor;
  }
}

// The blocked product runs from SSE2 on, as callers know it, and fills its strip by MOVDDUP.
TEST(Emulated, BlockedProductsNeedMoreThanTheyAskFor) {
  const outcome o = run_on("core2duo,-ssse3,-sse3", EXAMPLES "/matrix", "150");
  EXPECT_EQ(o.exit_status, 128 + SIGILL);
}

// The static library, in a program that has no shared ones.
TEST(Emulated, StaticProgramsFindTheProcessor) {
  const outcome o = run_on("Haswell", STATIC, "");
  EXPECT_EQ(o.exit_status, 0) << o;
  EXPECT_NE(o.standard_output.find("class                        0x40000\n"), std::string::npos)
      << o;
}

}  // namespace
