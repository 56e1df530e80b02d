// The shared library end to end on emulated processors: which programs it lets start there, what it
// finds out, and which variants run.
#include <gtest/gtest.h>

#include <csignal>
#include <regex>

#include "core/vendor.h"
#include "support/child.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

constexpr bool any = accepted_vendor.accepts_any();
const struct {
  std::string processor;
  std::string starts;    // the letters of the checks that let a program start
  std::string variants;  // of block copy, move and fill, and of the matrix product
  std::string class_;
  std::string caches = "32 4096 16384";
} processors[] = {
    {"core2duo,-ssse3", "*BNP-------", "JAJJ", "own 800"},
    {"core2duo", "*BNPTL-----", "MMJJ", "own 1000"},
    {"core2duo,model=28", "*BNPTL-----", "MMJJ", "own 1000"},  // an in-order one
    {"core2duo,family=15", "*BNPTL-----", "MMJJ", "own 800"},
    {"Penryn", "*BNPTLS----", "MMJJ", "own 2000"},
    {"Nehalem", "*BNPTLSH---", "PPJJ", "own 8000"},
    {"Nehalem,level=3", "*BNPTLSH---", "PPJJ", "own 8000", "32 2048 16384"},  // caches by leaf 2
    {"Nehalem,level=1", "*BNPTLSH---", "PPJJ", "own 8000", "0 0 0"},
    {"Nehalem,-popcnt", "*BNPTLS----", "MMJJ", "own 2000"},
    {"SandyBridge", "*BNPTLSHG--", "PPJJ", "own 20000"},
    {"IvyBridge", "*BNPTLSHGI-", "PPJJ", "own 40000"},
    {"Haswell", "*BNPTLSHGIE", "VPVJ", "own 40000"},
    {"Haswell,-bmi2", "*BNPTLSHGI-", "PPJJ", "own 40000"},
    {"Haswell,-xsave", "*BNPTLSH---", "PPJJ", "own 10000"},
    {"max", "*BNPTLSHGIE", "VPVJ", "own 800"},  // of family 15
    {"Haswell,vendor=OtherVendor!", any ? "*BNPTLSHGIE" : ".----------", any ? "VPVJ" : "AAAA",
     any ? "own 40000" : "foreign 1", any ? "32 4096 16384" : "0 0 0"},
};

outcome run_on(const std::string& processor, const char* program) {
  const std::string own = std::string(",vendor=") + (any ? "GenuineZorva" : ZORVAC_CPU_VENDOR);
  const bool foreign = processor.find("vendor=") != std::string::npos;
  return run_program({EMULATE, processor + (foreign ? "" : own), program, "150"});
}

TEST(Emulated, ProcessorsAreServedByTheirLevel) {
  for (const auto& row : processors) {
    SCOPED_TRACE(row.processor);
    const auto run = [&](const char* program) {
      const outcome o = run_on(row.processor, program);
      EXPECT_EQ(o.exit_status, 0) << o;
      return o.standard_output;
    };
    EXPECT_EQ(run(PROBE),
              row.starts + row.starts.substr(0, 5) + ' ' + row.class_ + ' ' + row.caches);

    // The examples check their results and name the variants that ran.
    const std::string named = run(MEMORY_EXAMPLE) + run(MATRIX_EXAMPLE);
    std::string variants;
    const std::regex name("by _(zorva_fast_mem|MATMUL_r8_n_n)[a-z]*\\.([A-Z])");
    for (std::sregex_iterator i(named.begin(), named.end(), name), end; i != end; ++i)
      variants += (*i)[2];
    EXPECT_EQ(variants, row.variants) << named;
  }
}

// The blocked product runs from SSE2 on, as callers know it, and fills its strip by MOVDDUP.
TEST(Emulated, BlockedProductsNeedMoreThanTheyAskFor) {
  EXPECT_EQ(run_on("core2duo,-ssse3,-sse3", MATRIX_EXAMPLE).exit_status, 128 + SIGILL);
  EXPECT_EQ(run_on("core2duo,-ssse3", MATRIX_EXAMPLE).exit_status, 0);
}

}  // namespace
