// What a start-up check ends in: the MXCSR modes of its flags word, or a refusal with its exact
// text, stream and exit status, and with exit handlers run.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "core/mxcsr.h"
#include "startup/new_proc_init.h"
#include "startup/proc_init_utils.h"
#include "startup/vrt_msg_support.h"
#include "support/child.h"
#include "zorvac/cpu.h"
#include "zorvac/startup.h"

namespace {

using namespace zorvac;
using namespace zorvac::startup;
using namespace zorvac::test;

// ---- Modes ----

constexpr int ftz = 1, daz = 2, b17 = 4;

constexpr std::uint32_t has_daz = 0x40, has_17 = 0x20000;

// Where all that is wanted is known, it is granted unasked; one bit that is not makes the probe, and
// the probe decides on both, against what is known. A mask of zero supports nothing.
TEST(SupportedModes, AreGrantedAndTheProcessorAskedOnlyWhenItMatters) {
  for (const int known : {0, daz, b17, daz | b17})
    for (const int wanted : {0, daz, b17, daz | b17})
      for (const std::uint32_t mask : {0u, has_daz, has_17, has_daz | has_17})
        for (const int others : {0, ftz, ~(daz | b17)}) {
          int questions = 0;
          const int granted =
              supported_modes(known, wanted | others, [&] { return ++questions, mask; });
          const bool asks = (known | wanted) != known;
          const int supported =
              ((mask & has_daz) != 0 ? daz : 0) | ((mask & has_17) != 0 ? b17 : 0);
          EXPECT_EQ(granted, asks ? wanted & supported : wanted) << known << mask;
          EXPECT_EQ(questions, asks) << known << mask;
        }
}

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

// ---- Checks that are tied to a level ----

// Calls a check on a processor with the features of `indicator`.
outcome start(std::uint64_t indicator, const std::function<void()>& check) {
  return run_in_child([&] {
    std::atexit([] { std::printf("exit handler ran"); });
    __zorva_cpu_feature_indicator = indicator;
    check();
    std::printf("started");
  });
}
const outcome started{"started", "", 0, 0};
outcome refused(const std::string& text) {
  return {"exit handler ran", "\n" + text + "\n\n", 1, 0};
}

// Message 42 to 48 describes a processor, 50 to 52 what a system must support.
std::string refusal_by(int message) {
  const std::string text = vrt_msgtab[message].text;
  if (message < 50)
    return "Fatal Error: This program was not built to run on the processor in your system.\n"
           "The allowed processors are: " +
           text + ".";
  return "Fatal Error: This program was not built to run in your system.\n" + text;
}

struct letter {
  const char* name;
  void (*check)(int);
  std::uint64_t mask;
  int message;
  bool takes_flags = true;  // the older generation's are ftz and daz
};
const letter letters[] = {
    {"new_B", __zorva_new_proc_init_B, 0x7f, 44},
    {"new_N", __zorva_new_proc_init_N, 0x7f, 45},
    {"new_P", __zorva_new_proc_init_P, 0xff, 43},
    {"new_T", __zorva_new_proc_init_T, 0x1ff, 42},
    {"new_L", __zorva_new_proc_init_L, 0x1ff, 48},
    {"new_S", __zorva_new_proc_init_S, 0x3ff, 46},
    {"new_H", __zorva_new_proc_init_H, 0x17ff, 47},
    {"new_G", __zorva_new_proc_init_G, 0x117ff, 50},
    {"new_I", __zorva_new_proc_init_I, 0x197ff, 51},
    {"new_E", __zorva_new_proc_init_E, 0x9d97ff, 52},
    {"old_B", [](int) { __zorva_proc_init_B(); }, 0x7f, 44, false},
    {"old_N", [](int) { __zorva_proc_init_N(); }, 0x7f, 45, false},
    {"old_P", [](int) { __zorva_proc_init_P(); }, 0xff, 43, false},
    {"old_T", [](int) { __zorva_proc_init_T(); }, 0x1ff, 42, false},
};
TEST(Letters, RefuseAProcessorBelowTheirLevel) {
  for (const letter& l : letters) {
    SCOPED_TRACE(l.name);
    for (const std::uint64_t below : {std::uint64_t{1}, l.mask & ~std::uint64_t{0x40}})
      EXPECT_EQ(start(below, [&] { l.check(3); }), refused(refusal_by(l.message)));
    EXPECT_EQ(start(l.mask, [&] { l.check(0); }), started);
  }
}

// Every processor that runs these tests has denormals-are-zero, so accepting variants differ only
// in where their flags come from. No mode is ever cleared.
void expect_modes(const char* name, void (*check)(int), bool takes_flags) {
  for (const int flags : {0, ftz, daz, ftz | daz})
    for (const std::uint32_t before : {0x1f80u, 0xffc0u}) {
      const int set = takes_flags ? flags : ftz | daz;
      EXPECT_EQ(mxcsr_after([&] { check(flags); }, before),
                before | ((set & ftz) != 0 ? 0x8000u : 0) | ((set & daz) != 0 ? 0x40u : 0))
          << name << '(' << flags << ')';
    }
}
TEST(Letters, SetTheModesAtAndAboveTheirLevel) {
  for (const letter& l : letters)
    for (const std::uint64_t indicator : {l.mask, l.mask | 0xff}) {
      __zorva_cpu_feature_indicator = indicator;
      expect_modes(l.name, l.check, l.takes_flags);
    }
}

TEST(GenericChecks, NeverRefuse) {
  EXPECT_EQ(start(1, [] { __zorva_new_proc_init(7); }), started);
  EXPECT_EQ(start(1, [] { __zorva_proc_init(); }), started);
  __zorva_cpu_feature_indicator = 1;  // below the base set: nothing is done
  EXPECT_EQ(mxcsr_after([] { __zorva_new_proc_init(7); }), 0x1f80u);
  EXPECT_EQ(mxcsr_after([] { __zorva_proc_init(); }), 0x1f80u);
  __zorva_cpu_feature_indicator = 0x3f;
  expect_modes("new", __zorva_new_proc_init, true);
  expect_modes(
      "old", [](int) { __zorva_proc_init(); }, false);
}

// Four variants that no dispatcher selects.
#define VARIANT(id, name) extern "C" void id(int) __asm__(name);
VARIANT(new_b_j, "__zorva_new_proc_init_B.J")
VARIANT(new_n_j, "__zorva_new_proc_init_N.J")
VARIANT(old_b_j, "__zorva_proc_init_B.J")
VARIANT(old_n_j, "__zorva_proc_init_N.J")
TEST(DirectVariants, SetTheModes) {
  for (auto* variant : {new_b_j, new_n_j}) expect_modes("new J", variant, true);
  for (auto* variant : {old_b_j, old_n_j}) expect_modes("old J", variant, false);
}

// The mask of supported bits is read by the test itself.
TEST(FlushModes, AskTheProcessorAtHand) {
  alignas(16) unsigned char image[512] = {};
  asm volatile("fxsave64 %0" : "=m"(image));
  std::uint32_t mask = 0;
  std::memcpy(&mask, image + 28, sizeof mask);
  EXPECT_EQ(mxcsr_after([] { __zorva_proc_init_ftzdazule(0, 7); }),
            0x9f80 | (mask & has_daz) | (mask & has_17));
}

TEST(FeatureMask, SetsTheModesWhereAllIsPresent) {
  __zorva_cpu_feature_indicator = 0x7f;
  EXPECT_EQ(mxcsr_after([] { __zorva_new_feature_proc_init(ftz | daz, 0x7e); }), 0x9fc0u);
  EXPECT_EQ(mxcsr_after([] { __zorva_new_feature_proc_init(ftz, 0x7f); }), 0x9f80u);
  EXPECT_EQ(mxcsr_after([] { __zorva_new_feature_proc_init(0, 0x7e); }), 0x1f80u);
  __zorva_cpu_feature_indicator = 0x5f;  // without SSE there is no MXCSR to set
  EXPECT_EQ(mxcsr_after([] { __zorva_new_feature_proc_init(ftz, 0x5e); }), 0x1f80u);
}

// ---- Features that are asked for by a mask ----

constexpr struct {
  std::uint64_t missing;
  const char* text;
} listings[] = {
    {0, ""},
    {ZORVAC_FEATURE_AVX, "AVX"},
    {ZORVAC_FEATURE_AVX | ZORVAC_FEATURE_AVX2, "AVX and AVX2"},
    {ZORVAC_FEATURE_AVX | ZORVAC_FEATURE_F16C | ZORVAC_FEATURE_FMA, "F16C, AVX and FMA"},
    {~std::uint64_t{0} << 40, ""},  // bits from 40 on are not examined
    {std::uint64_t{1} << 40 | 2, "X87"},
    {0xff'fdff'ffff,  // all that have a name
     "GENERIC_X86, X87, CMOV, MMX, FXSAVE, SSE, SSE2, SSE3, SSSE3, SSE4_1, SSE4_2, MOVBE, POPCNT, "
     "PCLMULQDQ, AES, F16C, AVX, RDRND, FMA, BMI, LZCNT, HLE, RTM, AVX2, AVX512DQ, QRTNI, AVX512F, "
     "ADX, RDSEED, AVX512IFMA52, FULLY INORDER PROCESSOR, AVX512ER, AVX512PF, AVX512CD, SHA, MPX, "
     "AVX512BW, AVX512VL and AVX512VBMI"},
};
TEST(FeatureList, NamesWhatIsMissing) {
  for (const auto& l : listings) {
    feature_list list;
    EXPECT_TRUE(list_features(l.missing, " and ", list));
    EXPECT_STREQ(list.c_str(), l.text);
  }
}

// A catalogue may hold a separator of any length. A name is appended only while the list, the held
// name, the separator, the next name and ", " together stay below 1024 bytes.
TEST(FeatureList, DropsTheLastNamesAfterALongSeparator) {
  const auto listed = [](const std::string& separator) {
    feature_list list;
    EXPECT_TRUE(list_features(2 | 4 | 8, separator.c_str(), list));  // X87, CMOV, MMX
    return std::string(list.c_str());
  };
  // "X87" + "CMOV" + separator + "MMX" + 2 = separator + 12
  const std::string fits(1011, '+'), too_long(1012, '+'), far_too_long(5000, '+');
  EXPECT_EQ(listed(fits), ("X87, CMOV" + fits + "MMX").substr(0, 1023));
  EXPECT_EQ(listed(too_long), "X87" + too_long + "CMOV");
  EXPECT_EQ(listed(far_too_long), ("X87" + far_too_long).substr(0, 1023));
}

constexpr struct {
  std::uint64_t indicator, required;
  const char* missing;  // or null: the program and the library do not fit together
} requirements[] = {
    {0x7f, 0xfe, "SSE3"},
    {1, 0x7e, "X87, CMOV, MMX, FXSAVE, SSE and SSE2"},  // another vendor has nothing
    {0x9d97ff, 0x4000000, "QRTNI"},                     // is never detected
    {0x7f, 0xff, nullptr},                              // with bit 0
    {0x7f, 0x2000000, nullptr},                         // a bit without a name, alone and not
    {0x7f, 0x2000000 | 0x80, nullptr},
    {0x7f, std::uint64_t{1} << 40 | std::uint64_t{1} << 63, nullptr},  // unknown bits, and besides
    {0x7f, std::uint64_t{1} << 63 | 0x80, "SSE3"},
};
TEST(Requirements, AreNamedWhenMissing) {
  for (const auto& r : requirements) {
    const std::string text =
        r.missing == nullptr
            ? "Please verify that your application was built with compatible Zorva(R) libvrt "
              "library"
            : "Please verify that both the operating system and the processor support Zorva(R) " +
                  std::string(r.missing) + " instructions.";
    EXPECT_EQ(start(r.indicator, [&] { __zorva_new_feature_proc_init(0, r.required); }),
              refused(text))
        << std::hex << r.required;
  }
}

TEST(Requirements, AreDetectedWhenNothingIsKnown) {
  EXPECT_EQ(start(0, [] { __zorva_new_feature_proc_init(0, 0); }), started);
}

}  // namespace
