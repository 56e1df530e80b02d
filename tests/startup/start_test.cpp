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
#include "support/name_of_row.h"
#include "zorvac/cpu.h"
#include "zorvac/startup.h"

namespace {

using namespace zorvac;
using namespace zorvac::startup;
using namespace zorvac::test;

// ---- Modes ----

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
TEST(SupportedModes, AreGrantedAndTheProcessorAskedOnlyWhenItMatters) {
  for (const decision& d : decisions) {
    int questions = 0;
    const auto ask = [&] { return ++questions, d.mask; };
    EXPECT_EQ(supported_modes(d.known, d.flags, ask), d.granted) << d.name;
    EXPECT_EQ(questions, d.asked ? 1 : 0) << d.name;
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
class Letters : public testing::TestWithParam<letter> {};
TEST_P(Letters, RefuseAProcessorBelowTheirLevel) {
  const letter& l = GetParam();
  EXPECT_EQ(start(1, [&] { l.check(3); }), refused(refusal_by(l.message)));
  EXPECT_EQ(start(l.mask & ~std::uint64_t{0x40}, [&] { l.check(0); }),
            refused(refusal_by(l.message)));
  EXPECT_EQ(start(l.mask, [&] { l.check(0); }), started);
}
INSTANTIATE_TEST_SUITE_P(Routines, Letters, testing::ValuesIn(letters), name_of_row);

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
TEST_P(Letters, SetTheModesAtAndAboveTheirLevel) {
  const letter& l = GetParam();
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

struct listing {
  const char* name;
  std::uint64_t missing;
  const char* text;
};
constexpr listing listings[] = {
    {"Nothing", 0, ""},
    {"One", ZORVAC_FEATURE_AVX, "AVX"},
    {"Two", ZORVAC_FEATURE_AVX | ZORVAC_FEATURE_AVX2, "AVX and AVX2"},
    {"InBitOrder", ZORVAC_FEATURE_AVX | ZORVAC_FEATURE_F16C | ZORVAC_FEATURE_FMA,
     "F16C, AVX and FMA"},
    {"BitsFrom40AreNotExamined", ~std::uint64_t{0} << 40, ""},
    {"LowAndHighBits", std::uint64_t{1} << 40 | 2, "X87"},
    {"AllWithAName", 0xff'fdff'ffff,
     "GENERIC_X86, X87, CMOV, MMX, FXSAVE, SSE, SSE2, SSE3, SSSE3, SSE4_1, SSE4_2, MOVBE, POPCNT, "
     "PCLMULQDQ, AES, F16C, AVX, RDRND, FMA, BMI, LZCNT, HLE, RTM, AVX2, AVX512DQ, QRTNI, AVX512F, "
     "ADX, RDSEED, AVX512IFMA52, FULLY INORDER PROCESSOR, AVX512ER, AVX512PF, AVX512CD, SHA, MPX, "
     "AVX512BW, AVX512VL and AVX512VBMI"},
};
TEST(FeatureList, NamesWhatIsMissing) {
  for (const listing& l : listings) {
    feature_list list;
    EXPECT_TRUE(list_features(l.missing, " and ", list));
    EXPECT_STREQ(list.c_str(), l.text) << l.name;
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

struct requirement {
  const char* name;
  std::uint64_t indicator, required;
  const char* missing;  // or null: the program and the library do not fit together
};
constexpr requirement requirements[] = {
    {"OneMissing", 0x7f, 0xfe, "SSE3"},
    {"AnotherVendorHasNothing", 1, 0x7e, "X87, CMOV, MMX, FXSAVE, SSE and SSE2"},
    {"NeverDetectedBit", 0x9d97ff, 0x4000000, "QRTNI"},
    {"MaskWithBit0", 0x7f, 0xff, nullptr},
    {"BitWithoutName", 0x7f, 0x2000000, nullptr},
    {"BitWithoutNameAmongOthers", 0x7f, 0x2000000 | 0x80, nullptr},
    {"UnknownBitsOnly", 0x7f, std::uint64_t{1} << 40 | std::uint64_t{1} << 63, nullptr},
    {"UnknownBitsBesideAName", 0x7f, std::uint64_t{1} << 63 | 0x80, "SSE3"},
};
TEST(Requirements, AreNamedWhenMissing) {
  for (const requirement& r : requirements) {
    const std::string text =
        r.missing == nullptr
            ? "Please verify that your application was built with compatible Zorva(R) libvrt "
              "library"
            : "Please verify that both the operating system and the processor support Zorva(R) " +
                  std::string(r.missing) + " instructions.";
    EXPECT_EQ(start(r.indicator, [&] { __zorva_new_feature_proc_init(0, r.required); }),
              refused(text))
        << r.name;
  }
}

TEST(Requirements, AreDetectedWhenNothingIsKnown) {
  EXPECT_EQ(start(0, [] { __zorva_new_feature_proc_init(0, 0); }), started);
}

}  // namespace
