// Cases in which arithmetic and conversions are known to go wrong, by name. What is expected is
// worked out from IEEE 754-2019 and docs/quad.md. Every case is tried in all circumstances.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <vector>

#include "quads.h"
#include "support/name_of_row.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

// The integers of numbers with the same sign are in the order of their values.
constexpr word next(word q) { return q + 1; }
constexpr word before(word q) { return q - 1; }
constexpr word minus(word q) { return q | sign; }
constexpr word power(int n) { return static_cast<word>(n + 16383) << 112; }  // of 2
constexpr word bit(int n) { return word{1} << n; }
constexpr word quiet_nan(word payload) { return infinity | quiet_bit | payload; }
constexpr word signalling_nan(word payload) { return infinity | payload; }
word quad(double value) { return bits(static_cast<__float128>(value)); }

constexpr word zero = 0;
constexpr word smallest = 1;  // subnormal
constexpr word smallest_normal = power(-16382), largest = before(infinity);
constexpr word one_and_half = one | quiet_bit, three = power(1) | quiet_bit;
constexpr word a_third = word{0x3ffd'5555'5555'5555} << 64 | 0x5555'5555'5555'5555;
constexpr word twice(word q) { return q + bit(112); }
constexpr word a = one + 3 * bit(55), b = one + bit(55), l = one + 4 * bit(55), h = next(l);
constexpr word half_ulp_of_one = power(-113), half_ulp_of_largest = power(16383 - 113);

constexpr unsigned nearest = 1 << to_nearest, downward = 1 << down, upward = 1 << up,
                   truncating = 1 << toward_zero, inward = downward | truncating,
                   any = nearest | upward | inward;

constexpr unsigned overflows = overflow | inexact, underflows = underflow | inexact;

// What a routine stores.
struct stored {
  template <class T>
  stored(const T& value) : size(size_of<T>) {  // NOLINT: implicit, so that rows are values
    store(memory, value);
  }
  unsigned char memory[32] = {};
  std::size_t size;
};
using complex = std::array<word, 2>;

struct row {
  const char* name;
  const char* routine;
  unsigned roundings;
  operands in;
  stored result;
  unsigned flags;
};

std::ostream& operator<<(std::ostream& out, const row& c) { return out << c.routine; }

// clang-format off
const row rows[] = {
    // Sums: ties, bits far below, carries.
    {"TieStaysAtEven", "addq", nearest, {one, half_ulp_of_one}, one, inexact},
    {"TieLeavesOdd", "addq", nearest, {next(one), half_ulp_of_one}, next(next(one)), inexact},
    {"AboveTie", "addq", nearest, {one, next(half_ulp_of_one)}, next(one), inexact},
    {"DistantBitIsLost", "addq", nearest | inward, {one, smallest_normal}, one, inexact},
    {"DistantBitCounts", "addq", upward, {one, smallest_normal}, next(one), inexact},
    {"DistantBitIsTaken", "subq", inward, {one, smallest_normal}, before(one), inexact},
    {"TieCarries", "addq", nearest, {before(power(1)), half_ulp_of_one}, power(1), inexact},

    // Cancellation, to a last bit and to zero.
    {"LastBitIsLeft", "subq", any, {next(one), one}, power(-112), 0},
    {"NothingIsLeft", "subq", nearest | upward | truncating, {one, one}, zero, 0},
    {"NothingIsLeftDownward", "subq", downward, {one, one}, minus(zero), 0},
    {"UnlikeZeros", "addq", nearest | upward | truncating, {minus(zero), zero}, zero, 0},

    // The border of the subnormal numbers. A sum there is exact.
    {"FallsBelow", "subq", any, {next(smallest_normal), smallest_normal}, smallest, 0},
    {"RisesAbove", "addq", any, {before(smallest_normal), smallest}, smallest_normal, denormal},

    // Overflow.
    {"SumOverflows", "addq", nearest | upward, {largest, largest}, infinity, overflows},
    {"SumStops", "addq", inward, {largest, largest}, largest, overflows},
    {"MinusStops", "subq", upward | truncating, {minus(largest), largest},
     minus(largest), overflows},
    {"TieOverflows", "addq", nearest, {largest, half_ulp_of_largest}, infinity, overflows},
    {"ProductOverflows", "mulq", nearest | upward, {largest, next(one)}, infinity, overflows},
    {"PowersOverflow", "divq", inward, {power(16383), power(-1)}, largest, overflows},

    // Infinities.
    {"InfinityMinusItself", "subq", any, {infinity, infinity}, indefinite, invalid},
    {"InfinitiesMeet", "addq", any, {minus(infinity), infinity}, indefinite, invalid},
    {"ZeroTimesInfinity", "mulq", any, {minus(zero), infinity}, indefinite, invalid},
    {"ZeroByZero", "divq", any, {zero, minus(zero)}, indefinite, invalid},
    {"InfinityByInfinity", "divq", any, {infinity, infinity}, indefinite, invalid},
    {"OneByZero", "divq", any, {one, minus(zero)}, minus(infinity), division_by_zero},
    {"SubnormalByZero", "divq", any, {smallest, zero}, infinity, division_by_zero},

    // NaNs: of two the quiet one, of a kind the larger, of equal ones b where a is positive.
    {"PayloadIsKept", "addq", any, {minus(quiet_nan(5)), one}, minus(quiet_nan(5)), 0},
    {"SubtractedNanKeepsItsSign", "subq", any, {one, quiet_nan(5)}, quiet_nan(5), 0},
    {"SignallingIsQuieted", "divq", any, {one, minus(signalling_nan(5))},
     minus(quiet_nan(5)), invalid},
    {"QuietOfTwo", "mulq", any, {signalling_nan(9), quiet_nan(5)}, quiet_nan(5), invalid},
    {"LargerOfTwo", "divq", any, {quiet_nan(5), minus(quiet_nan(9))}, minus(quiet_nan(9)), 0},
    {"EqualAfterMinus", "addq", any, {minus(quiet_nan(5)), quiet_nan(5)}, minus(quiet_nan(5)), 0},
    {"NegatedStaysSignalling", "negq", any, {signalling_nan(5)}, minus(signalling_nan(5)), 0},

    // Products and quotients. (1 + u) 3/2 is a tie, u the last place of 1.
    {"ProductTieLeavesOdd", "mulq", nearest, {next(one), one_and_half}, one_and_half + 2, inexact},
    {"ProductTieStaysAtEven", "mulq", nearest, {one + 3, one_and_half}, one_and_half + 4, inexact},
    {"Third", "divq", nearest | inward, {one, three}, a_third, inexact},

    // Tininess is detected after rounding: (1 - u/2) times the smallest normal number is tiny, and
    // (1 + u)(1 - u) times it is not, where it rounds up.
    {"TinyRoundsUp", "mulq", nearest | upward, {smallest_normal, before(one)},
     smallest_normal, underflows},
    {"TinyRoundsDown", "mulq", inward, {smallest_normal, before(one)},
     before(smallest_normal), underflows},
    {"NotTiny", "mulq", nearest | upward, {next(smallest_normal), one - 2},
     smallest_normal, inexact},
    {"TinyAfterAll", "mulq", inward, {next(smallest_normal), one - 2},
     before(smallest_normal), underflows},
    {"ExactTinyProduct", "mulq", any, {smallest_normal, power(-1)}, bit(111), exact_underflow},
    {"ExactTinyQuotient", "divq", any, {smallest_normal | bit(109), three},
     3 * bit(109), exact_underflow},
    {"ExactTinyOfEqualSignificands", "divq", any, {smallest_normal | quiet_bit, three},
     bit(111), 0},
    {"ExactTinyPower", "divq", any, {smallest_normal, power(1)}, bit(111), 0},
    {"HalfOfSmallest", "mulq", nearest | inward, {smallest, power(-1)},
     zero, denormal | underflows},
    {"HalfOfSmallestPower", "divq", nearest, {minus(smallest), power(1)},
     minus(zero), denormal | underflows},
    {"ProductOfSubnormals", "mulq", nearest | inward, {smallest, smallest},
     zero, denormal | underflows | of_tiny_operands},
    {"ZeroTimesSubnormal", "mulq", any, {zero, minus(smallest)}, minus(zero), denormal},

    // Comparisons.
    {"SignallingIsNotEqual", "eqq", any, {signalling_nan(5), signalling_nan(5)}, 0, 0},
    {"SignallingIsUnequal", "neq", any, {signalling_nan(5), signalling_nan(5)}, 1, 0},
    {"NanIsNotOrdered", "compareq", any, {one, quiet_nan(5)}, 0, invalid},
    {"ZerosAreEqual", "compareq", any, {minus(zero), zero}, 0, 0},

    // To integers: ties, the limits, and the modes that are none.
    {"TieToEvenInteger", "qtoi", any, {quad(2.5), ZORVAC_TO_INT_NEAREST}, 2, inexact},
    {"UnknownModeOf32", "qtoi", any, {quad(2.5), 5}, 3, inexact},
    {"UnknownModeOf64", "qtoj", any, {quad(2.5), 5}, 2L, inexact},
    {"SubnormalToInteger", "qtoi", any, {smallest, ZORVAC_TO_INT_UP}, 1, inexact},
    {"JustFits32", "qtoi", any, {quad(INT32_MAX + 0.5), ZORVAC_TO_INT_DOWN}, INT32_MAX, inexact},
    {"RoundsOutOf32", "qtoi", any, {quad(INT32_MAX + 0.5), ZORVAC_TO_INT_NEAREST},
     INT32_MIN, invalid},
    {"LeastOf32", "qtoi", any, {quad(INT32_MIN - 0.5), ZORVAC_TO_INT_UP}, INT32_MIN, inexact},
    {"JustFits64", "qtoj", any, {before(power(63)), ZORVAC_TO_INT_DOWN}, INT64_MAX, inexact},
    {"RoundsOutOf64", "qtoj", any, {before(power(63)), ZORVAC_TO_INT_UP}, INT64_MIN, invalid},
    {"LeastOf64", "qtoj", any, {minus(power(63)), ZORVAC_TO_INT_NEAREST}, INT64_MIN, 0},
    {"NanToInteger", "qtoi", any, {quiet_nan(5), ZORVAC_TO_INT_DOWN}, INT32_MIN, invalid},
    {"WrapsAt32", "qtou", any, {quad(0x1p32 + 5)}, 5U, 0},
    {"LastThatWraps", "qtou", any, {before(power(33))}, UINT32_MAX, inexact},
    {"PastWrapping", "qtou", any, {power(33)}, 0x8000'0000U, invalid},
    {"MinusOneToUnsigned", "qtou", any, {quad(-1)}, 0x8000'0000U, invalid},
    {"LastOfUnsigned64", "qtok", any, {before(power(64))}, UINT64_MAX, inexact},
    {"PastUnsigned64", "qtok", any, {power(64)}, 0x8000'0000'0000'0000U, invalid},
    {"LastOfUnsigned128", "qton", any, {before(power(128))}, -bit(15), 0},
    {"PastUnsigned128", "qton", any, {power(128)}, bit(127), invalid},
    {"LastOfSigned128", "qtom", any, {minus(before(power(127)))}, bit(14) - bit(127), 0},
    {"LeastIsRefused", "qtom", any, {minus(power(127))}, bit(127), invalid},

    // From integers, without flags.
    {"FloatTie", "ntof", nearest | inward, {bit(24) + 1}, 0x1p24F, 0},
    {"FloatTieUpward", "ntof", upward, {bit(24) + 1}, 0x1p24F + 2, 0},
    {"MinusFloatDownward", "mtof", downward, {-(bit(24) + 1)}, -(0x1p24F + 2), 0},
    {"FloatBecomesInfinite", "ntof", nearest | upward, {~zero}, HUGE_VALF, 0},
    {"FloatStaysFinite", "ntof", inward, {~zero}, FLT_MAX, 0},
    {"QuadTieUpward", "ntoq", upward, {bit(113) + 1}, next(power(113)), 0},

    // To narrower formats. Half an ulp of 1 is 2^-24 for float.
    {"NarrowAboveTie", "qtof", nearest, {one + bit(112 - 24) + 1}, 1 + FLT_EPSILON, inexact},
    {"NarrowTieOverflows", "qtod", nearest, {power(1024) - bit(59)}, HUGE_VAL, overflows},
    {"NarrowBelowOverflow", "qtod", nearest, {power(1024) - bit(59) - 1}, DBL_MAX, inexact},
    {"NarrowStops", "qtod", inward, {largest}, DBL_MAX, overflows},
    {"NarrowLongOverflows", "qtol", nearest | upward, {largest},
     std::numeric_limits<long double>::infinity(), overflows},
    {"NarrowNotTiny", "qtof", nearest | upward, {before(power(-126))}, FLT_MIN, inexact},
    {"NarrowTinyTie", "qtof", nearest, {power(-150)}, 0.0F, underflows},
    {"NarrowSubnormal", "qtod", nearest | inward, {smallest}, 0.0, denormal | underflows},
    {"NarrowNan", "qtod", any, {minus(signalling_nan(bit(60) | 1))},
     0xfff8'0000'0000'0001, invalid},

    // To quads. The product with 1 that quiets an 80-bit NaN is the x87's.
    {"WideNanKeepsSignalling", "dtoq", any, {0x7ff0'0000'0000'0001}, signalling_nan(bit(60)), 0},
    {"WideLongNanIsQuieted", "ltoq", any, {word{0x7fff} << 64 | 0x8000'0000'0000'0001},
     quiet_nan(bit(49)), invalid << x87_flags_shift},

    // Complex numbers. With A = 1 + 3/2^57 and B = 1 + 1/2^57, AB lies three quarters of the way
    // from L = 1 + 4/2^57 to its neighbour H. The parts of (-A + iA)(B + iB) are -AB - AB and
    // -AB + AB, of products that are rounded to L or H; -H - L is a tie.
    {"ComplexNearest", "cmulq", nearest, {minus(a), a, b, b},
     complex{minus(twice(h)), zero}, inexact},
    {"ComplexDownward", "cmulq", downward, {minus(a), a, b, b},
     complex{minus(twice(h)), minus(power(-112))}, inexact},
    {"ComplexUpward", "cmulq", upward, {minus(a), a, b, b},
     complex{minus(twice(l)), power(-112)}, inexact},
    {"ComplexTruncated", "cmulq", truncating, {minus(a), a, b, b},
     complex{minus(twice(l)), zero}, inexact},
    {"SquaresOverflow", "cdivq", nearest | upward, {one, zero, power(9000), zero},
     complex{zero, zero}, overflows},
    {"DivisionByComplexZero", "cdivq", any, {one, one, zero, zero},
     complex{indefinite, indefinite}, division_by_zero | invalid},
    {"ComplexZerosAreEqual", "ceqq", any, {zero, one, minus(zero), one}, 1, 0},
    {"ComplexZerosHaveUnlikeBits", "a_ceqq", any, {zero, one, minus(zero), one}, 0, 0},
    {"ComplexIsTruncated", "cqtoi", any, {quad(2.9)}, 2, inexact},
};
// clang-format on

class Delicate : public testing::TestWithParam<row> {};
INSTANTIATE_TEST_SUITE_P(Quad, Delicate, testing::ValuesIn(rows), name_of_row);

// Every combination of circumstances in one rounding mode.
std::vector<circumstances> all_circumstances(kind takes, unsigned rounding) {
  std::vector<circumstances> all;
  for (int i = 0; i < layout_count(takes); ++i)
    for (const processor_class& on : processor_classes)
      for (const unsigned raised_before : {0U, all_flags})
        for (const unsigned flush : flush_modes)
          for (unsigned unmasked = 0; unmasked <= inexact; unmasked = std::max(1U, 2 * unmasked))
            all.push_back({rounding, &layouts[i], &on, raised_before, unmasked, flush});
  return all;
}

TEST_P(Delicate, IsDoneAsStated) {
  const row& c = GetParam();
  const auto known = std::find_if(routines.begin(), routines.end(), [&](const routine& r) {
    return std::string(r.name) == c.routine;
  });
  ASSERT_NE(known, routines.end()) << c.routine;
  routine stated = *known;
  stated.expected = [&c](unsigned char* result, const unsigned char*) {
    std::memcpy(result, c.result.memory, c.result.size);
    return c.flags;
  };
  for (const unsigned rounding : {to_nearest, down, up, toward_zero}) {
    if ((c.roundings >> rounding & 1) == 0) continue;
    const std::string wrong_by_oracle = check(*known, c.in, {.rounding = rounding});
    if (!wrong_by_oracle.empty()) FAIL() << "By the campaign's oracle: " << wrong_by_oracle;
    for (const circumstances& when : all_circumstances(stated.takes, rounding)) {
      const std::string wrong = check(stated, c.in, when);
      if (!wrong.empty()) FAIL() << wrong;
    }
  }
}

}  // namespace
}  // namespace zorvac::test
