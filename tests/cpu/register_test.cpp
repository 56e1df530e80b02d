// Detection on the processor at hand: the registers it preserves and the words it stores.
#include <gtest/gtest.h>

#include "core/vendor.h"
#include "cpu/cpu_feature_disp.h"
#include "support/registers.h"
#include "zorvac/cpu.h"

extern "C" void changes_two_registers();
asm(".text\n"
    "changes_two_registers:\n"
    "pcmpeqd %xmm5, %xmm5\n"
    "not %rax\n"
    "ret\n");

namespace {

using namespace zorvac::test;

TEST(Detection, PreservesEveryRegister) {
  for (auto* const routine :
       {__zorva_cpu_features_init, __zorva_cpu_features_init_x, __zorva_cpu_indicator_init})
    for (unsigned seed = 1; seed <= 4; ++seed) {
      const register_file before = filled_registers(seed);
      const register_file after = call_with_registers(routine, before);
      EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
    }
}

// The shim itself: a routine that changes registers is caught.
TEST(RegisterShim, SeesChanges) {
  const register_file before = filled_registers(1);
  const register_file after = call_with_registers(changes_two_registers, before);
  EXPECT_EQ(changed_registers(before, after), (std::vector<std::string>{"rax", "vector 5"}));
}

TEST(Detection, StoresWholeWords) {
  using namespace zorvac;
  const hardware_processor here;
  const std::uint64_t word = cpu::feature_word(here);
  const bool accepted = accepted_vendor.accepts(here.cpuid(0, 0));

  __zorva_cpu_feature_indicator = ~0ull;
  __zorva_cpu_feature_indicator_x = ~0ull;
  __zorva_cpu_features_init();
  EXPECT_EQ(__zorva_cpu_feature_indicator, accepted ? word : 1);
  EXPECT_EQ(__zorva_cpu_feature_indicator_x, accepted ? word : ~0ull);

  __zorva_cpu_feature_indicator = 0x5a5a;
  __zorva_cpu_features_init_x();
  EXPECT_EQ(__zorva_cpu_feature_indicator, 0x5a5au);
  EXPECT_EQ(__zorva_cpu_feature_indicator_x, word);
  EXPECT_NE(word & ZORVAC_FEATURE_SSE2, 0u);  // every x86-64 processor has it

  __zorva_cpu_indicator = ~0u;
  __zorva_cpu_indicator_init();
  EXPECT_EQ(__builtin_popcount(__zorva_cpu_indicator), 1);
  if (!accepted) {
    EXPECT_EQ(__zorva_cpu_indicator, 1u);
  }
}

}  // namespace
