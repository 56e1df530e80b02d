// The list of missing features: names, order, separators, and what is dropped when it grows long.
#include <gtest/gtest.h>

#include <string>

#include "startup/new_proc_init.h"
#include "support/name_of_row.h"
#include "zorvac/cpu.h"

namespace {

using namespace zorvac::startup;
using namespace zorvac::test;

struct listing {
  const char* name;
  std::uint64_t missing;
  const char* text;
};
constexpr listing listings[] = {
    {"Nothing", 0, ""},
    {"One", ZORVAC_FEATURE_AVX, "AVX"},
    {"Two", ZORVAC_FEATURE_AVX | ZORVAC_FEATURE_AVX2, "AVX and AVX2"},
    {"Three", ZORVAC_FEATURE_AVX2 | ZORVAC_FEATURE_SSE4_2 | ZORVAC_FEATURE_AVX,
     "SSE4_2, AVX and AVX2"},
    {"InBitOrder", ZORVAC_FEATURE_AVX | ZORVAC_FEATURE_F16C | ZORVAC_FEATURE_FMA,
     "F16C, AVX and FMA"},
    {"NeverDetected", ZORVAC_FEATURE_QRTNI, "QRTNI"},
    {"LastBit", std::uint64_t{1} << 39, "AVX512VBMI"},
    {"BitsFrom40AreNotExamined", ~std::uint64_t{0} << 40, ""},
    {"LowAndHighBits", std::uint64_t{1} << 40 | 2, "X87"},
    {"AllWithAName", 0xff'fdff'ffff,
     "GENERIC_X86, X87, CMOV, MMX, FXSAVE, SSE, SSE2, SSE3, SSSE3, SSE4_1, SSE4_2, MOVBE, POPCNT, "
     "PCLMULQDQ, AES, F16C, AVX, RDRND, FMA, BMI, LZCNT, HLE, RTM, AVX2, AVX512DQ, QRTNI, AVX512F, "
     "ADX, RDSEED, AVX512IFMA52, FULLY INORDER PROCESSOR, AVX512ER, AVX512PF, AVX512CD, SHA, MPX, "
     "AVX512BW, AVX512VL and AVX512VBMI"},
};
class FeatureList : public testing::TestWithParam<listing> {};
TEST_P(FeatureList, NamesWhatIsMissing) {
  feature_list list;
  EXPECT_TRUE(list_features(GetParam().missing, " and ", list));
  EXPECT_STREQ(list.c_str(), GetParam().text);
}
INSTANTIATE_TEST_SUITE_P(Masks, FeatureList, testing::ValuesIn(listings), name_of_row);

TEST(FeatureListLimits, BitWithoutANameIsRefused) {
  feature_list list;
  EXPECT_FALSE(list_features(std::uint64_t{1} << 25, " and ", list));
  feature_list after_others;
  EXPECT_FALSE(list_features(std::uint64_t{1} << 25 | 6, " and ", after_others));
}

// A catalogue may hold a separator of any length. A name is appended only while the list, the held
// name, the separator, the next name and ", " together stay below 1024 bytes.
TEST(FeatureListLimits, LongSeparatorDropsTheLastNames) {
  const std::uint64_t x87_cmov_mmx = 2 | 4 | 8;
  // "X87" + "CMOV" + separator + "MMX" + 2 = separator + 12
  const std::string fits(1011, '+'), too_long(1012, '+'), far_too_long(5000, '+');
  feature_list all, cut, truncated;
  EXPECT_TRUE(list_features(x87_cmov_mmx, fits.c_str(), all));
  EXPECT_EQ(all.c_str(), ("X87, CMOV" + fits + "MMX").substr(0, 1023));
  EXPECT_TRUE(list_features(x87_cmov_mmx, too_long.c_str(), cut));
  EXPECT_EQ(cut.c_str(), "X87" + too_long + "CMOV");
  EXPECT_TRUE(list_features(x87_cmov_mmx, far_too_long.c_str(), truncated));
  EXPECT_EQ(truncated.c_str(), ("X87" + far_too_long).substr(0, 1023));
}

}  // namespace
