// The vendor rule, and feature detection over made-up processors: the order of the vendor and leaf
// tests, and for all bits and gates a comparison with the model over random CPUID answers.
#include <gtest/gtest.h>

#include <random>

#include "core/vendor.h"
#include "cpu/cpu_feature_disp.h"
#include "support/campaign.h"
#include "support/fake_processor.h"
#include "support/identification_model.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;
using cpu::detection_mode;

constexpr vendor_rule own{"GenuineZorva"};
constexpr std::uint64_t untouched = 0xdead;

TEST(VendorRule, ComparesAllTwelveCharactersOrNone) {
  constexpr vendor_rule another{"OtherVendor!"}, any{"any"};
  EXPECT_TRUE(own.accepts(vendor_leaf(0, own_vendor)));
  EXPECT_TRUE(another.accepts(vendor_leaf(0, foreign_vendor)));
  EXPECT_FALSE(another.accepts(vendor_leaf(0, own_vendor)));
  EXPECT_FALSE(own.accepts_any());
  EXPECT_TRUE(any.accepts_any());
  for (std::size_t i = 0; i < 12; ++i) {
    std::string vendor = own_vendor;
    vendor[i] = '?';
    EXPECT_FALSE(own.accepts(vendor_leaf(0, vendor.c_str()))) << vendor;
    EXPECT_TRUE(any.accepts(vendor_leaf(0, vendor.c_str()))) << vendor;
  }
}

struct words {
  std::uint64_t checked = untouched, any_vendor = untouched;
  bool operator==(const words&) const = default;
};
words detect(const fake_processor& p, detection_mode mode, const vendor_rule& rule = own) {
  words w;
  cpu::detect_features(p, mode, rule, w.checked, w.any_vendor);
  return w;
}

TEST(Features, VendorAndLeafTests) {
  constexpr cpuid_answer ones{~0u, ~0u, ~0u, ~0u};
  fake_processor everything{
      .answers = {{{1, 0}, {0x00000600, ~0u, ~0u, ~0u}}, {{7, 0}, ones}, {{0x80000001, 0}, ones}},
      .xcr0 = 0xff};
  const auto by_vendor = [&](std::uint32_t maximum_leaf, const char* vendor) {
    everything.leaf(0) = vendor_leaf(maximum_leaf, vendor);
    return everything;
  };
  // All the bits that detection can set, without the in-order mark.
  constexpr std::uint64_t all = 0xff'79ff'ffff;
  constexpr auto vendor_checked = detection_mode::vendor_checked,
                 mode_any = detection_mode::any_vendor;
  EXPECT_EQ(detect(by_vendor(7, own_vendor), vendor_checked), (words{all, all}));
  EXPECT_EQ(detect(by_vendor(7, own_vendor), mode_any), (words{untouched, all}));
  EXPECT_EQ(detect(by_vendor(7, foreign_vendor), vendor_checked), (words{1, untouched}));
  EXPECT_EQ(detect(by_vendor(7, foreign_vendor), mode_any), (words{untouched, all}));
  EXPECT_EQ(detect(by_vendor(7, foreign_vendor), vendor_checked, vendor_rule{"any"}),
            (words{all, all}));
  // Leaves beyond the highest are trusted. Without leaf 1 the vendor-checked word becomes 1 in both
  // modes, and the other keeps its value.
  EXPECT_EQ(detect(by_vendor(1, own_vendor), vendor_checked), (words{all, all}));
  EXPECT_EQ(detect(by_vendor(0, own_vendor), vendor_checked), (words{1, untouched}));
  EXPECT_EQ(detect(by_vendor(0, own_vendor), mode_any), (words{1, untouched}));
}

TEST(Features, AgreeWithTheModelOnRandomProcessors) {
  std::mt19937 engine{20};
  const auto random = [&] { return static_cast<std::uint32_t>(engine()); };
  for (long i = 0; i < random_cases(50000); ++i) {
    const auto often = [&] { return i % 3 == 0 ? random() : random() | random(); };
    fake_processor p;
    p.leaf(0) = vendor_leaf(7, own_vendor);
    p.leaf(1) = {.eax = random(), .ebx = random(), .ecx = often(), .edx = often()};
    p.leaf(7) = {.eax = random(), .ebx = often(), .ecx = random(), .edx = random()};
    p.leaf(0x80000001) = {.eax = random(), .ebx = random(), .ecx = random(), .edx = random()};
    p.xcr0 = often() | often();
    ASSERT_EQ(detect(p, detection_mode::vendor_checked).checked, model::feature_word(p)) << i;
    ASSERT_EQ(p.xgetbv_calls, p.leaf(1).ecx >> 27 & 1) << "executed only where there is OSXSAVE";
  }
}

}  // namespace
