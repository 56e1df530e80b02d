// The C++ value type's text: quads against the C library's conversions, and quads that are doubles
// against the C++ library's text of the double, with all stream flags.
#include <gtest/gtest.h>
#include <mpfr.h>

#include <charconv>
#include <iomanip>
#include <sstream>
#include <vector>

#include "quads.h"
#include "zorvac/quad.hpp"

// Not every compiler's headers declare them.
extern "C" __float128 c_library_read(const char* text, char** end) __asm__("strtof128");
extern "C" int c_library_write(char* to, std::size_t size, const char* format,
                               __float128 value) __asm__("strfromf128");

namespace zorvac::test {
namespace {

using number = zorvac::quad;
using namespace zorvac::literals;
using std::chars_format;

static_assert((-0.5_q).high_word() == 0xbffe'0000'0000'0000 && (-0.5_q).low_word() == 0);
static_assert(1'234e-4960_q > 0 && 1e4932_q < std::numeric_limits<number>::max());
static_assert(!number::parse("1e5000") && !number::parse("1x") && !number::parse("0x1"));

// ---- Reading ------------------------------------------------------------------------------------

// from_chars() must read the longest number in front, like the C library, but it stores nothing if
// that is out of range. `prefix` is what only the C library needs for a format.
void expect_reading(const std::string& text, chars_format format = chars_format::general,
                    const std::string& prefix = "") {
  SCOPED_TRACE(testing::Message() << prefix << text.substr(0, 100) << ", " << text.size()
                                  << " characters");
  char* stop;
  const std::string theirs = prefix + text;
  const word expected = bits(c_library_read(theirs.c_str(), &stop));
  number x = 1;
  const auto [end, error] = from_chars(text.data(), text.data() + text.size(), x, format);
  EXPECT_EQ(end - text.data(), std::max(stop - theirs.c_str() - std::ssize(prefix), 0L))
      << "characters read";
  EXPECT_EQ(hex(bits(x)), hex(error == std::errc() ? expected : one));
  if (error == std::errc::result_out_of_range)
    EXPECT_TRUE(magnitude(expected) == infinity || magnitude(expected) == 0) << "is in range";
  else
    EXPECT_EQ(error, stop == theirs.c_str() ? std::errc::invalid_argument : std::errc());
}

// Reads texts of random pieces.
void expect_readings(const std::vector<std::string>& pieces, chars_format format,
                     const std::string& prefix = "") {
  for (std::uint64_t seed = 0; seed < 50'000 && !testing::Test::HasFailure(); ++seed) {
    case_random random(seed);
    std::string text;
    for (auto n = random.below(6); n > 0; --n) text += pieces[random.below(pieces.size())];
    // From "0x" without a digit the C library reads the 0.
    const auto digit = text.find_first_not_of('.');
    const bool known = digit <= 1 && digit < text.size() && std::isxdigit(text[digit]) != 0;
    if (prefix.empty() || known) expect_reading(text, format, prefix);
  }
}

// Numbers as people and programs write them, and texts that only begin like a number.
TEST(QuadText, IsReadAsByTheCLibrary) {
  // Halfway between two quads: a digit far behind decides.
  const std::string tie = "10384593717069655257060992658440193";
  const std::string zeros(12'000, '0');
  const std::vector<std::string> decimal = {
      "-", "+", ".", "e",       "E+12", "e-4966",          "e4932", "e-99999999999",
      "0", "7", tie, "118.973", "inf",  tie + '.' + zeros, "INITY", "y",
  };
  expect_readings(decimal, chars_format::general);
  const std::string significand = "1ffffffffffffffffffffffffffff";
  const std::vector<std::string> hexadecimal = {
      ".",       "1",      "F",        "p+3", "p-16494",         "0001",
      "p-16500", "p16383", "80000000", "g",   significand + "8", significand + "7fff",
  };
  expect_readings(hexadecimal, chars_format::hex, "0x");
}

// The middle of two quads, exact or rounded to some digits. It is then so close to the middle that
// an inexact power of ten could give either quad. Random exponents give integers of all lengths.
TEST(QuadText, IsReadAsTheNearestQuad) {
  mpfr_t middle;
  mpfr_init2(middle, 114);
  for (std::uint64_t seed = 0; seed < 1'500 && !HasFailure(); ++seed) {
    case_random random(seed);
    const auto exponent = random.one_in(2) ? 16383 - 300 + random.below(600) : random.below(0x7ffe);
    const word significand = word{random()} << 48 | random() >> 16 | word{1} << 112;
    const std::string power = std::to_string(static_cast<long>(exponent) - 16383 - 112);
    EXPECT_EQ(mpfr_set_str(middle, (hex(significand) + ".8p" + power).c_str(), 16, MPFR_RNDN), 0);
    constexpr int lengths[] = {35, 38, 44, 89, 98, 109, 299, 11'599, 11'999};
    std::array<char, 12'100> text;
    mpfr_snprintf(text.data(), text.size(), "%.*RNe", lengths[random.below(9)], middle);
    expect_reading(text.data());
  }
  mpfr_clear(middle);
}

TEST(QuadText, IsReadInHexadecimalAtAnyLength) {
  const std::string zeros(12'000, '0');
  for (const char* last : {"", "1"})
    for (const char* tie : {"10000000000000000000000000000.8", "1.00000000000000000000000000018"})
      expect_reading(tie + zeros + last, chars_format::hex, "0x");
  expect_reading("1" + zeros + "p-48000", chars_format::hex, "0x");
  expect_reading("." + zeros + "1p+48001", chars_format::hex, "0x");
}

// The oracle is the C++ library, which reads doubles in the same formats.
TEST(QuadText, IsReadInItsFormat) {
  for (const std::string text : {"1.5e3", "1.5", "1.5e", "1.5e+", "-inf", "-1.5p1", "0x1", "1e1"})
    for (const auto format : {chars_format::fixed, chars_format::scientific, chars_format::general,
                              chars_format::hex}) {
      SCOPED_TRACE(testing::Message() << text << " in format " << static_cast<int>(format));
      number x = 1;
      double d = 1;
      const auto [end, error] = from_chars(text.data(), text.data() + text.size(), x, format);
      const auto expected = std::from_chars(text.data(), text.data() + text.size(), d, format);
      EXPECT_EQ(end - text.data(), expected.ptr - text.data()) << "characters read";
      EXPECT_EQ(error, expected.ec);
      EXPECT_EQ(hex(bits(x)), hex(bits(number(d))));
    }
}

// ---- Writing ------------------------------------------------------------------------------------

std::string written(number x, auto... format) {
  std::array<char, 30'000> text;
  const auto [end, error] = to_chars(text.data(), text.data() + text.size(), x, format...);
  EXPECT_EQ(error, std::errc());
  return {text.data(), end};
}

TEST(QuadText, IsWrittenAsByTheCLibrary) {
  std::array<char, 30'000> text;
  constexpr std::pair<char, chars_format> formats[] = {{'e', chars_format::scientific},
                                                       {'f', chars_format::fixed},
                                                       {'g', chars_format::general},
                                                       {'a', chars_format::hex}};
  for (std::uint64_t n = 0; n < 400 && !HasFailure(); ++n) {
    const word longest = (word{1} << 112) - 1;  // the quad with the most decimal digits
    const word q = n == 0 ? longest : random_operands(kind::quad, n)[0];
    if (magnitude(q) >= infinity) continue;
    SCOPED_TRACE(hex(q));
    const auto x = load<number>(&q);
    for (const auto& [letter, format_of] : formats) {
      for (const int precision : {0, 1, 2, 17, 33, 36, 41, n == 0 ? 11'600 : 50}) {
        const std::string format = "%." + std::to_string(precision) + letter;
        c_library_write(text.data(), text.size(), format.c_str(), load<__float128>(&q));
        std::string theirs = text.data();
        if (letter == 'a') theirs.erase(theirs.find("0x"), 2);
        EXPECT_EQ(written(x, format_of, precision), theirs) << format;
        if (letter == 'g') {
          EXPECT_EQ(to_string(x, precision), theirs) << format;
        }
      }
    }
  }
}

// The fewest digits, from 33 to 36, that read back, in every format.
TEST(QuadText, IsWrittenWithTheFewestDigits) {
  for (std::uint64_t n = 0; n < 3'000 && !HasFailure(); ++n) {
    word q = random_operands(kind::quad, n)[0];
    if (n % 4 == 0) q = q >> 112 << 112;  // a power of 2: the number below is nearer
    if (n % 4 == 1) {  // integers of 35 digits, with a 0 at the end half an ulp away
      case_random random(n);
      q = static_cast<word>(random()) << 48 | random() >> 16 | word{16383 + 113 + n / 4 % 4} << 112;
    }
    if (magnitude(q) >= infinity || magnitude(q) == 0) continue;
    SCOPED_TRACE(hex(q));
    const auto x = load<number>(&q);
    std::string expected;
    for (int digits = 33; digits <= 36; ++digits) {
      expected = to_string(x, digits);
      if (bits(number::parse(expected).value_or(0)) == q) break;  // the largest may round up
    }
    const auto digits_of = [](std::string s) {  // without exponent, point and zeros around
      s.resize(std::min(s.find_first_of("eE"), s.size()));
      std::erase_if(s, [](char c) { return c == '.' || c == '-'; });
      s.erase(0, s.find_first_not_of('0'));
      s.resize(s.find_last_not_of('0') + 1);
      return s;
    };
    for (const std::string& seen :
         {to_string(x), written(x, chars_format::scientific), written(x, chars_format::fixed)}) {
      EXPECT_EQ(digits_of(seen), digits_of(expected)) << seen;
      EXPECT_EQ(hex(bits(number::parse(seen).value())), hex(q)) << seen;
    }
  }
  EXPECT_EQ(written(1_q, chars_format::fixed, 25'000), "1." + std::string(25'000, '0'));
  EXPECT_EQ(to_string(100_q), "100");
  EXPECT_EQ(written(0.1_q), "0.1");
  EXPECT_EQ(written(1e36_q, chars_format::general), "1e+36");
  EXPECT_EQ(written(1_q / 3, chars_format::hex), "1.5555555555555555555555555555p-2");
  EXPECT_EQ(written(-0_q, chars_format::scientific), "-0e+00");
  EXPECT_EQ(written(0.25_q, chars_format::fixed), "0.25");
}

TEST(QuadText, IsWrittenOnlyWithinItsRange) {
  for (const auto& [x, format, precision] : {std::tuple{0.125_q, chars_format::general, 6},
                                             {1e30_q, chars_format::fixed, 0},
                                             {-1.5_q, chars_format::hex, 10},
                                             {1_q, chars_format::scientific, 20}}) {
    const std::string whole = written(x, format, precision);
    for (std::size_t room = 0; room <= whole.size(); ++room) {
      std::string text(whole.size() + 1, '#');
      const auto [end, error] = to_chars(text.data(), text.data() + room, x, format, precision);
      EXPECT_EQ(error, room < whole.size() ? std::errc::value_too_large : std::errc()) << whole;
      EXPECT_EQ(end, text.data() + room) << whole;
      EXPECT_EQ(text.substr(room), std::string(text.size() - room, '#')) << whole;
    }
  }
}

// ---- Streams ------------------------------------------------------------------------------------

// Quads that are doubles are written like the doubles, with all flags.
TEST(QuadStream, WritesLikeDoubles) {
  using std::ios_base;
  for (std::uint64_t seed = 0; seed < 30'000 && !HasFailure(); ++seed) {
    case_random random(seed);
    constexpr double endless = std::numeric_limits<double>::infinity();
    // Finite and normal: subnormal doubles are normal quads, which are other hexadecimal text.
    const double any = std::bit_cast<double>((random() & ~(1UL << 62)) | 1UL << 52);
    const double values[] = {0.0,    -0.0,    1.0 / 3, -2.5,          1e22,   any,
                             0.0001, 99994.5, 1e-300,  -std::nan(""), endless};
    const double d = values[random.below(std::size(values))];
    std::ostringstream theirs, ours;
    constexpr ios_base::fmtflags sides[] = {
        {}, ios_base::left, ios_base::right, ios_base::internal};
    constexpr auto at_random = ios_base::floatfield | ios_base::showpos | ios_base::showpoint |
                               ios_base::uppercase;  // both bits of floatfield: hexadecimal
    theirs.flags((static_cast<ios_base::fmtflags>(random() & 0xffff) & at_random) |
                 sides[random.below(4)]);
    theirs << std::setprecision(static_cast<int>(random.below(40)))
           << std::setfill("* 0"[random.below(3)])
           << std::setw(static_cast<int>(random.below(2) * random.below(60)));
    ours.copyfmt(theirs);
    // libstdc++ writes fixed infinities in lower case, where the standard requires %F.
    if (!std::isfinite(d)) ours.unsetf(ios_base::floatfield), theirs.unsetf(ios_base::floatfield);
    theirs << d << '|' << d;
    ours << number(d) << '|' << number(d);
    EXPECT_EQ(ours.str(), theirs.str()) << "seed " << seed;
    EXPECT_EQ(ours.width(), 0);
  }
}

TEST(QuadStream, ReadsTheLongestTextThatCanBeANumber) {
  using std::ios_base;
  const struct {
    const char *text, *rest;
    number value;
    ios_base::iostate state;
  } rows[] = {
      {" \n-2.5e1,7", ",7", -25, {}},
      {"+.5.", ".", 0.5_q, {}},
      {"1E+x", "x", 0, ios_base::failbit},
      {"-,", ",", 0, ios_base::failbit},
      {"", "", 7, ios_base::failbit | ios_base::eofbit},
      {"0.1", "", 0.1_q, ios_base::eofbit},
      {"-Infinity,", ",", -1 / 0_q, {}},
      {"-1e5000 ", " ", std::numeric_limits<number>::lowest(), ios_base::failbit},
      {"-1e-5000 ", " ", -0_q, ios_base::failbit},
      {"zero ", " ", 0, ios_base::failbit},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    std::istringstream in(row.text);
    number x = 7;
    in >> x;
    EXPECT_EQ(hex(bits(x)), hex(bits(row.value)));
    EXPECT_EQ(in.rdstate(), row.state);
    in.clear();
    EXPECT_EQ(std::string(std::istreambuf_iterator(in), {}), row.rest);
  }
}

// ---- std::format --------------------------------------------------------------------------------

#ifdef __cpp_lib_format
TEST(QuadFormat, WritesLikeDoubles) {
  for (const double d : {0.0, -2.5, 123456.789, 1e-7, std::numeric_limits<double>::infinity()}) {
    for (const char* format : {"{:.3f}", "{:+.10e}", "{:012.3g}", "{:*<20.4F}", "{:x^+15.2E}",
                               "{: .0f}", "{:#.0f}", "{:>9G}", "{:.5a}", "{:A}", "{:#.3g}",
                               "{:-08.1f}", "{:<012.3f}", "{:e}", "{:f}", "{:L}"}) {
      const number q = d;
      if (std::string_view(format) == "{:L}" && d != static_cast<long>(d)) continue;
      EXPECT_EQ(std::vformat(format, std::make_format_args(q)),
                std::vformat(format, std::make_format_args(d)))
          << format;
    }
  }
  const number third = 1_q / 3;
  EXPECT_EQ(std::format("{}|{:5}|{:{}.{}f}|{:{}}", third, 1_q, 2.5_q, 8, 2, 3_q, 4),
            "0.3333333333333333333333333333333333|    1|    2.50|   3");
  for (const char* wrong : {"{:d}", "{:.f}", "{:+-f}", "{:ff}", "{:99999999999}", "{:{}}"})
    EXPECT_THROW(static_cast<void>(std::vformat(wrong, std::make_format_args(third))),
                 std::format_error)
        << wrong;
}
#endif

}  // namespace
}  // namespace zorvac::test
