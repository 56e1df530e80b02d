// Every routine against its oracle, and the C++ value type's conversions from and to text against
// the C library's. Its operators and other conversions are in the table of routines.
#include <gtest/gtest.h>

#include <cstdlib>
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

// Each case has a number, from which its operands and circumstances are drawn. A failure tells it,
// and ZORVAC_CASE in the environment tries that case alone.
TEST_P(Routine, DoesAsItsOracleDoes) {
  const routine& r = GetParam();
  const bool binary = r.takes == kind::pair;  // a million cases, with the four modes
  const char* const alone = std::getenv("ZORVAC_CASE");
  const std::uint64_t first = alone != nullptr ? std::strtoull(alone, nullptr, 10) : 0;
  const auto count = static_cast<std::uint64_t>(random_cases(binary ? 250'000 : 40'000));
  for (std::uint64_t n = first; n < (alone != nullptr ? first + 1 : count); ++n) {
    const operands in = random_operands(r.takes, n);
    for (const unsigned rounding : {to_nearest, down, up, toward_zero}) {
      const std::string wrong = check(r, in, random_circumstances(r.takes, rounding, n));
      if (!wrong.empty())
        FAIL() << wrong << "\nagain by: ZORVAC_CASE=" << n << " quad_test --gtest_filter=*Oracle*/"
               << r.name;
    }
  }
}

using number = zorvac::quad;
using namespace zorvac::literals;

static_assert((-0.5_q).high_word() == 0xbffe'0000'0000'0000 && (-0.5_q).low_word() == 0);
static_assert(!number::parse("1e5000") && !number::parse("1x") && !number::parse("0x1"));

// Reads like the C library, the longest number in front, but has no value out of range to give.
void expect_reading(const std::string& text) {
  SCOPED_TRACE(text.substr(0, 100));
  char* stop;
  const word expected = bits(c_library_read(text.c_str(), &stop));
  const bool out_of_range = magnitude(expected) == infinity || magnitude(expected) == 0;
  number x = 1;
  const auto [end, error] = from_chars(text.data(), text.data() + text.size(), x);
  EXPECT_EQ(end - text.data(), stop - text.data()) << "characters read";
  if (end == text.data()) {
    EXPECT_EQ(error, std::errc::invalid_argument);
  } else if (error != std::errc()) {
    EXPECT_EQ(error, std::errc::result_out_of_range);
    EXPECT_TRUE(out_of_range) << "a number is there to be read";
  }
  EXPECT_EQ(hex(bits(x)), hex(error == std::errc() ? expected : one));
}

TEST(DecimalText, IsCorrectlyRounded) {
  std::array<char, 12'000> text;
  for (std::uint64_t n = 0; n < 500; ++n) {
    const word longest = (word{1} << 112) - 1;  // of all numbers' decimal expansions
    const word q = n == 0 ? longest : random_operands(kind::quad, n)[0];
    if (magnitude(q) >= infinity) continue;
    SCOPED_TRACE(hex(q));
    for (const int digits : {1, 2, 17, 33, 36, n == 0 ? 11'600 : 50}) {
      const std::string format = "%." + std::to_string(digits) + 'g';
      c_library_write(text.data(), text.size(), format.c_str(), load<__float128>(&q));
      EXPECT_EQ(to_string(load<number>(&q), digits), text.data());
      expect_reading(text.data());
    }
    const std::string shortest = to_string(load<number>(&q));
    ASSERT_EQ(hex(bits(number::parse(shortest).value())), hex(q)) << shortest;
  }
}

TEST(DecimalText, IsWrittenWhereThereIsRoom) {
  std::array<char, 4> text;
  EXPECT_EQ(to_chars(text.data(), text.data() + 4, 0.125_q).ec, std::errc::value_too_large);
  EXPECT_EQ(to_chars(text.data(), text.data() + 4, 0.25_q).ec, std::errc());
}

TEST(DecimalText, GoesIntoStreamsWithTheirPrecision) {
  std::ostringstream out;
  out << 2.5_q << std::setprecision(20) << number(1) / 3 << std::numeric_limits<number>::lowest();
  EXPECT_EQ(out.str(), "2.50.33333333333333333333-1.1897314953572317651e+4932");
}

// Numbers as people and programs write them, and what only begins like one.
TEST(DecimalText, IsReadAsTheCLibraryDoes) {
  // Between two numbers, which a digit far behind decides.
  const std::string tie = "10384593717069655257060992658440193";
  const std::string zeros(12'000, '0');
  const std::string pieces[] = {
      "-", "+", ".", "e",       "E+12", "e-4966",          "e4932", "e-99999999999",
      "0", "7", tie, "118.973", "inf",  tie + '.' + zeros, "INITY", "y",
  };
  std::mt19937 random(4);
  for (int i = 0; i < 50'000 && !HasFailure(); ++i) {
    std::string text;
    for (auto n = random() % 6; n > 0; --n) text += pieces[random() % std::size(pieces)];
    expect_reading(text);
  }
}

}  // namespace
}  // namespace zorvac::test
