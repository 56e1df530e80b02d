// The C++ value type: its operators lead to the right routines, and its decimal conversions are
// correctly rounded, by the measure of MPFR and of the C library.
#include <gtest/gtest.h>

#include <array>
#include <iomanip>
#include <sstream>

#include "operands.h"
#include "oracle.h"
#include "zorvac/quad.hpp"

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
  using oracle::operation;
  random_operands random(16);
  for (int i = 0; i < 5000; ++i) {
    const auto [a, b] = random.pair();
    const number x = of(a), y = of(b);
    const auto expected = [&, a = a, b = b](operation o) {
      return bits_of(oracle::arithmetic(o, a, b, to_nearest).value);
    };
    EXPECT_EQ(bits_in(x + y), expected(operation::add));
    EXPECT_EQ(bits_in(x - y), expected(operation::subtract));
    EXPECT_EQ(bits_in(x * y), expected(operation::multiply));
    EXPECT_EQ(bits_in(x / y), expected(operation::divide));
    EXPECT_EQ(bits_in(-x), negated(a));
    const oracle::order o = oracle::compare(a, b);
    EXPECT_EQ(x == y, o == oracle::order::equal);
    EXPECT_EQ(x != y, o != oracle::order::equal);
    EXPECT_EQ(x < y, o == oracle::order::less);
    EXPECT_EQ(x > y, o == oracle::order::greater);
    EXPECT_EQ(x <= y, o == oracle::order::less || o == oracle::order::equal);
    EXPECT_EQ(x >= y, o == oracle::order::greater || o == oracle::order::equal);
    EXPECT_EQ(image(static_cast<double>(x)), oracle::narrow(oracle::binary64, a, to_nearest).value);
    EXPECT_EQ(image(static_cast<float>(x)), oracle::narrow(oracle::binary32, a, to_nearest).value);
  }
}

template <class Integer>
void expect_round_trip() {
  using limits = std::numeric_limits<Integer>;
  for (const Integer n : {limits::min(), limits::max(), Integer{0}, Integer{1}, Integer{77}})
    EXPECT_EQ(static_cast<Integer>(number(n)), n);
}
TEST(ValueType, HoldsEveryInteger) {
  expect_round_trip<signed char>();
  expect_round_trip<short>();
  expect_round_trip<unsigned short>();
  expect_round_trip<int>();
  expect_round_trip<unsigned>();
  expect_round_trip<long>();
  expect_round_trip<unsigned long>();
  EXPECT_TRUE(static_cast<bool>(0.25_q));
}

// What is read back is what was written, at the shortest length and at any that is enough; and
// every length is correctly rounded.
void expect_text(bits q, int digits) {
  const std::string text = to_string(of(q), digits);
  ASSERT_EQ(text, oracle::to_text(q, digits)) << q;
  const auto back = number::parse(text);
  const answer expected = oracle::from_text(text);
  const bits magnitude = bits_of(expected.value << 1 >> 1);
  if (magnitude == infinity || (magnitude == zero && (expected.flags & underflow) != 0)) {
    ASSERT_FALSE(back.has_value()) << text;
  } else {
    ASSERT_TRUE(back.has_value()) << text;
    ASSERT_EQ(bits_in(*back), bits_of(expected.value)) << text;
  }
}
TEST(DecimalText, IsCorrectlyRounded) {
  random_operands random(17);
  std::vector<bits> operands = {zero,
                                negated(zero),
                                smallest,
                                smallest_normal,
                                largest,
                                one,
                                bits_of(word_of(smallest_normal) - 1),
                                power_of_two(113)};
  for (int i = 0; i < 300; ++i) operands.push_back(random());
  for (const bits q : operands) {
    if ((q.high & infinity.high) == infinity.high) continue;
    for (const int digits : {1, 2, 17, 33, 36, 50}) ASSERT_NO_FATAL_FAILURE(expect_text(q, digits));
    ASSERT_EQ(bits_in(number::parse(to_string(of(q))).value()), q);
  }
  // The longest there is, and a tie between two numbers told from what lies just above it.
  ASSERT_NO_FATAL_FAILURE(expect_text(bits_of(word_of(smallest_normal) - 1), 11'600));
  const bits beyond_tie = bits_of(word_of(power_of_two(113)) + 1);
  const std::string tie = "10384593717069655257060992658440193";
  EXPECT_EQ(bits_in(number::parse(tie).value()), power_of_two(113));
  EXPECT_EQ(bits_in(number::parse(tie + '.' + std::string(12'000, '0') + '1').value()), beyond_tie);
}

TEST(DecimalText, TakesWordsAndRejectsTheRest) {
  EXPECT_EQ(bits_in(number::parse("-Infinity").value()), negated(infinity));
  EXPECT_TRUE(isnan(number::parse("nan").value()));
  EXPECT_EQ(to_string(of(negated(infinity))), "-inf");
  for (const char* text : {"", "-", ".", "e5", "1e", "1 ", "0x1", "--1", "infinit"})
    EXPECT_FALSE(number::parse(text).has_value()) << text;
  // The longest number in front counts; a range too short is said to be so.
  number x;
  const std::string text = "1.5e+";
  const auto read = from_chars(text.data(), text.data() + text.size(), x);
  EXPECT_EQ(read.ptr - text.data(), 3);
  std::array<char, 4> room;
  EXPECT_EQ(to_chars(room.data(), room.data() + 4, 0.125_q).ec, std::errc::value_too_large);
}

// The C library's reader of binary128; not every compiler's headers declare it.
extern "C" __float128 c_library_read(const char* text, char** end) __asm__("strtof128");

bits read_by_c_library(const std::string& text, std::size_t& length) {
  char* end;
  const __float128 value = c_library_read(text.c_str(), &end);
  length = static_cast<std::size_t>(end - text.c_str());
  return bits_of(std::bit_cast<uint128>(value));
}

// Numbers as people and programs write them: signs, leading zeros, a point anywhere, exponents that
// end at either edge of the range, garbage behind.
std::string random_text(std::mt19937_64& random) {
  const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
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
  return text + std::array{"", "", "x", "e", ".", "-", "e+"}[random() % 7];
}

TEST(DecimalText, IsReadAsTheCLibraryDoes) {
  std::mt19937_64 random(18);
  int in_range = 0, out_of_range = 0;
  for (int i = 0; i < 20'000; ++i) {
    const std::string text = random_text(random);
    std::size_t length;
    const bits expected = read_by_c_library(text, length);
    const bits magnitude = bits_of(word_of(expected) << 1 >> 1);

    number x = of(one);
    const auto [end, error] = from_chars(text.data(), text.data() + text.size(), x);
    ASSERT_EQ(end - text.data(), static_cast<std::ptrdiff_t>(length)) << text;
    if (error == std::errc::result_out_of_range) {
      ++out_of_range;
      ASSERT_TRUE(magnitude == infinity || magnitude == zero) << text;
      ASSERT_EQ(bits_in(x), one) << "an error leaves the value alone";
    } else {
      ++in_range;
      ASSERT_EQ(error, std::errc()) << text;
      ASSERT_EQ(bits_in(x), expected) << text;
    }
  }
  EXPECT_GT(in_range, 10'000);
  EXPECT_GT(out_of_range, 100);
}

TEST(ValueType, KnowsItsLimits) {
  using limits = std::numeric_limits<number>;
  const auto hexadecimal = [](const char* text) {
    std::size_t length;
    return read_by_c_library(text, length);
  };
  EXPECT_EQ(bits_in(limits::max()), hexadecimal("0x1.ffffffffffffffffffffffffffffp16383"));
  EXPECT_EQ(bits_in(limits::lowest()), hexadecimal("-0x1.ffffffffffffffffffffffffffffp16383"));
  EXPECT_EQ(bits_in(limits::min()), hexadecimal("0x1p-16382"));
  EXPECT_EQ(bits_in(limits::denorm_min()), hexadecimal("0x1p-16494"));
  EXPECT_EQ(bits_in(limits::epsilon()), hexadecimal("0x1p-112"));
  EXPECT_EQ(bits_in(limits::infinity()), hexadecimal("inf"));
}

TEST(ValueType, GoesThroughAStream) {
  std::ostringstream out;
  out << 2.5_q << ' ' << number(1) / 3 << ' ' << std::setprecision(20) << number(1) / 3;
  EXPECT_EQ(out.str(), "2.5 0.333333 0.33333333333333333333");
}

}  // namespace
}  // namespace zorvac::test
