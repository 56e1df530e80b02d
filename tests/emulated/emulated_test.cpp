// Tests the library on emulated processors: what it detects, which programs it lets start, and
// that its routines run. (Which variant runs for which features: dispatch_test.cpp.)
#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <sstream>

#include "core/vendor.h"
#include "cpu/features.h"
#include "support/child.h"
#include "support/masks.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

struct processor {
  std::string model;       // the emulator's model, and changes to it
  std::uint64_t features;  // for any vendor
  std::uint32_t processor_class;
  std::string caches = "32 KB 4096 KB 16384 KB ";
};
constexpr std::uint64_t sandy_bridge = level::avx | mask_of("PCLMULQDQ, AES"),
                        haswell = level::avx2 | mask_of("MOVBE, PCLMULQDQ, AES, RDRND");
const processor processors[] = {
    {"core2duo,-ssse3", level::sse3, 0x800},
    {"core2duo", level::ssse3, 0x1000},
    {"Penryn", level::sse4_1, 0x2000},
    {"Nehalem,level=3", level::sse4_2, 0x8000, "32 KB 2048 KB 16384 KB "},  // by leaf 2
    {"SandyBridge", sandy_bridge, 0x20000},
    {"Haswell", haswell, 0x40000},
    {"Haswell,-xsave", haswell ^ mask_of("F16C, AVX, FMA, AVX2"), 0x10000},
    {"Haswell,vendor=OtherVendor!", haswell, 0x40000},
};

constexpr bool any = accepted_vendor.accepts_any();
bool is_foreign(const std::string& model) { return model.find("vendor=") != std::string::npos; }
outcome run_on(const std::string& model, const std::string& program) {
  const std::string own = std::string(",vendor=") + (any ? "GenuineZorva" : ZORVAC_CPU_VENDOR);
  return run_program({EMULATE, model + (is_foreign(model) ? "" : own), program, "150"});
}

// The programs that each processor runs, and what they need to start. They check their results.
const std::pair<std::string, std::uint64_t> programs[] = {
    {"/startup_sse3", level::sse3}, {"/early_check", level::ssse3}, {"/startup_avx2", level::avx2},
    {"/memory", level::generic},    {"/matrix", level::generic},
};

TEST(Emulated, ProcessorsAreServedByTheirLevel) {
  const std::regex words("(0x[0-9a-f]+|the same|\\d+ KB|unknown)");
  for (const processor& p : processors) {
    SCOPED_TRACE(p.model);
    const bool refused = is_foreign(p.model) && !any;
    std::ostringstream expected;
    expected << std::hex;
    if (refused)
      expected << "0x1 0x" << p.features << " 0x1 unknown unknown unknown ";
    else
      expected << "0x" << p.features << " the same 0x" << p.processor_class << ' ' << p.caches;

    // What is detected, with the shared library and in a program without shared libraries.
    for (const char* program : {EXAMPLES "/processor", STATIC}) {
      const outcome o = run_on(p.model, program);
      EXPECT_EQ(
          std::regex_replace(o.standard_output, words, "$1 ", std::regex_constants::format_no_copy),
          expected.str())
          << program << ": " << o;
    }

    const std::uint64_t features = refused ? level::generic : p.features;
    for (const auto& [program, needed] : programs) {
      const outcome o = run_on(p.model, EXAMPLES + program);
      EXPECT_EQ(o.exit_status, has(features, needed) ? 0 : 1) << program << ": " << o;
    }
  }
}

// The blocked product is chosen from SSE2 on, which is part of the interface, but fills its strip
// by MOVDDUP of SSE3.
TEST(Emulated, BlockedProductsNeedMoreThanTheyAskFor) {
  const outcome o = run_on("core2duo,-ssse3,-sse3", EXAMPLES "/matrix");
  EXPECT_EQ(o.exit_status, 128 + SIGILL) << o;
}

}  // namespace
