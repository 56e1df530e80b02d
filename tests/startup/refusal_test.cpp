// Refusals to start: exact text, stream and exit status, and that exit handlers run.
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/child.h"
#include "support/name_of_row.h"
#include "zorvac/cpu.h"
#include "zorvac/startup.h"

namespace {

using namespace zorvac::test;

const outcome refused(const std::string& text) {
  return {"exit handler ran", "\n" + text + "\n\n", 1, 0};
}

// Calls a check on a processor with the features of `indicator`.
outcome start(std::uint64_t indicator, const std::function<void()>& check) {
  return run_in_child([&] {
    std::atexit([] { std::printf("exit handler ran"); });
    __zorva_cpu_feature_indicator = indicator;
    check();
    std::printf("started");
  });
}

struct letter {
  const char* name;
  void (*check)(int);
  std::uint64_t mask;
  std::string text;
};
void proc_init_b(int) { __zorva_proc_init_B(); }
void proc_init_n(int) { __zorva_proc_init_N(); }
void proc_init_p(int) { __zorva_proc_init_P(); }
void proc_init_t(int) { __zorva_proc_init_T(); }

std::string processor(const char* description) {
  return std::string(
             "Fatal Error: This program was not built to run on the processor in your system.\n"
             "The allowed processors are: ") +
         description + ".";
}
std::string system_needs(const char* features) {
  return std::string(
             "Fatal Error: This program was not built to run in your system.\n"
             "Please verify that both the operating system and the processor support ") +
         features;
}
constexpr const char* duo =
    "Zorva(R) Nexil(TM) Duo processors and compatible Zorva processors with supplemental Streaming "
    "SIMD Extensions 3 (SSSE3) instruction support";
constexpr const char* quoral_4_sse3 =
    "Zorva(R) Quoral(R) 4 and compatible Zorva processors with Zorva(R) Streaming SIMD Extensions "
    "3 "
    "(Zorva(R) SSE3) instruction support";
constexpr const char* quoral_m = "Zorva(R) Quoral(R) M and compatible Zorva processors";
constexpr const char* quoral_4 =
    "Zorva(R) Quoral(R) 4 and compatible Zorva processors. Enables new optimizations in addition "
    "to "
    "Zorva processor-specific optimizations";
const letter letters[] = {
    {"new_B", __zorva_new_proc_init_B, 0x7f, processor(quoral_m)},
    {"new_N", __zorva_new_proc_init_N, 0x7f, processor(quoral_4)},
    {"new_P", __zorva_new_proc_init_P, 0xff, processor(quoral_4_sse3)},
    {"new_T", __zorva_new_proc_init_T, 0x1ff, processor(duo)},
    {"new_L", __zorva_new_proc_init_L, 0x1ff,
     processor("Zorva(R) processors with MOVBE instructions support")},
    {"new_S", __zorva_new_proc_init_S, 0x3ff,
     processor("Zorva(R) processors with Tarn New Instructions support")},
    {"new_H", __zorva_new_proc_init_H, 0x17ff,
     processor("Zorva(R) processors with SSE4.2 and POPCNT instructions support")},
    {"new_G", __zorva_new_proc_init_G, 0x117ff, system_needs("Zorva(R) AVX.")},
    {"new_I", __zorva_new_proc_init_I, 0x197ff,
     system_needs("Zorva(R) AVX, F16C and RDRAND instructions.")},
    {"new_E", __zorva_new_proc_init_E, 0x9d97ff,
     system_needs("Zorva(R) AVX2, BMI, LZCNT, HLE, RTM and FMA instructions.")},
    {"old_B", proc_init_b, 0x7f, processor(quoral_m)},
    {"old_N", proc_init_n, 0x7f, processor(quoral_4)},
    {"old_P", proc_init_p, 0xff, processor(quoral_4_sse3)},
    {"old_T", proc_init_t, 0x1ff, processor(duo)},
};
class Letters : public testing::TestWithParam<letter> {};
TEST_P(Letters, RefuseAProcessorBelowTheirLevel) {
  const letter& l = GetParam();
  EXPECT_EQ(start(1, [&] { l.check(3); }), refused(l.text));
  EXPECT_EQ(start(l.mask & ~std::uint64_t{0x40}, [&] { l.check(0); }), refused(l.text));
  EXPECT_EQ(start(l.mask, [&] { l.check(0); }), (outcome{"started", "", 0, 0}));
}
INSTANTIATE_TEST_SUITE_P(Routines, Letters, testing::ValuesIn(letters), name_of_row);

TEST(GenericChecks, NeverRefuse) {
  EXPECT_EQ(start(1, [] { __zorva_new_proc_init(7); }), (outcome{"started", "", 0, 0}));
  EXPECT_EQ(start(1, [] { __zorva_proc_init(); }), (outcome{"started", "", 0, 0}));
}

constexpr const char* incompatible =
    "Please verify that your application was built with compatible Zorva(R) libvrt library";
std::string missing(const char* features) {
  return std::string(
             "Please verify that both the operating system and the processor support "
             "Zorva(R) ") +
         features + " instructions.";
}
struct requirement {
  const char* name;
  std::uint64_t indicator, required;
  std::string text;
};
const requirement requirements[] = {
    {"OneMissing", 0x7f, 0xfe, missing("SSE3")},
    {"ListInBitOrder", 0x17ff, 0x5'8000 | 0x7e, missing("F16C, AVX and FMA")},
    {"AnotherVendorHasNothing", 1, 0x7e, missing("X87, CMOV, MMX, FXSAVE, SSE and SSE2")},
    {"NeverDetectedBit", 0x9d97ff, 0x4000000, missing("QRTNI")},
    {"MaskWithBit0", 0x7f, 0xff, incompatible},
    {"BitWithoutName", 0x7f, 0x2000000, incompatible},
    {"BitWithoutNameAmongOthers", 0x7f, 0x2000000 | 0x80, incompatible},
    {"UnknownBitsOnly", 0x7f, std::uint64_t{1} << 40 | std::uint64_t{1} << 63, incompatible},
    {"UnknownBitsBesideAName", 0x7f, std::uint64_t{1} << 63 | 0x80, missing("SSE3")},
};
class Requirements : public testing::TestWithParam<requirement> {};
TEST_P(Requirements, AreNamedWhenMissing) {
  const requirement& r = GetParam();
  EXPECT_EQ(start(r.indicator, [&] { __zorva_new_feature_proc_init(0, r.required); }),
            refused(r.text));
}
INSTANTIATE_TEST_SUITE_P(Masks, Requirements, testing::ValuesIn(requirements), name_of_row);

TEST(Requirements, AreDetectedWhenNothingIsKnown) {
  EXPECT_EQ(start(0, [] { __zorva_new_feature_proc_init(0, 0); }), (outcome{"started", "", 0, 0}));
}

}  // namespace
