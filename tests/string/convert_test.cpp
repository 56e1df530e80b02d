// Decimal conversions against strtoll where that can hold the value, and everywhere against
// arithmetic modulo 2^64, digit by digit.
#include <cstdint>
#include <cstdlib>

#include "string/ground.h"

namespace zorvac::test {
namespace {

// The number's digits modulo 2^64, with its sign.
std::uint64_t modulo(const std::string& digits, bool negative) {
  std::uint64_t value = 0;
  for (const char c : digits) value = value * 10 + static_cast<unsigned>(c - '0');
  return negative ? 0 - value : value;
}

class Convert : public testing::Test {
 protected:
  void SetUp() override {
    if (!host_has(level::sse4)) GTEST_SKIP() << "this processor cannot run it";
  }
  // white space, sign, digits, and what follows, before a page and behind one
  void check(const std::string& spaces, const std::string& sign, const std::string& digits,
             const std::string& rest, std::size_t gap) {
    const std::string text = spaces + sign + digits + rest;
    SCOPED_TRACE('"' + text + "\" gap " + std::to_string(gap));
    const std::uint64_t value = modulo(digits, sign == "-");
    for (const char* const s : {before_.before_page(text, gap), behind_.behind_page(text, gap)}) {
      ASSERT_EQ(zorvac_sse4_atoi(s), static_cast<int>(value));
      ASSERT_EQ(zorvac_sse4_atol(s), static_cast<long>(value));
      ASSERT_EQ(zorvac_sse4_atoll(s), static_cast<long long>(value));
      if (digits.size() <= 18) {
        ASSERT_EQ(std::strtoll(s, nullptr, 10), static_cast<long long>(value)) << "oracles differ";
      }
    }
  }
  std::string random_digits(std::size_t count) {
    std::string digits(count, '0');
    for (char& c : digits) c = static_cast<char>('0' + random_() % 10);
    return digits;
  }
  std::mt19937 random_{7};
  ground before_, behind_;
};

constexpr const char* signs[] = {"", "+", "-"};

// No type's limit matters: the values are those of the digits, modulo 2^32 or 2^64.
TEST_F(Convert, EveryDigitCountAtEveryPlace) {
  for (std::size_t count = 0; count <= 50; ++count)
    for (std::size_t gap = 0; gap < 64; ++gap)
      for (const char* const sign : signs) {
        check("", sign, random_digits(count), "", gap);
        check("", sign, random_digits(count), "x12", gap);
        check("", sign, std::string(count, '9'), "/", gap);
        check("", sign, std::string(count, '0') + "5", ":", gap);
        if (HasFatalFailure()) return;
      }
}

TEST_F(Convert, WhiteSpaceOfEveryKindAndLength) {
  for (std::size_t count = 0; count <= 50; ++count)
    for (std::size_t gap = 0; gap < 64; ++gap) {
      std::string spaces(count, ' ');
      for (char& c : spaces) c = "\t\n\v\f\r "[random_() % 6];
      check(spaces, signs[gap % 3], random_digits(1 + random_() % 20), " 1", gap);
      check(spaces, "", "", "", gap);
      if (HasFatalFailure()) return;
    }
}

// Every other byte ends the digits, and is no white space and no sign.
TEST_F(Convert, EveryOtherByteEndsTheNumber) {
  for (int c = 1; c < 256; ++c) {
    if (c >= '0' && c <= '9') continue;
    const std::string rest{static_cast<char>(c), '7'};
    check("", "", "42", rest, static_cast<std::size_t>(c) % 64);
    check("", "-", "", rest, 3);
    if (std::strchr("\t\n\v\f\r +-", c) == nullptr) check("", "", "", rest, 5);
  }
  for (const char* const text : {"+-1", "-+1", "--1", "- 1", "+ 1"}) check("", "", "", text, 0);
}

}  // namespace
}  // namespace zorvac::test
