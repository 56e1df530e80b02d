// The C++ value type: its conversions and comparisons, and its functions of <cmath> on random
// operands in the four rounding modes, value and flags, against MPFR and libquadmath. Its operators
// are in the table of routines, its text has a test of its own.
#include <gtest/gtest.h>
#include <mpfr.h>

#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <unordered_set>

#include "quads.h"
#include "support/name_of_row.h"
#include "zorvac/quad.hpp"

// Which the headers declare for some compilers only.
extern "C" {
int mpfr_set_float128(mpfr_ptr, __float128, mpfr_rnd_t);
__float128 mpfr_get_float128(mpfr_srcptr, mpfr_rnd_t);
__float128 fmodq(__float128, __float128);
__float128 remainderq(__float128, __float128);
__float128 frexpq(__float128, int*);
__float128 nextafterq(__float128, __float128);
__float128 fdimq(__float128, __float128);
__float128 expq(__float128);
__float128 powq(__float128, __float128);
}

namespace zorvac::test {
namespace {

using number = zorvac::quad;
using namespace zorvac::literals;
__extension__ using float128 = __float128;
using limits = std::numeric_limits<number>;

// ---- What the compiler knows --------------------------------------------------------------------

// Numbers are converted without being asked, truth and characters only when asked.
template <class T>
constexpr bool implicit = std::is_convertible_v<T, number>;
template <class T>
constexpr bool by_request = std::is_constructible_v<number, T> && !implicit<T>;
static_assert(implicit<signed char> && implicit<unsigned long long> && implicit<long double>);
static_assert(implicit<float128> && implicit<int128> && implicit<word>);
static_assert(by_request<bool> && by_request<char> && by_request<wchar_t> && by_request<char32_t>);
static_assert(!std::is_constructible_v<number, const char*> && !implicit<std::nullptr_t>);
static_assert(!std::is_convertible_v<number, double> && !std::is_convertible_v<number, float128>);

constexpr bool has_words(number q, std::uint64_t high, std::uint64_t low = 0) {
  return q.high_word() == high && q.low_word() == low;
}
static_assert(has_words(-3, 0xc000'8000'0000'0000));
static_assert(has_words(~std::uint64_t{0}, 0x403e'ffff'ffff'ffff, 0xfffe'0000'0000'0000));
static_assert(has_words(std::numeric_limits<std::int64_t>::min(), 0xc03e'0000'0000'0000));
static_assert(has_words(0.1, 0x3ffb'9999'9999'9999, 0xa000'0000'0000'0000));
static_assert(has_words(-0x1p-1074, 0xbbcd'0000'0000'0000) && has_words(-0.0, 1ULL << 63));
static_assert(has_words(0x1p-149F, 0x3f6a'0000'0000'0000) &&
              has_words(1.5F, 0x3fff'8000'0000'0000));
static_assert(has_words(std::numeric_limits<double>::infinity(), 0x7fff'0000'0000'0000));
static_assert(has_words((word{1} << 113) - 1, 0x406f'ffff'ffff'ffff, ~std::uint64_t{0}));
static_assert(has_words(number('A'), 0x4005'0400'0000'0000));
static_assert(number(2) < 3 && number(-2) > -3.0 && number(0) == -0.0 && number(1) != 2U);
static_assert((number(1) <=> 2) == std::partial_ordering::less);
static_assert(isnormal(1_q) && !isnormal(limits::denorm_min()) && fpclassify(0_q) == FP_ZERO);
static_assert(sizeof(std::complex<number>) == 32 && alignof(number) == 8);

// ---- Small things -------------------------------------------------------------------------------

TEST(Number, GoesToAndFromTheCompilersTypeAsItIs) {
  for (std::uint64_t seed = 0; seed < 1000; ++seed) {
    const word q = random_operands(kind::quad, seed)[0];
    set(initial);
    const auto theirs = static_cast<float128>(load<number>(&q));
    const number back = theirs;
    const registers after = current();
    EXPECT_EQ(hex(bits(theirs)), hex(q));
    EXPECT_EQ(hex(bits(back)), hex(q));
    EXPECT_EQ(difference(initial, after), "");
  }
}

TEST(Number, MixesWithIntegersOf128Bits) {
  const int128 n = -(int128{1} << 100);
  number x = n;
  x = (x + n) * word{2};
  EXPECT_EQ(hex(static_cast<word>(static_cast<int128>(x))), hex(static_cast<word>(n * 4)));
  number rounded = ~word{0};  // 2^128
  EXPECT_EQ(hex(rounded.bits()), hex(word{0x3fff + 128} << 112));
}

TEST(Number, CountsUpAndDown) {
  number x = 5;
  EXPECT_TRUE(x++ == 5 && x == 6 && ++x == 7 && x-- == 7 && --x == 5) << to_string(x);
}

TEST(Number, OrdersNaNsWithTheInvalidFlag) {
  const number nan = limits::quiet_NaN();
  set(initial);
  EXPECT_TRUE((nan <=> 1) == std::partial_ordering::unordered);
  EXPECT_EQ(names_of(current().mxcsr), names_of(invalid));
  set(initial);
  EXPECT_TRUE((1_q <=> nan) == std::partial_ordering::unordered);
  EXPECT_EQ(names_of(current().mxcsr), names_of(invalid));
  set(initial);
  EXPECT_FALSE(nan == nan);
  EXPECT_TRUE(nan != nan);
  EXPECT_EQ(names_of(current().mxcsr), names_of(0));
  EXPECT_TRUE((2_q <=> -1) == std::partial_ordering::greater);
  EXPECT_TRUE((0_q <=> -0_q) == std::partial_ordering::equivalent);
}

TEST(Number, IsHashedByItsValue) {
  const std::hash<number> hash;
  EXPECT_EQ(hash(0_q), hash(-0_q));
  std::unordered_set<std::size_t> hashes;
  for (int i = 1; i <= 1000; ++i) {
    hashes.insert(hash(i));
    hashes.insert(hash(1_q / i));
    hashes.insert(hash(number::from_bits(one + static_cast<word>(i))));
  }
  EXPECT_GE(hashes.size(), 2990U);  // 1 is in two of the series
}

// The formulas of the C routines, on the same layout: a product has the same bits.
TEST(Number, MakesComplexNumbers) {
  using complex = std::complex<number>;
  for (std::uint64_t seed = 0; seed < 1000; ++seed) {
    const operands in = random_operands(kind::four, seed);
    const auto [a, b] = load<std::array<complex, 2>>(in.data());
    std::array<word, 2> expected;
    __cmulq(expected.data(), &in[0], &in[1], &in[2], &in[3]);
    const complex product = a * b;
    EXPECT_EQ(hex(bits(product.real())), hex(expected[0])) << "seed " << seed;
    EXPECT_EQ(hex(bits(product.imag())), hex(expected[1])) << "seed " << seed;
  }
  const complex z(3, -4), quotient = complex(7, 24) / z;
  EXPECT_TRUE(abs(z) == 5 && norm(z) == 25 && conj(z).imag() == 4);
  EXPECT_TRUE(quotient * z == complex(7, 24)) << to_string(quotient.real());
  EXPECT_TRUE(abs(exp(complex(0, 3.14159265358979323846264338327950288_q)) + number(1)) < 1e-33_q);
}

// ---- Functions ----------------------------------------------------------------------------------

struct outcome {
  word value;
  unsigned flags;
};
struct function {
  const char* name;
  number (*ours)(const number* in);
  outcome (*expected)(const operands& in, unsigned rounding);
  long cases = 6'000;
};
std::ostream& operator<<(std::ostream& out, const function& f) { return out << f.name; }

constexpr mpfr_rnd_t modes[] = {MPFR_RNDN, MPFR_RNDD, MPFR_RNDU, MPFR_RNDZ};

// Of two NaNs, or one: the library's rule.
outcome nan_of(word a, word b) {
  word nan = is_nan(a) && (magnitude(a) > magnitude(b) || !is_nan(b)) ? a : b;
  if (magnitude(a) == magnitude(b) && (a & sign) != 0) nan = a;
  return {nan | quiet_bit, is_signalling(a) || is_signalling(b) ? invalid : 0};
}
outcome nan_of(word a) { return nan_of(a, a); }

// What MPFR makes of numbers, as its manual does it for IEEE formats (mpfr_subnormalize).
template <class F>
outcome by_mpfr(const operands& in, unsigned rounding, F compute) {
  static mpfr_t x[3];
  [[maybe_unused]] static const int ready =
      (mpfr_inits2(113, x[0], x[1], x[2], nullptr), mpfr_set_emin(-16493) + mpfr_set_emax(16384));
  for (std::size_t i = 0; i < 3; ++i) mpfr_set_float128(x[i], load<float128>(&in[i]), MPFR_RNDN);
  mpfr_clear_flags();
  const int ternary = compute(x, modes[rounding]);
  mpfr_subnormalize(x[0], ternary, modes[rounding]);
  unsigned flags = 0;
  if (mpfr_inexflag_p() != 0) {
    flags = inexact;
    if (mpfr_overflow_p() != 0) flags |= overflow;
    if (mpfr_underflow_p() != 0) flags |= underflow;
  }
  return {bits(mpfr_get_float128(x[0], modes[rounding])), flags};
}

outcome root(const operands& in, unsigned rounding) {
  const word a = in[0];
  if (is_nan(a)) return nan_of(a);
  if ((a & sign) != 0 && a != sign) return {indefinite, invalid};
  outcome r = by_mpfr(in, rounding, [](auto x, auto mode) { return mpfr_sqrt(x[0], x[0], mode); });
  if (is_subnormal(a)) r.flags |= denormal;
  return r;
}

outcome fused(const operands& in, unsigned rounding) {
  const word a = in[0], b = in[1], c = in[2];
  if (is_nan(a) || is_nan(b)) {
    const outcome product = nan_of(a, b), sum = nan_of(product.value, c);
    return {sum.value, product.flags | sum.flags};
  }
  if (is_nan(c)) return nan_of(c);
  outcome r = by_mpfr(in, rounding,
                      [](auto x, auto mode) { return mpfr_fma(x[0], x[0], x[1], x[2], mode); });
  if (is_nan(r.value)) return {indefinite, invalid};
  const bool infinite =
      magnitude(a) == infinity || magnitude(b) == infinity || magnitude(c) == infinity;
  if (!infinite && (is_subnormal(a) || is_subnormal(b) || is_subnormal(c))) r.flags |= denormal;
  return r;
}

int power_in(word w) {  // mostly small
  const int n = static_cast<int>(w & 0xfffff) - 0x80000;
  return (w >> 20 & 3) == 0 ? n : n % 300;
}
outcome scaled(const operands& in, unsigned rounding) {
  if (is_nan(in[0])) return nan_of(in[0]);
  return by_mpfr(in, rounding, [&](auto x, auto mode) {
    return mpfr_mul_2si(x[0], x[0], power_in(in[1]), mode);
  });
}

// Rounded to an integer by one of MPFR's functions, which keep the sign of zero.
template <int (*Round)(mpfr_ptr, mpfr_srcptr, mpfr_rnd_t), bool Tells = false>
outcome integral(const operands& in, unsigned rounding) {
  if (is_nan(in[0])) return nan_of(in[0]);
  outcome r = by_mpfr(in, rounding, [](auto x, auto mode) { return Round(x[0], x[0], mode); });
  r.flags = Tells && r.value != in[0] ? inexact : 0;
  return r;
}
template <int (*Round)(mpfr_ptr, mpfr_srcptr)>
int without_mode(mpfr_ptr to, mpfr_srcptr from, mpfr_rnd_t) {
  return Round(to, from);
}

// What libquadmath makes of two numbers, exact.
template <float128 (*F)(float128, float128)>
outcome rest(const operands& in, unsigned) {
  if (is_nan(in[0]) || is_nan(in[1])) return nan_of(in[0], in[1]);
  if (magnitude(in[0]) == infinity || magnitude(in[1]) == 0) return {indefinite, invalid};
  return {bits(F(load<float128>(&in[0]), load<float128>(&in[1]))), 0};
}

outcome next(const operands& in, unsigned) {
  if (is_nan(in[0]) || is_nan(in[1])) return nan_of(in[0], in[1]);
  const word r = bits(nextafterq(load<float128>(&in[0]), load<float128>(&in[1])));
  const bool moved = load<float128>(&in[0]) != load<float128>(&in[1]);
  if (moved && magnitude(r) == infinity && magnitude(in[0]) != infinity)
    return {r, overflow | inexact};
  return {r, moved && r << 1 >> 113 == 0 ? underflow | inexact : 0};
}

outcome fraction(const operands& in, unsigned) {
  if (is_nan(in[0])) return nan_of(in[0]);
  int power = 0;
  const word f = bits(frexpq(load<float128>(&in[0]), &power));
  return {f ^ static_cast<word>(power), 0};
}

// The smaller or the larger; a quiet NaN counts for nothing.
template <bool Larger>
outcome extreme(const operands& in, unsigned) {
  const word a = in[0], b = in[1];
  if (is_signalling(a) || is_signalling(b)) return nan_of(a, b);
  if (is_nan(a) || is_nan(b)) return {is_nan(a) ? b : a, 0};
  const auto x = load<float128>(&a), y = load<float128>(&b);
  const bool first = x < y || (x == y && (a & sign) != 0);
  return {first != Larger ? a : b, 0};
}

outcome positive_difference(const operands& in, unsigned rounding) {
  const word a = in[0], b = in[1];
  if (is_nan(a) || is_nan(b)) return nan_of(a, b);
  if (load<float128>(&a) <= load<float128>(&b)) return {0, 0};
  outcome r =
      by_mpfr(in, rounding, [](auto x, auto mode) { return mpfr_sub(x[0], x[0], x[1], mode); });
  const bool infinite = magnitude(a) == infinity || magnitude(b) == infinity;
  if (!infinite && (is_subnormal(a) || is_subnormal(b))) r.flags |= denormal;
  return r;
}

outcome exponent(const operands& in, unsigned) {
  if (is_nan(in[0])) return nan_of(in[0]);
  if (magnitude(in[0]) == 0) return {infinity | sign, division_by_zero};
  if (magnitude(in[0]) == infinity) return {infinity, 0};
  int power = 0;
  frexpq(load<float128>(&in[0]), &power);
  return {bits(static_cast<float128>(power - 1)), 0};
}

// clang-format off
const function functions[] = {
    {"sqrt", [](const number* x) { return sqrt(x[0]); }, root},
    {"fma", [](const number* x) { return fma(x[0], x[1], x[2]); }, fused},
    {"ldexp", [](const number* x) { return ldexp(x[0], power_in(bits(x[1]))); }, scaled},
    {"scalbln", [](const number* x) { return scalbln(x[0], power_in(bits(x[1]))); }, scaled},
    {"floor", [](const number* x) { return floor(x[0]); }, integral<without_mode<mpfr_floor>>},
    {"ceil", [](const number* x) { return ceil(x[0]); }, integral<without_mode<mpfr_ceil>>},
    {"trunc", [](const number* x) { return trunc(x[0]); }, integral<without_mode<mpfr_trunc>>},
    {"round", [](const number* x) { return round(x[0]); }, integral<without_mode<mpfr_round>>},
    {"roundeven", [](const number* x) { return roundeven(x[0]); },
     integral<without_mode<mpfr_roundeven>>},
    {"nearbyint", [](const number* x) { return nearbyint(x[0]); }, integral<mpfr_rint>},
    {"rint", [](const number* x) { return rint(x[0]); }, integral<mpfr_rint, true>},
    {"fmod", [](const number* x) { return fmod(x[0], x[1]); }, rest<fmodq>, 1'000},
    {"remainder", [](const number* x) { return remainder(x[0], x[1]); }, rest<remainderq>, 1'000},
    {"nextafter", [](const number* x) { return nextafter(x[0], x[1]); }, next},
    {"fmin", [](const number* x) { return fmin(x[0], x[1]); }, extreme<false>},
    {"fmax", [](const number* x) { return fmax(x[0], x[1]); }, extreme<true>},
    {"fdim", [](const number* x) { return fdim(x[0], x[1]); }, positive_difference},
    {"logb", [](const number* x) { return logb(x[0]); }, exponent},
    {"frexp", [](const number* x) {
       int power = 0;
       const number f = frexp(x[0], &power);
       return number::from_bits(f.bits() ^ (isnan(f) ? 0 : static_cast<word>(power)));
     }, fraction},
};
// clang-format on

class Function : public testing::TestWithParam<function> {};
INSTANTIATE_TEST_SUITE_P(Number, Function, testing::ValuesIn(functions), name_of_row);

// Of three operands, often c is so near to -ab that all but the last bits of the product cancel, or
// beside what decides its rounding.
operands related(std::uint64_t seed) {
  operands in = random_operands(kind::four, seed);
  case_random random(seed);
  const word product = bits(load<float128>(&in[0]) * load<float128>(&in[1]));
  if (!random.one_in(3) && magnitude(product) < infinity) {
    const word far[] = {
        0, 0, word{112} << 112, word{113} << 112, word{114} << 112, word{226} << 112};
    const word away = far[random.below(6)];
    in[2] = product ^ (random.one_in(2) ? 0 : sign);
    if (magnitude(in[2]) > away) in[2] -= away;
    in[2] += random.below(3);
  }
  return in;
}

TEST_P(Function, DoesAsItsOracleDoes) {
  const function& f = GetParam();
  const auto count = static_cast<std::uint64_t>(random_cases(f.cases));
  const auto [first, end] = seeds_of_cases(count);
  for (std::uint64_t seed = first; seed < end && !HasFailure(); ++seed) {
    const operands in = related(seed);
    const auto x = load<std::array<number, 4>>(in.data());
    for (const unsigned rounding : {to_nearest, down, up, toward_zero}) {
      set({all_masked | rounding << rounding_shift, initial.control, 0});
      const number result = f.ours(x.data());
      const registers after = current();
      set(initial);
      const outcome expected = f.expected(in, rounding);
      SCOPED_TRACE(testing::Message() << "ZORVAC_SEED=" << seed << ", mode " << rounding << ": "
                                      << hex(in[0]) << ", " << hex(in[1]) << ", " << hex(in[2]));
      EXPECT_EQ(hex(bits(result)), hex(expected.value));
      EXPECT_EQ(names_of(after.mxcsr & all_flags), names_of(expected.flags));
      EXPECT_EQ(names_of(after.status), names_of(0)) << "in the x87";
    }
  }
}

// Quotients halfway between integers, which random operands do not meet.
TEST(Function, RemaindersAreOfTheEvenQuotient) {
  const struct {
    number a, b, remainder, fmod;
  } rows[] = {
      {1, 2, 1, 1},
      {3, 2, -1, 1},
      {5, 2, 1, 1},
      {-3, 2, 1, -1},
      {7, -2, -1, 1},
      {0.75_q, 0.5_q, -0.25_q, 0.25_q},
      {6, 2, 0, 0},
      {1e40_q, 3, 1, 1},
      {limits::denorm_min(), limits::denorm_min() * 2, limits::denorm_min(), limits::denorm_min()}};
  for (const auto& row : rows) {
    const std::string which = to_string(row.a) + " by " + to_string(row.b);
    EXPECT_EQ(hex(bits(remainder(row.a, row.b))), hex(bits(row.remainder))) << which;
    EXPECT_EQ(hex(bits(fmod(row.a, row.b))), hex(bits(row.fmod))) << which;
  }
}

struct conversion {
  const char* name;
  number from;
  unsigned rounding;
  long rint, round;
  unsigned flags;  // of lrint
};
TEST(Function, GivesIntegers) {
  const long least = std::numeric_limits<long>::min();
  const conversion rows[] = {
      {"TieToEven", 2.5_q, to_nearest, 2, 3, inexact},
      {"Down", -2.5_q, down, -3, -3, inexact},
      {"Up", 2.25_q, up, 3, 2, inexact},
      {"Truncated", -2.75_q, toward_zero, -2, -3, inexact},
      {"Exact", -7, up, -7, -7, 0},
      {"Least", least, to_nearest, least, least, 0},
      {"TooLarge", 9223372036854775808_q, to_nearest, least, least, invalid},
  };
  for (const conversion& c : rows) {
    SCOPED_TRACE(c.name);
    set({all_masked | c.rounding << rounding_shift, initial.control, 0});
    const long rounded = lrint(c.from);
    const registers after = current();
    const long long away = llround(c.from);
    set(initial);
    EXPECT_EQ(rounded, c.rint);
    EXPECT_EQ(away, c.round);
    EXPECT_EQ(names_of(after.mxcsr & all_flags), names_of(c.flags));
  }
  EXPECT_EQ(ilogb(-8.5_q), 3);
  EXPECT_EQ(ilogb(limits::denorm_min()), -16494);
  EXPECT_EQ(ilogb(0_q), FP_ILOGB0);
  EXPECT_EQ(ilogb(limits::infinity()), std::numeric_limits<int>::max());
  number whole;
  EXPECT_TRUE(modf(-2.75_q, &whole) == -0.75_q && whole == -2);
  EXPECT_TRUE(signbit(modf(-3_q, &whole)) && modf(limits::infinity(), &whole) == 0);
}

// By libquadmath, and found as templates look for them.
TEST(Function, IsFoundByItsArgument) {
  using std::exp, std::pow, std::fabs;
  const number x = 1.25;
  EXPECT_EQ(hex(bits(exp(x))), hex(bits(expq(1.25))));
  EXPECT_EQ(hex(bits(pow(x, 3))), hex(bits(powq(1.25, 3))));
  const number unity = sin(x) * sin(x) + cos(x) * cos(x);
  EXPECT_LT(static_cast<double>(fabs(unity - 1)), 1e-33);
  EXPECT_LT(static_cast<double>(fabs(atan2(sin(x), cos(x)) - x)), 1e-33);
  EXPECT_LT(static_cast<double>(fabs(log(tgamma(x)) - lgamma(x))), 1e-33);
}

}  // namespace
}  // namespace zorvac::test
