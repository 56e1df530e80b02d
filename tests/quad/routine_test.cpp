// Every routine in cases where arithmetic is known to go wrong, and on random operands against its
// oracle. Then the C++ value type's conversions from and to text against the C library's; its
// operators and other conversions are in the table of routines.
#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "quads.h"
#include "support/name_of_row.h"
#include "zorvac/quad.h"
#include "zorvac/quad.hpp"

// Not every compiler's headers declare them.
extern "C" __float128 c_library_read(const char* text, char** end) __asm__("strtof128");
extern "C" int c_library_write(char* to, std::size_t size, const char* format,
                               __float128 value) __asm__("strfromf128");

namespace zorvac::test {
namespace {

// ---- Delicate cases -----------------------------------------------------------------------------

constexpr word minus(word q) { return q | sign; }
constexpr word power(int n) { return static_cast<word>(n + 16383) << 112; }  // of 2
constexpr word bit(int n) { return word{1} << n; }
constexpr word quiet_nan(word payload) { return infinity | quiet_bit | payload; }
constexpr word signalling_nan(word payload) { return infinity | payload; }

constexpr word smallest = 1, smallest_normal = bit(112), two_and_a_half = power(1) | bit(110);
constexpr word a = one + 3 * bit(55), b = one + bit(55), twice_l = power(1) + bit(57);

// Sets of rounding modes.
constexpr unsigned nearest = 1 << to_nearest, downward = 1 << down, upward = 1 << up,
                   truncating = 1 << toward_zero, any = nearest | downward | upward | truncating;
constexpr unsigned tiny = denormal | underflow | inexact;
constexpr unsigned flush_to_zero = mxcsr_bit::flush_to_zero,
                   from_zero = mxcsr_bit::denormals_are_zero;

// A case, with what is stored: in the low words, where that is narrower. It is worked out from IEEE
// 754-2019 and docs/quad.md.
struct row {
  const char* name;
  std::string_view routine;
  unsigned roundings;
  operands in;
  std::array<word, 2> result;
  unsigned flags;
  unsigned flush = 0;  // bits of MXCSR
};

// clang-format off
const row rows[] = {
    // NaNs: of two the quiet one, of a kind the larger, of equal ones b where a is positive.
    {"QuietOfTwo", "mulq", any, {signalling_nan(9), quiet_nan(5)}, {quiet_nan(5)}, invalid},
    {"LargerOfTwo", "divq", any, {quiet_nan(5), minus(quiet_nan(9))}, {minus(quiet_nan(9))}, 0},
    {"EqualAfterPlus", "addq", any, {quiet_nan(5), minus(quiet_nan(5))}, {minus(quiet_nan(5))}, 0},
    {"SubtractedKeepsItsSign", "subq", any, {one, quiet_nan(5)}, {quiet_nan(5)}, 0},
    {"NarrowIsQuieted", "qtof", any, {signalling_nan(bit(89))}, {0x7fc0'0001}, invalid},
    {"WideStaysSignalling", "ftoq", any, {0x7f80'0001}, {signalling_nan(bit(89))}, 0},
    {"WideLongIsQuieted", "ltoq", any, {word{0x7fff} << 64 | bit(63) | 1},
     {quiet_nan(bit(49))}, invalid << x87_flags_shift},
    {"SignallingIsUnequal", "neq", any, {signalling_nan(5), signalling_nan(5)}, {1}, 0},
    {"NanIsNotOrdered", "compareq", any, {one, quiet_nan(5)}, {0}, invalid},

    // Subnormal numbers. Where the processor flushes results but takes operands as they are, exact
    // operations on subnormal operands raise UE and PE.
    {"SumFlushed", "addq", any, {smallest, smallest}, {2}, tiny, flush_to_zero},
    {"SumOfZeros", "addq", any, {smallest, smallest}, {2}, 0, from_zero},
    {"ProductFlushed", "mulq", any, {smallest, one}, {smallest}, tiny, flush_to_zero},
    {"QuotientFlushed", "divq", any, {smallest, one}, {smallest}, tiny, flush_to_zero},
    {"NarrowFlushed", "qtol", any, {bit(111)}, {bit(62)}, tiny, flush_to_zero},
    {"ProductOfZeros", "mulq", nearest, {smallest, smallest}, {0}, 0, from_zero},
    {"SubnormalByZero", "divq", any, {smallest, 0}, {infinity}, division_by_zero},

    // Unknown modes of rounding to integers, and where their ranges end.
    {"UnknownModeOf32", "qtoi", any, {two_and_a_half, 5}, {3}, inexact},
    {"UnknownModeOf64", "qtoj", any, {two_and_a_half, 5}, {2}, inexact},
    {"WrapsAt32", "qtou", any, {power(32) + 5 * bit(112 - 32)}, {5}, 0},
    {"LeastIsRefused", "qtom", any, {minus(power(127))}, {bit(127)}, invalid},
    {"BecomesInfiniteSilently", "ntof", nearest, {~word{0}}, {0x7f80'0000}, 0},

    // Complex numbers. With A = 1 + 3/2^57 and B = 1 + 1/2^57, AB lies three quarters of the way
    // from L = 1 + 4/2^57 to its neighbour H. The parts of (-A + iA)(B + iB) are -AB - AB and
    // -AB + AB, of products that are rounded to L or H; -H - L is a tie.
    {"ProductNearest", "cmulq", nearest, {minus(a), a, b, b}, {minus(twice_l + 1), 0}, inexact},
    {"ProductDownward", "cmulq", downward, {minus(a), a, b, b},
     {minus(twice_l + 1), minus(power(-112))}, inexact},
    {"ProductUpward", "cmulq", upward, {minus(a), a, b, b}, {minus(twice_l), power(-112)}, inexact},
    {"ProductTruncated", "cmulq", truncating, {minus(a), a, b, b}, {minus(twice_l), 0}, inexact},
    {"SquaresOverflow", "cdivq", nearest, {one, 0, power(9000)}, {0, 0}, overflow | inexact},
    {"ByComplexZero", "cdivq", any, {one, one, 0, 0},
     {indefinite, indefinite}, division_by_zero | invalid},
    {"ZerosAreEqual", "ceqq", any, {0, one, minus(0), one}, {1}, 0},
    {"ZerosHaveUnlikeBits", "a_ceqq", any, {0, one, minus(0), one}, {0}, 0},
};
// clang-format on

TEST(DelicateCase, IsDoneAsStated) {
  for (const row& c : rows)
    for (const unsigned rounding : {to_nearest, down, up, toward_zero}) {
      if ((c.roundings >> rounding & 1) == 0) continue;
      SCOPED_TRACE(testing::Message() << c.name << ", " << c.routine << ", mode " << rounding);
      const auto r = std::find_if(routines.begin(), routines.end(),
                                  [&](const routine& known) { return known.name == c.routine; });
      ASSERT_NE(r, routines.end()) << "no such routine";
      std::array<word, 2> result = {};
      set({all_masked | rounding << rounding_shift | c.flush, initial.control, 0});
      r->entries[0](reinterpret_cast<unsigned char*>(result.data()),
                    reinterpret_cast<const unsigned char*>(c.in.data()));
      const registers after = current();
      set(initial);
      EXPECT_EQ(hex(result[0]), hex(c.result[0]));
      EXPECT_EQ(hex(result[1]), hex(c.result[1])) << "behind the first 16 bytes";
      EXPECT_EQ(names_of(after.mxcsr), names_of(c.flags));
      EXPECT_EQ(names_of(after.status), names_of(c.flags >> x87_flags_shift)) << "in the x87";
    }
}

// Where the real parts differ, the imaginary ones are not looked at: here they are not there.
TEST(ComplexComparison, StopsWhereItIsDecided) {
  const word zero = 0;
  EXPECT_EXIT(_exit(__ceqq(&one, nullptr, &zero, nullptr)), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(_exit(__cneq(&one, nullptr, &zero, nullptr)), testing::ExitedWithCode(1), "");
}

// ---- Random cases -------------------------------------------------------------------------------

class Routine : public testing::TestWithParam<routine> {};
INSTANTIATE_TEST_SUITE_P(Quad, Routine, testing::ValuesIn(routines), name_of_row);

TEST_P(Routine, DoesAsItsOracleDoes) {
  const routine& r = GetParam();
  const bool binary = r.takes == kind::pair;  // a million cases, with the four modes
  const auto count = static_cast<std::uint64_t>(random_cases(binary ? 250'000 : 40'000));
  const auto [first, end] = seeds_of_cases(count);
  for (std::uint64_t seed = first; seed < end; ++seed) {
    const operands in = random_operands(r.takes, seed);
    for (const unsigned rounding : {to_nearest, down, up, toward_zero}) {
      const std::string wrong = check(r, in, rounding, seed);
      if (!wrong.empty()) FAIL() << "ZORVAC_SEED=" << seed << ": " << wrong;
    }
  }
}

// ---- The C++ type's text ------------------------------------------------------------------------

using number = zorvac::quad;
using namespace zorvac::literals;

static_assert((-0.5_q).high_word() == 0xbffe'0000'0000'0000 && (-0.5_q).low_word() == 0);
static_assert(!number::parse("1e5000") && !number::parse("1x") && !number::parse("0x1"));

// Reads like the C library, the longest number in front, but has no value out of range to give.
void expect_reading(const std::string& text) {
  SCOPED_TRACE(text.substr(0, 100));
  char* stop;
  const word expected = bits(c_library_read(text.c_str(), &stop));
  number x = 1;
  const auto [end, error] = from_chars(text.data(), text.data() + text.size(), x);
  EXPECT_EQ(end - text.data(), stop - text.data()) << "characters read";
  EXPECT_EQ(hex(bits(x)), hex(error == std::errc() ? expected : one));
  if (error == std::errc::result_out_of_range)
    EXPECT_TRUE(magnitude(expected) == infinity || magnitude(expected) == 0) << "is in range";
  else
    EXPECT_EQ(error, stop == text.data() ? std::errc::invalid_argument : std::errc());
}

TEST(DecimalText, IsCorrectlyRounded) {
  std::array<char, 12'000> text;
  for (std::uint64_t n = 0; n < 500; ++n) {
    const word longest = smallest_normal - 1;  // of all numbers' decimal expansions
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

TEST(DecimalText, GoesWhereThereIsRoomAndIntoStreams) {
  std::array<char, 4> text;
  EXPECT_EQ(to_chars(text.data(), text.data() + 4, 0.125_q).ec, std::errc::value_too_large);
  EXPECT_EQ(to_chars(text.data(), text.data() + 4, 0.25_q).ec, std::errc());
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
  for (std::uint64_t seed = 0; seed < 50'000 && !HasFailure(); ++seed) {
    case_random random(seed);
    std::string text;
    for (auto n = random.below(6); n > 0; --n) text += pieces[random.below(std::size(pieces))];
    expect_reading(text);
  }
}

}  // namespace
}  // namespace zorvac::test
