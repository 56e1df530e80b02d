// The C++ value type: its properties at compile time, and small features. Its operators,
// conversions and functions of <cmath> are in the table of routines. Its text has its own test.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <limits>

#include "quads.h"
#include "zorvac/quad.hpp"

namespace zorvac::test {
namespace {

using number = zorvac::quad;
using namespace zorvac::literals;
__extension__ using float128 = __float128;
using limits = std::numeric_limits<number>;

// ---- At compile time ----------------------------------------------------------------------------

// Numbers are converted implicitly, bool and characters only explicitly.
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
static_assert(has_words(0.1, 0x3ffb'9999'9999'9999, 0xa000'0000'0000'0000));
static_assert(has_words(0x1p-149F, 0x3f6a'0000'0000'0000));
static_assert(has_words((word{1} << 113) - 1, 0x406f'ffff'ffff'ffff, ~std::uint64_t{0}));
static_assert(has_words(number('A'), 0x4005'0400'0000'0000));
static_assert(number(2) < 3 && number(-2) > -3.0 && number(0) == -0.0 && number(1) != 2U);
static_assert((number(1) <=> 2) == std::partial_ordering::less);
static_assert(isnormal(1_q) && !isnormal(limits::denorm_min()) && fpclassify(0_q) == FP_ZERO);
static_assert(sizeof(std::complex<number>) == 32 && alignof(number) == 8);

// ---- Small features -----------------------------------------------------------------------------

TEST(Number, CountsUpAndDown) {
  number x = 5;
  EXPECT_EQ(x++, 5);
  EXPECT_EQ(++x, 7);
  EXPECT_EQ(x--, 7);
  EXPECT_EQ(--x, 5);
}

TEST(Number, IsHashedByItsValue) {
  const std::hash<number> hash;
  EXPECT_EQ(hash(0_q), hash(-0_q));
  EXPECT_NE(hash(1_q), hash(2_q));
  EXPECT_NE(hash(1_q), hash(number::from_bits(one + 1)));
}

TEST(Number, WorksInComplexNumbers) {
  using complex = std::complex<number>;
  EXPECT_EQ(abs(complex(3, -4)), 5);
  EXPECT_LT(abs(exp(complex(0, 3.14159265358979323846264338327950288_q)) + number(1)), 1e-33_q);
}

// ---- Functions ----------------------------------------------------------------------------------

TEST(Function, GivesKnownValues) {
  constexpr long least = std::numeric_limits<long>::min();
  EXPECT_EQ(lround(2.5_q), 3);
  EXPECT_EQ(llround(-2.5_q), -3);
  EXPECT_EQ(lround(-1e30_q), least);
  EXPECT_EQ(fdim(3_q, 1), 2);
  EXPECT_EQ(hex(bits(fdim(1_q, 3))), hex(0));
  EXPECT_TRUE(isnan(fdim(limits::quiet_NaN(), 1)));
  EXPECT_EQ(ilogb(-8.5_q), 3);
  EXPECT_EQ(ilogb(limits::denorm_min()), -16494);
  EXPECT_EQ(ilogb(0_q), FP_ILOGB0);
  EXPECT_EQ(ilogb(limits::infinity()), std::numeric_limits<int>::max());
  number whole;
  EXPECT_EQ(modf(-2.75_q, &whole), -0.75_q);
  EXPECT_EQ(whole, -2);
  EXPECT_EQ(hex(bits(modf(-3_q, &whole))), hex(bits(-0_q)));
  EXPECT_EQ(hex(bits(modf(limits::infinity(), &whole))), hex(0));
}

// Functions of libquadmath, called as templates call them.
TEST(Function, IsFoundByItsArgument) {
  using std::exp, std::pow, std::fabs;
  const number x = 1.25;
  EXPECT_LT(static_cast<double>(fabs(log(exp(x)) - x)), 1e-33);
  EXPECT_LT(static_cast<double>(fabs(pow(x, 3) - x * x * x)), 1e-33);
  EXPECT_LT(static_cast<double>(fabs(atan2(sin(x), cos(x)) - x)), 1e-33);
  EXPECT_LT(static_cast<double>(fabs(log(tgamma(x)) - lgamma(x))), 1e-33);
}

}  // namespace
}  // namespace zorvac::test
