// The flush modes: which MXCSR bits each accepting variant sets, and when the processor is asked.
#include <gtest/gtest.h>

#include <cstring>

#include "core/mxcsr.h"
#include "startup/proc_init_utils.h"
#include "support/name_of_row.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

constexpr int ftz = 1, daz = 2, b17 = 4;

struct decision {
  const char* name;
  int known, flags;
  std::uint32_t mask;  // of supported MXCSR bits
  int granted;
  bool asked;
};
constexpr std::uint32_t has_daz = 0x40, has_17 = 0x20000;
constexpr decision decisions[] = {
    {"NothingWanted", 0, 0, 0, 0, false},
    {"FlushToZeroNeedsNoProbe", 0, ftz, 0, 0, false},
    {"DazKnown", daz, daz, 0, daz, false},
    {"DazSupported", 0, daz, has_daz, daz, true},
    {"DazUnsupported", 0, daz, has_17, 0, true},
    {"MaskOfZeroSupportsNothing", 0, daz | b17, 0, 0, true},
    {"Bit17Known", daz | b17, b17, 0, b17, false},
    {"Bit17Supported", 0, b17, has_17, b17, true},
    {"Bit17Unsupported", daz, b17, has_daz, 0, true},
    {"BothKnown", daz | b17, ftz | daz | b17, 0, daz | b17, false},
    {"BothSupported", 0, daz | b17, has_daz | has_17, daz | b17, true},
    // One that is not known makes the probe, and the probe decides on both.
    {"ProbeOverridesWhatIsKnown", daz, daz | b17, has_17, b17, true},
    {"OtherFlagsAreIgnored", 0, ~7, 0, 0, false},
};
class SupportedModes : public testing::TestWithParam<decision> {};
TEST_P(SupportedModes, AreGrantedAndTheProcessorAskedOnlyWhenItMatters) {
  const decision& d = GetParam();
  int questions = 0;
  const int granted = startup::supported_modes(d.known, d.flags, [&] {
    ++questions;
    return d.mask;
  });
  EXPECT_EQ(granted, d.granted);
  EXPECT_EQ(questions, d.asked ? 1 : 0);
}
INSTANTIATE_TEST_SUITE_P(Decisions, SupportedModes, testing::ValuesIn(decisions), name_of_row);

// MXCSR as a routine leaves it, from the value at program start or another.
template <class Routine>
std::uint32_t mxcsr_after(Routine routine, std::uint32_t before = 0x1f80) {
  const std::uint32_t saved = mxcsr::read();
  mxcsr::write(before);
  routine();
  const std::uint32_t after = mxcsr::read();
  mxcsr::write(saved);
  return after;
}

#define VARIANT(id, name) extern "C" void id(int) __asm__(name);
VARIANT(new_h, "__zorva_new_proc_init.H")
VARIANT(new_b_l, "__zorva_new_proc_init_B.L")
VARIANT(new_b_k, "__zorva_new_proc_init_B.K")
VARIANT(new_b_j, "__zorva_new_proc_init_B.J")
VARIANT(new_n_l, "__zorva_new_proc_init_N.L")
VARIANT(new_n_k, "__zorva_new_proc_init_N.K")
VARIANT(new_n_j, "__zorva_new_proc_init_N.J")
VARIANT(new_p_l, "__zorva_new_proc_init_P.L")
VARIANT(new_t_m, "__zorva_new_proc_init_T.M")
VARIANT(new_l_o, "__zorva_new_proc_init_L.O")
VARIANT(new_s_n, "__zorva_new_proc_init_S.N")
VARIANT(new_h_p, "__zorva_new_proc_init_H.P")
VARIANT(new_g_r, "__zorva_new_proc_init_G.R")
VARIANT(new_i_s, "__zorva_new_proc_init_I.S")
VARIANT(new_e_v, "__zorva_new_proc_init_E.V")
VARIANT(old_h, "__zorva_proc_init.H")
VARIANT(old_b_l, "__zorva_proc_init_B.L")
VARIANT(old_b_k, "__zorva_proc_init_B.K")
VARIANT(old_b_j, "__zorva_proc_init_B.J")
VARIANT(old_n_l, "__zorva_proc_init_N.L")
VARIANT(old_n_k, "__zorva_proc_init_N.K")
VARIANT(old_n_j, "__zorva_proc_init_N.J")
VARIANT(old_p_l, "__zorva_proc_init_P.L")
VARIANT(old_t_m, "__zorva_proc_init_T.M")
VARIANT(new_a, "__zorva_new_proc_init.A")
VARIANT(old_a, "__zorva_proc_init.A")

// Every processor that runs these tests has denormals-are-zero, so the accepting variants differ
// only in where their flags come from.
TEST(AcceptingVariants, SetTheModesOfTheirFlags) {
  for (auto* variant : {new_h, new_b_l, new_b_k, new_b_j, new_n_l, new_n_k, new_n_j, new_p_l,
                        new_t_m, new_l_o, new_s_n, new_h_p, new_g_r, new_i_s, new_e_v}) {
    EXPECT_EQ(mxcsr_after([=] { variant(0); }), 0x1f80u);
    EXPECT_EQ(mxcsr_after([=] { variant(ftz); }), 0x9f80u);
    EXPECT_EQ(mxcsr_after([=] { variant(daz); }), 0x1fc0u);
    EXPECT_EQ(mxcsr_after([=] { variant(ftz | daz); }), 0x9fc0u);
    EXPECT_EQ(mxcsr_after([=] { variant(0); }, 0xffc0), 0xffc0u);  // nothing is cleared
  }
  for (auto* variant :
       {old_h, old_b_l, old_b_k, old_b_j, old_n_l, old_n_k, old_n_j, old_p_l, old_t_m})
    EXPECT_EQ(mxcsr_after([=] { variant(0); }), 0x9fc0u);
  for (auto* variant : {new_a, old_a})  // below the base set: nothing is done
    EXPECT_EQ(mxcsr_after([=] { variant(7); }), 0x1f80u);
}

// The mask of supported bits, read by the test itself.
std::uint32_t supported_by_this_processor() {
  alignas(16) unsigned char image[512] = {};
  asm volatile("fxsave64 %0" : "=m"(image));
  std::uint32_t mask = 0;
  std::memcpy(&mask, image + 28, sizeof mask);
  return mask;
}

TEST(FlushModes, AskTheProcessorAtHand) {
  const std::uint32_t mask = supported_by_this_processor();
  const std::uint32_t expected = 0x9f80 | (mask & has_daz) | (mask & has_17);
  EXPECT_EQ(mxcsr_after([] { __zorva_proc_init_ftzdazule(0, 7); }), expected);
  EXPECT_EQ(mxcsr_after([] { new_b_j(7); }), expected);
}

TEST(FeatureMask, SetsTheModesWhereAllIsPresent) {
  const std::uint64_t saved = __zorva_cpu_feature_indicator;
  __zorva_cpu_feature_indicator = 0x7f;
  EXPECT_EQ(mxcsr_after([] { __zorva_new_feature_proc_init(ftz | daz, 0x7e); }), 0x9fc0u);
  EXPECT_EQ(mxcsr_after([] { __zorva_new_feature_proc_init(ftz, 0x7f); }), 0x9f80u);
  EXPECT_EQ(mxcsr_after([] { __zorva_new_feature_proc_init(0, 0x7e); }), 0x1f80u);
  __zorva_cpu_feature_indicator = 0x5f;  // without SSE there is no MXCSR to set
  EXPECT_EQ(mxcsr_after([] { __zorva_new_feature_proc_init(ftz, 0x5e); }), 0x1f80u);
  __zorva_cpu_feature_indicator = saved;
}

}  // namespace
