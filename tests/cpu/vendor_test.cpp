// The vendor rule: a string of 12 characters in the order of CPUID's registers, or any.
#include "core/vendor.h"

#include <gtest/gtest.h>

#include "support/fake_processor.h"

namespace {

using namespace zorvac;
using namespace zorvac::test;

TEST(VendorRule, ComparesAllTwelveCharacters) {
  constexpr vendor_rule rule{"GenuineZorva"};
  EXPECT_TRUE(rule.accepts(vendor_leaf(0, "GenuineZorva")));
  for (std::size_t i = 0; i < 12; ++i) {
    std::string other = "GenuineZorva";
    other[i] = '?';
    EXPECT_FALSE(rule.accepts(vendor_leaf(0, other.c_str()))) << other;
  }
  EXPECT_FALSE(rule.accepts_any());
}

TEST(VendorRule, OtherVendorCanBeChosen) {
  constexpr vendor_rule rule{"OtherVendor!"};
  EXPECT_TRUE(rule.accepts(vendor_leaf(0, "OtherVendor!")));
  EXPECT_FALSE(rule.accepts(vendor_leaf(0, "GenuineZorva")));
}

TEST(VendorRule, AnyAcceptsAll) {
  constexpr vendor_rule rule{"any"};
  EXPECT_TRUE(rule.accepts_any());
  EXPECT_TRUE(rule.accepts(vendor_leaf(0, "GenuineZorva")));
  EXPECT_TRUE(rule.accepts(vendor_leaf(0, "OtherVendor!")));
}

}  // namespace
