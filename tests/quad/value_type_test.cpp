// The C++ value type's conversions from and to text are correctly rounded, by the measure of the C
// library's for binary128. Its operators and other conversions are in the table of routines.
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

#include "quads.h"
#include "zorvac/quad.hpp"

// Not every compiler's headers declare them.
extern "C" {
__float128 c_library_read(const char* text, char** end) __asm__("strtof128");
int c_library_write(char* to, std::size_t size, const char* format,
                    __float128 value) __asm__("strfromf128");
}

namespace zorvac::test {
namespace {

using number = zorvac::quad;
using namespace zorvac::literals;

static_assert((-0.5_q).high_word() == 0xbffe'0000'0000'0000 && (-0.5_q).low_word() == 0);
static_assert(!number::parse("1e5000").has_value() && !number::parse("1x").has_value());

// Reads like the C library, the longest number in front, but has no value out of range to give.
// Returns whether there was one.
bool expect_reading(const std::string& text) {
  char* stop;
  const word expected = bits(c_library_read(text.c_str(), &stop));
  const bool extreme = magnitude(expected) == infinity || magnitude(expected) == 0;
  number x = 1;
  const auto [end, error] = from_chars(text.data(), text.data() + text.size(), x);
  EXPECT_EQ(end, stop) << text;
  const bool has_value = error == std::errc(), is_number = end != text.data();
  const auto reason = is_number ? std::errc::result_out_of_range : std::errc::invalid_argument;
  EXPECT_TRUE(has_value || (error == reason && extreme)) << text;
  EXPECT_EQ(bits(x), has_value ? expected : one) << text;
  return has_value;
}

TEST(DecimalText, IsCorrectlyRounded) {
  std::array<char, 12'000> text;
  const auto expect_writing = [&](word q, int digits) {
    c_library_write(text.data(), text.size(), ("%." + std::to_string(digits) + "g").c_str(),
                    load<__float128>(&q));
    EXPECT_EQ(to_string(load<number>(&q), digits), text.data());
    expect_reading(text.data());
  };
  expect_writing((word{1} << 112) - 1, 11'600);  // the longest there is
  const auto any = operands_for(kind::quad);
  for (int i = 0; i < 500; ++i) {
    const word q = any()[0];
    if (magnitude(q) >= infinity) continue;
    for (const int digits : {1, 2, 17, 33, 36, 50}) expect_writing(q, digits);
    ASSERT_EQ(bits(number::parse(to_string(load<number>(&q))).value()), q);  // the shortest
  }
  // A tie between two numbers, and what lies just above it.
  const std::string tie = "10384593717069655257060992658440193";
  EXPECT_TRUE(expect_reading(tie));
  EXPECT_TRUE(expect_reading(tie + '.' + std::string(12'000, '0') + '1'));
}

// Numbers as people and programs write them: signs, leading zeros, a point anywhere, exponents that
// end at either edge of the range, garbage behind.
TEST(DecimalText, IsReadAsTheCLibraryDoes) {
  const std::string nines(45, '9'), zeros(3000, '0');
  for (const std::string& digits : {std::string(), std::string("."), std::string("0"), "5." + zeros,
                                    '.' + zeros + "70123", "00" + nines, zeros + "118.973"})
    for (const char* sign : {"", "-", "+", "--"})
      for (const char* rest : {"", "x", "e", ".", "-", "e+"}) {
        expect_reading(sign + digits + rest);
        for (const int exponent : {0, -7, 12, 4887, 4930, 4932, 4933, -4930, -4966, -5011, -1965})
          expect_reading(sign + digits + 'e' + std::to_string(exponent) + rest);
      }
  for (const char* text : {"1E+12", "5e99999999999999999999", "5e-99999999999999999999",
                           "-Infinity", "inf", "infinit", "1 "})
    expect_reading(text);
  EXPECT_TRUE(isnan(number::parse("nan").value()));
  EXPECT_FALSE(number::parse("0x1").has_value());  // here the C library reads more
}

TEST(ValueType, IsWrittenAndKnowsItsLimits) {
  using limits = std::numeric_limits<number>;
  std::array<char, 4> room;
  EXPECT_EQ(to_chars(room.data(), room.data() + 4, 0.125_q).ec, std::errc::value_too_large);
  std::ostringstream out;
  out << 2.5_q << ' ' << number(1) / 3 << ' ' << std::setprecision(20) << number(1) / 3 << ' '
      << -limits::infinity();
  EXPECT_EQ(out.str(), "2.5 0.333333 0.33333333333333333333 -inf");
  const word limit[] = {bits(limits::max()),     bits(limits::min()),    bits(limits::denorm_min()),
                        bits(limits::epsilon()), bits(limits::lowest()), bits(limits::infinity())};
  const word expected[] = {infinity - 1,        word{1} << 112,        1,
                           word{0x3f8f} << 112, sign | (infinity - 1), infinity};
  for (std::size_t i = 0; i < std::size(limit); ++i) EXPECT_EQ(limit[i], expected[i]) << i;
}

}  // namespace
}  // namespace zorvac::test
