// Every routine against its oracle, and the C++ value type's conversions from and to text against
// the C library's. Its operators and other conversions are in the table of routines.
#include <gtest/gtest.h>

#include <iomanip>
#include <random>
#include <sstream>

#include "quads.h"
#include "support/campaign.h"
#include "support/name_of_row.h"
#include "zorvac/quad.hpp"

// Not every compiler's headers declare them.
extern "C" {
__float128 c_library_read(const char* text, char** end) __asm__("strtof128");
int c_library_write(char* to, std::size_t size, const char* format,
                    __float128 value) __asm__("strfromf128");
}

namespace zorvac::test {
namespace {

class Routine : public testing::TestWithParam<routine> {};
INSTANTIATE_TEST_SUITE_P(Quad, Routine, testing::ValuesIn(routines), name_of_row);

TEST_P(Routine, DoesAsItsOracleDoes) {
  const auto any = operands_for(GetParam().takes);
  const bool binary = GetParam().takes == kind::pair;  // a million cases, with the four modes
  for (long n = random_cases(binary ? 250'000 : 40'000); n > 0; --n) {
    const operands in = any();
    for (unsigned mode = 0; mode < 4; ++mode) ASSERT_EQ(check(GetParam(), mode, in), "");
  }
}

using number = zorvac::quad;
using namespace zorvac::literals;

static_assert((-0.5_q).high_word() == 0xbffe'0000'0000'0000 && (-0.5_q).low_word() == 0);
static_assert(!number::parse("1e5000") && !number::parse("1x") && !number::parse("0x1"));

// Reads like the C library, the longest number in front, but has no value out of range to give.
void expect_reading(const std::string& text) {
  char* stop;
  const word expected = bits(c_library_read(text.c_str(), &stop));
  const bool extreme = magnitude(expected) == infinity || magnitude(expected) == 0;
  number x = 1;
  const auto [end, error] = from_chars(text.data(), text.data() + text.size(), x);
  const auto reason =
      end == text.data() ? std::errc::invalid_argument : std::errc::result_out_of_range;
  EXPECT_TRUE(end == stop && (error == std::errc() ? bits(x) == expected
                                                   : error == reason && extreme && bits(x) == one))
      << text;
}

TEST(DecimalText, IsCorrectlyRounded) {
  std::array<char, 12'000> text;
  const auto any = operands_for(kind::quad);
  for (int i = 0; i < 500; ++i) {
    const word q = i == 0 ? (word{1} << 112) - 1 : any()[0];  // the longest there is
    if (magnitude(q) >= infinity) continue;
    for (const int digits : {1, 2, 17, 33, 36, i == 0 ? 11'600 : 50}) {
      const std::string format = "%." + std::to_string(digits) + 'g';
      c_library_write(text.data(), text.size(), format.c_str(), load<__float128>(&q));
      EXPECT_EQ(to_string(load<number>(&q), digits), text.data());
      expect_reading(text.data());
    }
    ASSERT_EQ(bits(number::parse(to_string(load<number>(&q))).value()), q);  // the shortest
  }
  EXPECT_EQ(to_chars(text.data(), text.data() + 4, 0.125_q).ec, std::errc::value_too_large);
  std::ostringstream out;
  out << 2.5_q << std::setprecision(20) << number(1) / 3 << std::numeric_limits<number>::lowest();
  EXPECT_EQ(out.str(), "2.50.33333333333333333333-1.1897314953572317651e+4932");
}

// Numbers as people and programs write them, and what only begins like one. The long one is a tie
// between two numbers, which a digit far behind breaks.
TEST(DecimalText, IsReadAsTheCLibraryDoes) {
  // clang-format off
  const std::string tie = "10384593717069655257060992658440193", zeros(12'000, '0'),
                    pieces[] = {"-", "+", ".", "e", "E+12", "e-4966", "e4932", "e-99999999999", "0",
                                "7", "118.973", tie, tie + '.' + zeros, "inf", "INITY", "y"};
  // clang-format on
  std::mt19937 random(4);
  for (int i = 0; i < 50'000; ++i) {
    std::string text;
    for (auto n = random() % 6; n > 0; --n) text += pieces[random() % std::size(pieces)];
    expect_reading(text);
  }
}

}  // namespace
}  // namespace zorvac::test
