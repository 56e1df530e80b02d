// Tests the shared library on emulated processors: what it detects, which programs it lets start,
// and which variants run.
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
  std::string caches;
  const char *copy, *move, *fill, *product;  // the variants of the examples' operations
};
const std::string usual_caches = "32 KB 4096 KB 16384 KB ";
constexpr std::uint64_t sandy_bridge = level::avx | mask_of("PCLMULQDQ, AES"),
                        haswell = level::avx2 | mask_of("MOVBE, PCLMULQDQ, AES, RDRND");
const processor processors[] = {
    // clang-format off
    {"core2duo,-ssse3", level::sse3, 0x800, usual_caches, "J", "A", "J", "J"},
    {"core2duo", level::ssse3, 0x1000, usual_caches, "M", "M", "J", "J"},
    {"Penryn", level::sse4_1, 0x2000, usual_caches, "M", "M", "J", "J"},
    {"Nehalem,level=3", level::sse4_2, 0x8000, "32 KB 2048 KB 16384 KB ",  // by leaf 2
     "P", "P", "J", "J"},
    {"SandyBridge", sandy_bridge, 0x20000, usual_caches, "P", "P", "J", "J"},
    {"Haswell", haswell, 0x40000, usual_caches, "V", "P", "V", "J"},
    {"Haswell,-xsave", haswell ^ mask_of("F16C, AVX, FMA, AVX2"), 0x10000, usual_caches,
     "P", "P", "J", "J"},
    {"Haswell,vendor=OtherVendor!", haswell, 0x40000, usual_caches, "V", "P", "V", "J"},
    // clang-format on
};

constexpr bool any = accepted_vendor.accepts_any();
bool is_foreign(const std::string& model) { return model.find("vendor=") != std::string::npos; }
outcome run_on(const std::string& model, const std::string& program) {
  const std::string own = std::string(",vendor=") + (any ? "GenuineZorva" : ZORVAC_CPU_VENDOR);
  return run_program({EMULATE, model + (is_foreign(model) ? "" : own), program, "150"});
}

// The parts of what an example prints that fit a pattern.
std::string parts_of(const outcome& o, const char* pattern) {
  EXPECT_EQ(o.exit_status, 0) << o;
  return std::regex_replace(o.standard_output, std::regex(pattern), "$1 ",
                            std::regex_constants::format_no_copy);
}

TEST(Emulated, ProcessorsAreServedByTheirLevel) {
  for (const processor& p : processors) {
    SCOPED_TRACE(p.model);
    std::ostringstream word;
    word << std::hex << "0x" << p.features << ' ';
    std::string any_vendor = "the same ";
    processor served = p;
    if (is_foreign(p.model) && !any) {
      served = {p.model, level::generic, 1, "unknown unknown unknown ", "A", "A", "A", "A"};
      any_vendor = word.str();
    }

    // In a program with the shared library, and in one without shared libraries.
    std::ostringstream detected;
    detected << std::hex << "0x" << served.features << ' ' << any_vendor << "0x"
             << served.processor_class << ' ' << served.caches;
    for (const char* program : {EXAMPLES "/processor", STATIC})
      EXPECT_EQ(parts_of(run_on(p.model, program), "(0x[0-9a-f]+|the same|\\d+ KB|unknown)"),
                detected.str())
          << program;

    const std::pair<const char*, std::uint64_t> checked[] = {
        {EXAMPLES "/startup_sse3", level::sse3},
        {EXAMPLES "/early_check", level::ssse3},
        {EXAMPLES "/startup_avx2", level::avx2}};
    for (const auto& [program, needs] : checked)
      EXPECT_EQ(run_on(p.model, program).exit_status, has(served.features, needs) ? 0 : 1)
          << program;

    // These examples check their results and name the variants that ran.
    std::string taken;
    for (const char* example : {EXAMPLES "/memory", EXAMPLES "/matrix"})
      taken += parts_of(run_on(p.model, example), "by (_\\w+\\.\\w)");
    EXPECT_EQ(taken, std::string("_zorva_fast_memcpy.") + served.copy + " _zorva_fast_memmove." +
                         served.move + " _zorva_fast_memset." + served.fill + " _MATMUL_r8_n_n." +
                         served.product + ' ');
  }
}

// The blocked product is chosen from SSE2 on, which is part of the interface, but fills its strip
// by MOVDDUP of SSE3.
TEST(Emulated, BlockedProductsNeedMoreThanTheyAskFor) {
  const outcome o = run_on("core2duo,-ssse3,-sse3", EXAMPLES "/matrix");
  EXPECT_EQ(o.exit_status, 128 + SIGILL) << o;
}

}  // namespace
