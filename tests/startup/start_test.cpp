// What a start-up check ends in: the MXCSR modes of its flags word, or a refusal with its exact
// text, stream and exit status, and with exit handlers run.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "core/mxcsr.h"
#include "startup/checks.h"
#include "startup/new_proc_init.h"
#include "startup/proc_init_utils.h"
#include "startup/vrt_msg_support.h"
#include "support/child.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac;
using namespace zorvac::startup;
using namespace zorvac::test;

constexpr int ftz = 1, daz = 2, b17 = 4;
constexpr std::uint32_t has_daz = 0x40, has_17 = 0x20000;

// Where all that is wanted is known, it is granted unasked; one bit that is not makes the probe,
// and the probe decides on both, against what is known. A mask of zero supports nothing.
TEST(SupportedModes, AreGrantedAndTheProcessorAskedOnlyWhenItMatters) {
  for (const int known : {0, daz, b17, daz | b17})
    for (const int flags : {0, ftz, daz, b17, daz | b17, ~0})
      for (const std::uint32_t mask : {0u, has_daz, has_17, has_daz | has_17}) {
        int questions = 0;
        const int granted = supported_modes(known, flags, [&] { return ++questions, mask; });
        const int wanted = flags & (daz | b17);
        const bool asks = (known | wanted) != known;
        const int supported = (mask & has_daz ? daz : 0) | (mask & has_17 ? b17 : 0);
        EXPECT_EQ(granted, asks ? wanted & supported : wanted) << known << ' ' << mask;
        EXPECT_EQ(questions, asks) << known << ' ' << mask;
      }
}

std::uint32_t mxcsr_after(const std::function<void()>& routine, std::uint32_t before) {
  const std::uint32_t saved = mxcsr::read();
  mxcsr::write(before);
  routine();
  const std::uint32_t after = mxcsr::read();
  mxcsr::write(saved);
  return after;
}

// The mask of supported bits is read by the test itself.
TEST(FlushModes, AskTheProcessorAtHand) {
  alignas(16) unsigned char image[512] = {};
  asm volatile("fxsave64 %0" : "=m"(image));
  std::uint32_t mask = 0;
  std::memcpy(&mask, image + 28, sizeof mask);
  EXPECT_EQ(mxcsr_after([] { __zorva_proc_init_ftzdazule(0, 7); }, 0x1f80),
            0x9f80 | (mask & has_daz) | (mask & has_17));
}

// Every processor that runs these tests has denormals-are-zero, so accepting variants differ only
// in where their flags come from. No mode is ever cleared.
constexpr int as_given = -1;
void expect_modes(const std::function<void(int)>& check, int flags) {
  for (const int given : {0, ftz, daz, ftz | daz})
    for (const std::uint32_t before : {0x1f80u, 0xffc0u}) {
      const int set = flags == as_given ? given : flags;
      EXPECT_EQ(mxcsr_after([&] { check(given); }, before),
                before | (set & ftz ? 0x8000u : 0) | (set & daz ? 0x40u : 0));
    }
}

// Calls a check on a processor with the features of `indicator`.
outcome start(std::uint64_t indicator, const std::function<void(int)>& check) {
  return run_in_child([&] {
    std::atexit([] { std::printf("exit handler ran"); });
    __zorva_cpu_feature_indicator = indicator;
    check(0);
    std::printf("started");
  });
}
const outcome started{"started", "", 0, 0};
outcome refused(const std::string& text) {
  return {"exit handler ran", "\n" + text + "\n\n", 1, 0};
}
// Message 42 to 48 describes a processor, 50 to 52 what a system must support.
outcome refused_by(int message) {
  const std::string fatal = "Fatal Error: This program was not built to run ";
  const std::string text = vrt_msgtab[message].text;
  return refused(fatal + (message < 50 ? "on the processor in your system.\n"
                                         "The allowed processors are: " +
                                             text + "."
                                       : "in your system.\n" + text));
}

TEST(Letters, SetTheModesOrRefuse) {
  for (const check& c : checks) {
    SCOPED_TRACE(c.name);
    const auto variant = [&](const std::string& letter) {
      return reinterpret_cast<void (*)(int)>(routine(c.name + letter));
    };
    for (const auto& [mask, letter] : c.variants)
      expect_modes(variant(letter), c.name.starts_with("__zorva_proc") ? ftz | daz : as_given);
    EXPECT_EQ(start(1, variant(".A")), c.refusal == 0 ? started : refused_by(c.refusal));
    if (c.refusal == 0) expect_modes(variant(".A"), 0);
  }
}

// ---- Features that are asked for by a mask ----

TEST(FeatureMask, SetsTheModesWhereAllIsPresent) {
  for (const std::uint64_t indicator : {0x7fu, 0x5fu}) {  // without SSE there is no MXCSR to set
    __zorva_cpu_feature_indicator = indicator;
    for (const std::uint64_t required : {indicator, indicator & ~std::uint64_t{1}})
      expect_modes([&](int flags) { __zorva_new_feature_proc_init(flags, required); },
                   indicator == 0x7f ? as_given : 0);
  }
  EXPECT_EQ(start(0, [](int flags) { __zorva_new_feature_proc_init(flags, 0); }), started);
}

// Null is for a program and a library that do not fit together.
constexpr std::uint64_t bit_63 = std::uint64_t{1} << 63;
constexpr struct {
  std::uint64_t indicator, required;
  const char* missing;
} requirements[] = {
    {0x7f, 0xfe, "SSE3"},
    {1, 0x810000, "AVX and AVX2"},
    {1, 0x58000, "F16C, AVX and FMA"},
    {0x9d97ff, 0x4000000, "QRTNI"},  // is never detected
    {0x7f, 0xff, nullptr},           // with bit 0
    {0x7f, 0x2000000, nullptr},      // a bit without a name, alone and not
    {0x7f, 0x2000080, nullptr},
    {0x7f, bit_63 | bit_63 >> 23, nullptr},  // unknown bits, and besides
    {0x7f, bit_63 | 0x80, "SSE3"},
    {1, 0xff'fdff'fffe,  // all that have a name
     "X87, CMOV, MMX, FXSAVE, SSE, SSE2, SSE3, SSSE3, SSE4_1, SSE4_2, MOVBE, POPCNT, PCLMULQDQ, "
     "AES, F16C, AVX, RDRND, FMA, BMI, LZCNT, HLE, RTM, AVX2, AVX512DQ, QRTNI, AVX512F, ADX, "
     "RDSEED, AVX512IFMA52, FULLY INORDER PROCESSOR, AVX512ER, AVX512PF, AVX512CD, SHA, MPX, "
     "AVX512BW, AVX512VL and AVX512VBMI"},
};
TEST(FeatureMask, NamesWhatIsMissing) {
  for (const auto& r : requirements) {
    std::string text = "Please verify that ";
    if (r.missing == nullptr)
      text += "your application was built with compatible Zorva(R) libvrt library";
    else
      text += std::string("both the operating system and the processor support Zorva(R) ") +
              r.missing + " instructions.";
    const auto check = [&](int flags) { __zorva_new_feature_proc_init(flags, r.required); };
    EXPECT_EQ(start(r.indicator, check), refused(text));
  }
}

// A catalogue may hold a separator of any length. A name is appended only while the list, the held
// name, the separator, the next name and ", " together stay below 1024 bytes.
TEST(FeatureMask, ListDropsItsLastNamesAfterALongSeparator) {
  // "X87" + "CMOV" + separator + "MMX" + 2 = separator + 12
  for (const std::size_t length : {1011u, 1012u, 5000u}) {
    const std::string separator(length, '+');
    feature_list list;
    EXPECT_TRUE(list_features(2 | 4 | 8, separator.c_str(), list));
    const std::string text =
        length == 1011 ? "X87, CMOV" + separator + "MMX" : "X87" + separator + "CMOV";
    EXPECT_EQ(list.c_str(), text.substr(0, 1023));
  }
}

}  // namespace
