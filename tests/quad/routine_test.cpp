// Every routine in cases that are known to be difficult, and on random operands against its oracle.
// The C++ value type's operators are in the table of routines, too.
#include <gtest/gtest.h>

#include <algorithm>

#include "quads.h"
#include "support/name_of_row.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

// ---- Difficult cases ----------------------------------------------------------------------------

constexpr word minus(word q) { return q | sign; }
constexpr word power(int n) { return static_cast<word>(n + 16383) << 112; }  // of 2
constexpr word bit(int n) { return word{1} << n; }
constexpr word quiet_nan(word payload) { return infinity | quiet_bit | payload; }
constexpr word signalling_nan(word payload) { return infinity | payload; }

constexpr word smallest = 1, two_and_a_half = power(1) | bit(110), three = power(1) | bit(111);
constexpr word a = one + 3 * bit(55), b = one + bit(55), twice_l = power(1) + bit(57);

// Sets of rounding modes.
constexpr unsigned nearest = 1 << to_nearest, downward = 1 << down, upward = 1 << up,
                   truncating = 1 << toward_zero, any = nearest | downward | upward | truncating;
constexpr unsigned tiny = denormal | underflow | inexact;
constexpr unsigned flush_to_zero = mxcsr_bit::flush_to_zero,
                   from_zero = mxcsr_bit::denormals_are_zero;

// A case and its result, in the low bits if that is narrower. Results are derived by hand from IEEE
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
    // NaNs: the quiet one of two, else the larger, else b if a is positive.
    {"LargerOfTwo", "divq", any, {quiet_nan(5), minus(quiet_nan(9))}, {minus(quiet_nan(9))}, 0},
    {"EqualAfterPlus", "addq", any, {quiet_nan(5), minus(quiet_nan(5))}, {minus(quiet_nan(5))}, 0},
    {"NarrowIsQuieted", "qtof", any, {signalling_nan(bit(89))}, {0x7fc0'0001}, invalid},
    {"WideLongIsQuieted", "ltoq", any, {word{0x7fff} << 64 | bit(63) | 1},
     {quiet_nan(bit(49))}, invalid << x87_flags_shift},
    {"NanIsNotOrdered", "compareq", any, {one, quiet_nan(5)}, {0}, invalid},

    // Subnormal numbers. If the processor flushes results but not operands, exact operations on
    // subnormal operands raise UE and PE.
    {"SumFlushed", "addq", any, {smallest, smallest}, {2}, tiny, flush_to_zero},
    {"SumOfZeros", "addq", any, {smallest, smallest}, {2}, 0, from_zero},
    {"ProductFlushed", "mulq", any, {smallest, one}, {smallest}, tiny, flush_to_zero},
    {"QuotientFlushed", "divq", any, {smallest, one}, {smallest}, tiny, flush_to_zero},
    {"NarrowFlushed", "qtol", any, {bit(111)}, {bit(62)}, tiny, flush_to_zero},
    {"ProductOfZeros", "mulq", nearest, {smallest, smallest}, {0}, 0, from_zero},
    {"SubnormalByZero", "divq", any, {smallest, 0}, {infinity}, division_by_zero},

    // Unknown modes of rounding to integers.
    {"UnknownModeOf32", "qtoi", any, {two_and_a_half, 5}, {3}, inexact},
    {"UnknownModeOf64", "qtoj", any, {two_and_a_half, 5}, {2}, inexact},

    // Quotients halfway between integers, which random operands do not have.
    {"TieBelowOdd", "remainder", any, {power(0), power(1)}, {one}, 0},
    {"TieAboveOdd", "remainder", any, {three, power(1)}, {minus(one)}, 0},
    {"TieOfMinus", "remainder", any, {minus(three), power(1)}, {one}, 0},
    {"TieIsTruncated", "fmod", any, {minus(three), power(1)}, {minus(one)}, 0},
    {"TieOfSmallest", "remainder", any, {smallest, 2 * smallest}, {smallest}, 0},

    // Complex numbers. With A = 1 + 3/2^57 and B = 1 + 1/2^57, AB is three quarters of the way from
    // L = 1 + 4/2^57 to its neighbour H. The parts of (-A + iA)(B + iB) are -AB - AB and -AB + AB,
    // where each AB is rounded to L or H; -H - L is a tie.
    {"ProductNearest", "cmulq", nearest, {minus(a), a, b, b}, {minus(twice_l + 1), 0}, inexact},
    {"ProductDownward", "cmulq", downward, {minus(a), a, b, b},
     {minus(twice_l + 1), minus(power(-112))}, inexact},
    {"ByComplexZero", "cdivq", any, {one, one, 0, 0},
     {indefinite, indefinite}, division_by_zero | invalid},
    {"ZerosHaveUnlikeBits", "a_ceqq", any, {0, one, minus(0), one}, {0}, 0},
};
// clang-format on

TEST(DifficultCase, HasTheStatedResult) {
  for (const row& c : rows)
    for (const unsigned rounding : {to_nearest, down, up, toward_zero}) {
      if ((c.roundings >> rounding & 1) == 0) continue;
      SCOPED_TRACE(testing::Message() << c.name << ", " << c.routine << ", mode " << rounding);
      const auto r = std::ranges::find(routines, c.routine, &routine::name);
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

// If the real parts differ, the imaginary ones are not read. Here they are null.
TEST(ComplexComparison, StopsWhenDecided) {
  const word zero = 0;
  EXPECT_EXIT(_exit(__ceqq(&one, nullptr, &zero, nullptr)), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(_exit(__cneq(&one, nullptr, &zero, nullptr)), testing::ExitedWithCode(1), "");
}

// ---- Random cases -------------------------------------------------------------------------------

class Routine : public testing::TestWithParam<routine> {};
INSTANTIATE_TEST_SUITE_P(Quad, Routine, testing::ValuesIn(routines), name_of_row);

TEST_P(Routine, MatchesItsOracle) {
  const routine& r = GetParam();
  const auto count = static_cast<std::uint64_t>(random_cases(r.cases));
  const auto [first, end] = seeds_of_cases(count);
  for (std::uint64_t seed = first; seed < end; ++seed) {
    const operands in = random_operands(r.takes, seed);
    for (const unsigned rounding : {to_nearest, down, up, toward_zero}) {
      const std::string wrong = check(r, in, rounding, seed);
      if (!wrong.empty()) FAIL() << "ZORVAC_SEED=" << seed << ": " << wrong;
    }
  }
}

}  // namespace
}  // namespace zorvac::test
