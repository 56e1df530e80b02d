// The C++ value type: its operators lead to the right routines, and its decimal conversions are
// correctly rounded, by the measure of the C library's for binary128.
#include <gtest/gtest.h>

#include <array>
#include <iomanip>
#include <sstream>

#include "operands.h"
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

number of(bits q) { return number::from_words(q.low, q.high); }
bits bits_in(const number& x) { return {x.low_word(), x.high_word()}; }

static_assert((0.5_q).high_word() == 0x3ffe'0000'0000'0000 && (0.5_q).low_word() == 0);
static_assert((0.1_q).high_word() == 0x3ffb'9999'9999'9999 &&
              (0.1_q).low_word() == 0x9999'9999'9999'999a);
static_assert(!number::parse("1e5000").has_value() && !number::parse("1x").has_value());

TEST(ValueType, CallsTheRightRoutines) {
  using oracle::operation, oracle::order;
  random_operands random(16);
  for (int i = 0; i < 5000; ++i) {
    const auto [a, b] = random.pair();
    const number x = of(a), y = of(b);
    const std::pair<number, operation> results[] = {{x + y, operation::add},
                                                    {x - y, operation::subtract},
                                                    {x * y, operation::multiply},
                                                    {x / y, operation::divide}};
    for (const auto& [result, o] : results)
      EXPECT_EQ(bits_in(result), bits_of(oracle::arithmetic(o, a, b, to_nearest).value));
    EXPECT_EQ(bits_in(-x), negated(a));
    const order o = oracle::compare(a, b);
    EXPECT_EQ(x == y, o == order::equal);
    EXPECT_EQ(x != y, o != order::equal);
    EXPECT_EQ(x < y, o == order::less);
    EXPECT_EQ(x > y, o == order::greater);
    EXPECT_EQ(x <= y, o == order::less || o == order::equal);
    EXPECT_EQ(x >= y, o == order::greater || o == order::equal);
    EXPECT_EQ(image(static_cast<double>(x)), oracle::narrow(oracle::binary64, a, to_nearest).value);
    EXPECT_EQ(image(static_cast<float>(x)), oracle::narrow(oracle::binary32, a, to_nearest).value);
  }
}

template <class... Integer>
void expect_round_trips() {
  const auto expect = []<class I>(I n) { EXPECT_EQ(static_cast<I>(number(n)), n); };
  (expect(std::numeric_limits<Integer>::min()), ...);
  (expect(std::numeric_limits<Integer>::max()), ...);
  (expect(Integer{77}), ...);
}
TEST(ValueType, HoldsEveryInteger) {
  expect_round_trips<signed char, short, unsigned short, int, unsigned, long, unsigned long>();
  EXPECT_TRUE(static_cast<bool>(0.25_q));
}

struct reading {
  bits value;
  std::size_t length;
};
reading read_by_c_library(const std::string& text) {
  char* end;
  const __float128 value = c_library_read(text.c_str(), &end);
  return {bits_of(std::bit_cast<uint128>(value)), static_cast<std::size_t>(end - text.c_str())};
}

// Reads like the C library, the longest number in front, but has no value out of range to give.
// Returns whether there was one.
bool expect_reading(const std::string& text) {
  const reading expected = read_by_c_library(text);
  const bits magnitude = bits_of(word_of(expected.value) << 1 >> 1);
  number x = of(one);
  const auto [end, error] = from_chars(text.data(), text.data() + text.size(), x);
  EXPECT_EQ(end - text.data(), static_cast<std::ptrdiff_t>(expected.length)) << text;
  if (error == std::errc::result_out_of_range) {
    EXPECT_TRUE(magnitude == infinity || magnitude == zero) << text;
    EXPECT_EQ(bits_in(x), one) << "an error leaves the value alone";
    return false;
  }
  EXPECT_EQ(error, std::errc()) << text;
  EXPECT_NE(magnitude, infinity) << text;
  EXPECT_EQ(bits_in(x), expected.value) << text;
  return true;
}

TEST(DecimalText, IsCorrectlyRounded) {
  const bits below_normal = bits_of(word_of(smallest_normal) - 1);
  std::vector<bits> operands(std::begin(notable_operands), std::end(notable_operands));
  operands.insert(operands.end(), {below_normal, power_of_two(113)});
  random_operands random(17);
  for (int i = 0; i < 300; ++i) operands.push_back(random());
  std::array<char, 12'000> text;
  for (const bits q : operands) {
    if ((q.high & infinity.high) == infinity.high) continue;
    for (const int digits : {1, 2, 17, 33, 36, 50, 11'600}) {  // the longest there is
      if (digits > 50 && q != below_normal) continue;
      c_library_write(text.data(), text.size(), ("%." + std::to_string(digits) + "g").c_str(),
                      std::bit_cast<__float128>(q));
      ASSERT_EQ(to_string(of(q), digits), text.data()) << q;
      expect_reading(text.data());
    }
    ASSERT_EQ(bits_in(number::parse(to_string(of(q))).value()), q);  // the shortest
  }
  // A tie between two numbers, and what lies just above it.
  const std::string tie = "10384593717069655257060992658440193";
  EXPECT_TRUE(expect_reading(tie));
  EXPECT_TRUE(expect_reading(tie + '.' + std::string(12'000, '0') + '1'));
}

TEST(DecimalText, TakesWordsAndRejectsTheRest) {
  EXPECT_EQ(bits_in(number::parse("-Infinity").value()), negated(infinity));
  EXPECT_TRUE(isnan(number::parse("nan").value()));
  EXPECT_EQ(to_string(of(negated(infinity))), "-inf");
  for (const char* text : {"", "-", ".", "e5", "1e", "1 ", "0x1", "--1", "infinit"})
    EXPECT_FALSE(number::parse(text).has_value()) << text;
  std::array<char, 4> room;
  EXPECT_EQ(to_chars(room.data(), room.data() + 4, 0.125_q).ec, std::errc::value_too_large);
}

// Numbers as people and programs write them: signs, leading zeros, a point anywhere, exponents that
// end at either edge of the range, garbage behind.
TEST(DecimalText, IsReadAsTheCLibraryDoes) {
  std::mt19937_64 random(18);
  const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
  int in_range = 0, out_of_range = 0;
  for (int n = 0; n < 20'000; ++n) {
    std::string text = std::array{"", "-", "+"}[random() % 3];
    const int digits = 1 + below(below(20) == 0 ? 3000 : 45), point = below(60);
    for (int i = 0; i < digits; ++i) {
      if (i == point) text += '.';
      text += static_cast<char>('0' + (below(4) == 0 ? 0 : below(10)));
    }
    const int exponents[] = {below(60) - 30, 4880 + below(60), -4900 - below(90),
                             -below(9900) + 4950};
    if (below(4) != 0)
      text += std::array{"e", "E"}[random() % 2] + std::to_string(exponents[below(4)]);
    text += std::array{"", "", "x", "e", ".", "-", "e+"}[random() % 7];
    ++(expect_reading(text) ? in_range : out_of_range);
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(in_range, 10'000);
  EXPECT_GT(out_of_range, 100);
}

TEST(ValueType, KnowsItsLimits) {
  using limits = std::numeric_limits<number>;
  const std::pair<number, const char*> known[] = {
      {limits::max(), "0x1.ffffffffffffffffffffffffffffp16383"},
      {limits::lowest(), "-0x1.ffffffffffffffffffffffffffffp16383"},
      {limits::min(), "0x1p-16382"},
      {limits::denorm_min(), "0x1p-16494"},
      {limits::epsilon(), "0x1p-112"},
      {limits::infinity(), "inf"}};
  for (const auto& [x, text] : known) EXPECT_EQ(bits_in(x), read_by_c_library(text).value) << text;
}

TEST(ValueType, GoesThroughAStream) {
  std::ostringstream out;
  out << 2.5_q << ' ' << number(1) / 3 << ' ' << std::setprecision(20) << number(1) / 3;
  EXPECT_EQ(out.str(), "2.5 0.333333 0.33333333333333333333");
}

}  // namespace
}  // namespace zorvac::test
