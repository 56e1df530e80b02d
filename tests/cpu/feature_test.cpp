// Feature detection over made-up processors: gates, the order of the vendor and leaf tests, and a
// comparison with the model over random CPUID answers.
#include <gtest/gtest.h>

#include <random>

#include "cpu/cpu_feature_disp.h"
#include "support/campaign.h"
#include "support/fake_processor.h"
#include "support/identification_model.h"
#include "support/name_of_row.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;
using cpu::detection_mode;

constexpr vendor_rule own{"GenuineZorva"};
constexpr std::uint64_t untouched = 0xdead;
constexpr std::uint64_t all_state = 0xff;

struct words {
  std::uint64_t checked = untouched, any_vendor = untouched;
  bool operator==(const words&) const = default;
};

words detect(const fake_processor& p, detection_mode mode, const vendor_rule& rule = own) {
  words w;
  cpu::detect_features(p, mode, rule, w.checked, w.any_vendor);
  return w;
}

// A processor that reports every feature, with all register state enabled.
fake_processor everything() {
  fake_processor p;
  p.leaf(0) = vendor_leaf(7, own_vendor);
  p.leaf(1) = {.eax = 0x00000600, .ebx = ~0u, .ecx = ~0u, .edx = ~0u};
  p.leaf(7) = {.eax = ~0u, .ebx = ~0u, .ecx = ~0u, .edx = ~0u};
  p.leaf(0x80000001) = {.eax = ~0u, .ebx = ~0u, .ecx = ~0u, .edx = ~0u};
  p.xcr0 = all_state;
  return p;
}

// All the bits that detection can set, without the in-order mark.
constexpr std::uint64_t every_feature = 0xff'79ff'ffff;

TEST(Features, EveryBitAtOnce) {
  EXPECT_EQ(detect(everything(), detection_mode::vendor_checked),
            (words{every_feature, every_feature}));
}

TEST(Features, VendorAndLeafTests) {
  fake_processor foreign = everything();
  foreign.leaf(0) = vendor_leaf(7, foreign_vendor);
  EXPECT_EQ(detect(foreign, detection_mode::vendor_checked), (words{1, untouched}));
  EXPECT_EQ(detect(foreign, detection_mode::any_vendor), (words{untouched, every_feature}));
  EXPECT_EQ(detect(foreign, detection_mode::vendor_checked, vendor_rule{"any"}),
            (words{every_feature, every_feature}));

  EXPECT_EQ(detect(everything(), detection_mode::any_vendor), (words{untouched, every_feature}));

  // Without leaf 1 the vendor-checked word becomes 1 in both modes, and the other keeps its value.
  fake_processor leafless = everything();
  leafless.leaf(0).eax = 0;
  EXPECT_EQ(detect(leafless, detection_mode::vendor_checked), (words{1, untouched}));
  EXPECT_EQ(detect(leafless, detection_mode::any_vendor), (words{1, untouched}));
}

TEST(Features, LeavesBeyondTheHighestAreTrusted) {
  fake_processor p = everything();
  p.leaf(0).eax = 1;
  EXPECT_EQ(detect(p, detection_mode::vendor_checked).checked, every_feature);
}

struct gated {
  const char* name;
  std::uint32_t lost_ecx, lost_edx;  // leaf 1 bits taken away
  std::uint64_t xcr0;
  std::uint64_t lost;  // indicator bits that must go with them
};
constexpr std::uint64_t fxsave_group = 0x8'0000'7ff0;
constexpr std::uint64_t ymm_group = 0x85'8000;
constexpr std::uint64_t mpx_bit = 0x10'0000'0000;
constexpr std::uint64_t zmm_group = 0xe7'4900'0000;
constexpr gated gates[] = {
    {"NoFxsave", 0, 1 << 24, all_state, fxsave_group},
    {"NoOsxsave", 1 << 27, 0, all_state, ymm_group | mpx_bit | zmm_group},
    {"NoStateEnabled", 0, 0, 0x0, ymm_group | mpx_bit | zmm_group},
    {"SseStateOnly", 0, 0, 0x3, ymm_group | mpx_bit | zmm_group},
    {"YmmWithoutSseState", 0, 0, 0xfd, ymm_group | mpx_bit | zmm_group},
    {"YmmStateOnly", 0, 0, 0x7, mpx_bit | zmm_group},
    {"NoMpxState", 0, 0, 0xe7, mpx_bit},
    {"HalfOfMpxState", 0, 0, 0xef, mpx_bit},
    {"OtherHalfOfMpxState", 0, 0, 0xf7, mpx_bit},
    {"NoMaskState", 0, 0, 0xdf, zmm_group},
    {"NoUpperHalves", 0, 0, 0xbf, zmm_group},
    {"NoUpperRegisters", 0, 0, 0x7f, zmm_group},
};
class Gates : public testing::TestWithParam<gated> {};
TEST_P(Gates, HoldBackTheirGroup) {
  const gated& g = GetParam();
  fake_processor p = everything();
  p.leaf(1).ecx &= ~g.lost_ecx;
  p.leaf(1).edx &= ~g.lost_edx;
  p.xcr0 = g.xcr0;
  EXPECT_EQ(detect(p, detection_mode::vendor_checked).checked, every_feature & ~g.lost);
}
INSTANTIATE_TEST_SUITE_P(Processors, Gates, testing::ValuesIn(gates), name_of_row);

TEST(Features, XgetbvIsNotExecutedWithoutOsxsave) {
  fake_processor p = everything();
  p.leaf(1).ecx &= ~(1u << 27);
  detect(p, detection_mode::vendor_checked);
  EXPECT_EQ(p.xgetbv_calls, 0);
}

TEST(Features, BmiNeedsBothOfItsBits) {
  for (const std::uint32_t missing : {1u << 3, 1u << 8}) {
    fake_processor p = everything();
    p.leaf(7).ebx &= ~missing;
    EXPECT_EQ(detect(p, detection_mode::vendor_checked).checked,
              every_feature & ~std::uint64_t{0x80000});
  }
}

TEST(Features, InOrderModelsOfAnyFamily) {
  constexpr std::uint64_t in_order = std::uint64_t{1} << 31;
  struct signature {
    std::uint32_t eax;
    bool marked;
  };
  for (const signature s : {signature{0x000106c2, true},   // family 6, model 0x1c
                            signature{0x00020661, true},   // 0x26
                            signature{0x00020670, true},   // 0x27
                            signature{0x00020f60, true},   // 0x26 of family 15
                            signature{0x00020680, false},  // 0x28
                            signature{0x000006c0, false},  // 0x0c
                            signature{0x000206c0, false}}) {
    fake_processor p = everything();
    p.leaf(1).eax = s.eax;
    EXPECT_EQ(detect(p, detection_mode::vendor_checked).checked,
              every_feature | (s.marked ? in_order : 0))
        << std::hex << s.eax;
  }
}

TEST(Features, AgreeWithTheModelOnRandomProcessors) {
  std::mt19937 engine{20};
  const auto random = [&] { return static_cast<std::uint32_t>(engine()); };
  const auto mostly_set = [&] { return random() | random(); };
  for (long i = 0; i < random_cases(20000); ++i) {
    fake_processor p;
    p.leaf(0) = vendor_leaf(7, own_vendor);
    p.leaf(1) = {.eax = random(), .ebx = random(), .ecx = mostly_set(), .edx = mostly_set()};
    p.leaf(7) = {.eax = random(), .ebx = mostly_set(), .ecx = random(), .edx = random()};
    p.leaf(0x80000001) = {.eax = random(), .ebx = random(), .ecx = random(), .edx = random()};
    p.xcr0 = mostly_set() | mostly_set();
    ASSERT_EQ(detect(p, detection_mode::vendor_checked).checked, model::feature_word(p)) << i;
  }
}

}  // namespace
