// The shared library end to end on emulated processors: which programs it lets start there, which
// variants run, and that it finds out what detection, tested elsewhere, makes of the CPUID answers
// that the program itself saw.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "cpu/cpu_disp.h"
#include "cpu/cpu_feature_disp.h"
#include "cpu/fast_mem_ops.h"
#include "support/child.h"
#include "support/fake_processor.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

constexpr bool any = accepted_vendor.accepts_any();
constexpr const char* own = any ? own_vendor : ZORVAC_CPU_VENDOR;
const struct {
  std::string processor;
  std::string starts;    // the letters of the checks that let a program start
  std::string variants;  // of block copy, move and fill, and of the matrix product
  const char* vendor = own;
} processors[] = {
    {"core2duo,-ssse3", "*BNP-------", "JAJJ"},
    {"core2duo", "*BNPTL-----", "MMJJ"},
    {"core2duo,model=28", "*BNPTL-----", "MMJJ"},  // an in-order one
    {"Penryn", "*BNPTLS----", "MMJJ"},
    {"Nehalem", "*BNPTLSH---", "PPJJ"},
    {"Nehalem,family=15", "*BNPTLSH---", "PPJJ"},
    {"Nehalem,level=3", "*BNPTLSH---", "PPJJ"},  // caches by leaf 2
    {"Nehalem,level=1", "*BNPTLSH---", "PPJJ"},
    {"Nehalem,-popcnt", "*BNPTLS----", "MMJJ"},
    {"SandyBridge", "*BNPTLSHG--", "PPJJ"},
    {"IvyBridge", "*BNPTLSHGI-", "PPJJ"},
    {"Haswell", "*BNPTLSHGIE", "VPVJ"},
    {"Haswell,-avx2", "*BNPTLSHGI-", "PPJJ"},
    {"Haswell,-bmi2", "*BNPTLSHGI-", "PPJJ"},
    {"Haswell,-xsave", "*BNPTLSH---", "PPJJ"},
    {"max", "*BNPTLSHGIE", "VPVJ"},
    {"Haswell", any ? "*BNPTLSHGIE" : ".----------", any ? "VPVJ" : "AAAA", foreign_vendor},
};

TEST(Emulated, ProcessorsAreServedByTheirLevel) {
  for (const auto& row : processors) {
    SCOPED_TRACE(row.processor + " of " + row.vendor);
    const auto run = [&](const char* program) {
      const outcome o =
          run_program({EMULATE, row.processor + ",vendor=" + row.vendor, program, "150"});
      EXPECT_EQ(o.exit_status, 0) << o;
      return o.standard_output;
    };
    std::istringstream probed(run(PROBE));
    fake_processor seen;
    std::string word, findings;
    while (probed >> word >> std::hex && word == "cpuid") {
      std::uint32_t leaf = 0, subleaf = 0;
      cpuid_answer a{};
      probed >> leaf >> subleaf >> a.eax >> a.ebx >> a.ecx >> a.edx;
      seen.leaf(leaf, subleaf) = a;
    }
    probed >> seen.xcr0 >> std::ws;
    std::getline(probed, findings);

    std::uint64_t words[2] = {};
    for (const auto mode : {cpu::detection_mode::any_vendor, cpu::detection_mode::vendor_checked})
      cpu::detect_features(seen, mode, accepted_vendor, words[0], words[1]);
    cpu::cache_table caches{};
    cpu::detect_caches(seen, accepted_vendor, caches);
    std::ostringstream expected;
    expected << row.starts << row.starts.substr(0, 5) << std::hex << " 0 " << words[0] << ' '
             << words[1] << ' ' << cpu::classify(seen, accepted_vendor);
    for (const cpu::cache_record& level : caches.levels) expected << ' ' << level.size_kb;
    EXPECT_EQ(findings, expected.str());

    // The examples check their results and name the variants that ran.
    const std::string named = run(MEMORY_EXAMPLE) + run(MATRIX_EXAMPLE);
    std::string variants;
    const std::regex name("by _(zorva_fast_mem|MATMUL_r8_n_n)[a-z]*\\.([A-Z])");
    for (std::sregex_iterator i(named.begin(), named.end(), name), end; i != end; ++i)
      variants += (*i)[2];
    EXPECT_EQ(variants, row.variants) << named;
  }
}

}  // namespace
