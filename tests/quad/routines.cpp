// The table of routines, and the oracles. MPFR computes the four operations and the functions of
// <cmath>. Everything else is computed by the compiler's own __float128, which uses the rounding
// and the flags of MXCSR, like ours. Both are completed by this library's own rules: which NaN is
// the result, and when the denormal flag is raised.
#include <mpfr.h>

#include <algorithm>
#include <compare>
#include <complex>
#include <limits>

#include "quads.h"
#include "zorvac/quad.hpp"

// The header declares these only for compilers that call the type _Float128.
extern "C" int mpfr_set_float128(mpfr_ptr, __float128, mpfr_rnd_t);
extern "C" __float128 mpfr_get_float128(mpfr_srcptr, mpfr_rnd_t);
extern "C" __float128 c_library_next(__float128, __float128) __asm__("nextafterf128");

namespace zorvac::test {

namespace {

using number = zorvac::quad;
using namespace zorvac::detail;

// ---- Calls, by the routine's own shape ----

template <auto... Routine>
std::vector<call*> calls() {
  return {[](unsigned char* result, const unsigned char* in) { call_as(Routine, result, in); }...};
}

// An operation of the C++ value type. Its arithmetic is tested below, through the oracles of
// complex operations, which use it.
template <class F>
auto computed(number a, number b) -> decltype(F()(a, b) + 0) {  // bool becomes int
  return F()(a, b);
}
template <class To, class From = number>
To cast(From value) {
  return static_cast<To>(value);
}
int spaceship(number a, number b) {
  const std::partial_ordering order = a <=> b;
  return (order > 0) - (order < 0);
}
std::array<number, 2> std_product(number ar, number ai, number br, number bi) {
  const std::complex<number> product = std::complex(ar, ai) * std::complex(br, bi);
  return {product.real(), product.imag()};
}
template <auto Scale, long Power>
number scaled(number a) {
  return Scale(a, Power);
}
// The fraction, or another number if the power is wrong.
number own_fraction(number a) {
  int power = 1;
  const number f = frexp(a, &power);
  const bool regular = isfinite(a) && a != 0;
  return power == (regular ? ilogb(a) + 1 : 0) ? f : number(7);
}

// ---- Oracles ----

// The flags that this library or the compiler's raised. The compiler's raises some flags in the
// x87, and has other rules for the denormal-operand flag there.
unsigned raised() {
  const registers now = current();
  return (now.mxcsr | (now.status & ~denormal)) & all_flags;
}

// The NaN of the result, quieted, for operands of which at least one is a NaN. As integers, NaNs
// are above all numbers, and quiet ones above signalling ones.
word nan_of(word a, word b) {
  const word larger = magnitude(a) > magnitude(b) ? a : b;
  const word chosen = magnitude(a) == magnitude(b) && (a & sign) != 0 ? a : larger;
  return is_nan(chosen) ? chosen | quiet_bit : chosen;
}

// MPFR's functions, by signature. The first number is also the result.
using one_number = int(mpfr_ptr, mpfr_srcptr, mpfr_rnd_t);
using to_an_integer = int(mpfr_ptr, mpfr_srcptr);
using two_numbers = int(mpfr_ptr, mpfr_srcptr, mpfr_srcptr, mpfr_rnd_t);
using three_numbers = int(mpfr_ptr, mpfr_srcptr, mpfr_srcptr, mpfr_srcptr, mpfr_rnd_t);
int apply(one_number* f, mpfr_t* x, mpfr_rnd_t mode) { return f(x[0], x[0], mode); }
int apply(to_an_integer* f, mpfr_t* x, mpfr_rnd_t) { return f(x[0], x[0]); }
int apply(two_numbers* f, mpfr_t* x, mpfr_rnd_t mode) { return f(x[0], x[0], x[1], mode); }
int apply(three_numbers* f, mpfr_t* x, mpfr_rnd_t mode) { return f(x[0], x[0], x[1], x[2], mode); }
template <class... T>
constexpr std::size_t count_of(int (*)(T...)) {
  return (std::size_t{std::is_same_v<T, mpfr_srcptr>} + ...);
}
template <auto F, auto G>
constexpr bool is_same = false;
template <auto F>
constexpr bool is_same<F, F> = true;

// MPFR computes in binary128 as its manual says for IEEE formats (mpfr_subnormalize): its
// significands are below 1, and its least exponent is that of the smallest subnormal number. `Told`
// has the flags that a function raises. For a signalling NaN all functions raise invalid.
template <auto* Operation, unsigned Told = ~0U>
unsigned arithmetic(unsigned char* result, const unsigned char* in) {
  constexpr std::size_t count = count_of(Operation);
  std::array<word, count> q;
  std::memcpy(&q, in, sizeof(q));
  word nan = nan_of(q[0], q[0]);
  for (std::size_t i = 1; i < count; ++i) nan = nan_of(i == 1 ? q[0] : nan, q[i]);
  if (is_nan(nan)) {
    store(result, nan);
    return std::any_of(q.begin(), q.end(), is_signalling) ? invalid : 0;
  }
  static mpfr_t x[3];
  [[maybe_unused]] static const int ready =
      (mpfr_inits2(113, x[0], x[1], x[2], nullptr), mpfr_set_emin(-16493) + mpfr_set_emax(16384));
  constexpr mpfr_rnd_t modes[] = {MPFR_RNDN, MPFR_RNDD, MPFR_RNDU, MPFR_RNDZ};
  const mpfr_rnd_t mode = modes[current().mxcsr >> rounding_shift & 3];
  set(initial);  // for MPFR's own arithmetic
  for (std::size_t i = 0; i < count; ++i) mpfr_set_float128(x[i], load<__float128>(&q[i]), mode);
  mpfr_clear_flags();
  mpfr_subnormalize(x[0], apply(Operation, x, mode), mode);
  unsigned flags = 0, n = 0;  // MPFR's flags have this order; its underflows may be exact
  for (const unsigned flag : {underflow, overflow, invalid, inexact, 0U, division_by_zero})
    flags |= (mpfr_flags_save() >> n++ & 1) != 0 ? flag : 0;
  if ((flags & inexact) == 0) flags &= ~underflow;
  const word value = mpfr_nan_p(x[0]) != 0 ? indefinite : bits(mpfr_get_float128(x[0], mode));
  store(result, value);

  // An invalid operation raises no denormal flag, nor does a zero or an infinity that decides the
  // result.
  constexpr bool divides = is_same<Operation, mpfr_div>, multiplies = is_same<Operation, mpfr_mul>;
  const auto decides = [](word w) {
    return magnitude(w) == infinity || (divides && magnitude(w) == 0);
  };
  const bool decided = value == indefinite || std::any_of(q.begin(), q.end(), decides);
  if (!decided && std::any_of(q.begin(), q.end(), is_subnormal)) flags |= denormal;
  // If a quotient is a power of two, the significands are equal: that raises nothing if exact.
  const bool power = (magnitude(value) & (magnitude(value) - 1)) == 0;
  if ((multiplies || (divides && !power)) && is_subnormal(value) && (flags & inexact) == 0)
    flags |= exact_underflow;
  return flags & Told;
}

template <long Power>
int scaled(mpfr_ptr to, mpfr_srcptr a, mpfr_rnd_t mode) {
  return mpfr_mul_2si(to, a, Power, mode);
}
int exponent(mpfr_ptr to, mpfr_srcptr a, mpfr_rnd_t mode) {
  if (mpfr_zero_p(a) != 0) return mpfr_log2(to, a, mode);  // divides by zero
  if (mpfr_inf_p(a) != 0) return mpfr_abs(to, a, mode);
  return mpfr_set_si(to, mpfr_get_exp(a) - 1, mode);
}
int fraction(mpfr_ptr to, mpfr_srcptr a) {
  return mpfr_regular_p(a) != 0 ? mpfr_set_exp(to, 0) : 0;  // `to` is `a`
}

// A quiet NaN is ignored.
template <two_numbers* Operation>
unsigned extreme(unsigned char* result, const unsigned char* in) {
  const auto a = load<word>(in), b = load<word>(in + 16);
  if (is_signalling(a) || is_signalling(b) || !(is_nan(a) || is_nan(b)))
    return arithmetic<Operation, 0>(result, in);
  store(result, is_nan(a) ? b : a);
  return 0;
}

unsigned next(unsigned char* result, const unsigned char* in) {
  const auto a = load<__float128>(in), b = load<__float128>(in + 16);
  if (is_nan(bits(a)) || is_nan(bits(b))) return arithmetic<mpfr_add>(result, in);
  store(result, c_library_next(a, b));
  return raised();
}

// `F` is a predicate, or a difference whose sign is the order. It is a NaN for equal infinities,
// which is neither above nor below 0, like the difference of equal numbers.
template <class F, unsigned FlagsOfNan = invalid>
unsigned comparison(unsigned char* result, const unsigned char* in) {
  const auto a = load<__float128>(in), b = load<__float128>(in + 16);
  const auto outcome = static_cast<__float128>(F()(a, b));
  store(result, (outcome > 0) - (outcome < 0));
  return a <= b || a >= b ? 0 : FlagsOfNan;
}

template <word Flipped, int Parts = 1>
unsigned copied(unsigned char* result, const unsigned char* in) {
  for (int at = 0; at < 16 * Parts; at += 16) store(result + at, load<word>(in + at) ^ Flipped);
  return 0;
}

// Complex operations: the formulas of the public header, in the library's own arithmetic. A sum
// stores its real part before it reads the imaginary operands. A product or a quotient reads all
// operands before it stores anything.
template <class F>
unsigned part_by_part(unsigned char* result, const unsigned char* in) {
  for (const int at : {0, 16})
    store(result + at, F()(load<number>(in + at), load<number>(in + 32 + at)));
  return raised();
}
unsigned product(unsigned char* result, const unsigned char* in) {
  const auto [ar, ai, br, bi] = load<std::array<number, 4>>(in);
  store(result, std::array{ar * br - ai * bi, ar * bi + ai * br});
  return raised();
}
unsigned quotient(unsigned char* result, const unsigned char* in) {
  const auto [ar, ai, br, bi] = load<std::array<number, 4>>(in);
  const number r = number(1) / (br * br + bi * bi);
  store(result, std::array{(ar * br + ai * bi) * r, (ai * br - ar * bi) * r});
  return raised();
}
template <class Part, bool Equal>
unsigned complex_equality(unsigned char* result, const unsigned char* in) {
  const auto [ar, ai, br, bi] = load<std::array<Part, 4>>(in);
  store(result, int{(ar == br && ai == bi) == Equal});
  return 0;
}

// Some entries clear the imaginary part. Two of them keep its first four bytes, and clear those of
// the real part.
template <oracle* Real, int Kept = 0>
unsigned and_zero(unsigned char* result, const unsigned char* in) {
  const unsigned flags = Real(result, in);
  std::memset(result, 0, Kept);
  std::memset(result + 16 + Kept, 0, 16 - Kept);
  return flags;
}

// If there are two parts, the first is stored before the second is read.
template <class To, int Parts = 1>
unsigned narrowed(unsigned char* result, const unsigned char* in) {
  unsigned flags = 0;
  for (int i = 0; i < Parts; ++i, in += 16, result += sizeof(To)) {
    if (is_subnormal(load<word>(in))) flags |= denormal;
    store(result, static_cast<To>(load<__float128>(in)));
  }
  return flags | raised();
}
// All parts are read before any is stored. The compiler's routine quiets signalling NaNs, ours does
// not.
template <class From, std::size_t Parts = 1>
unsigned widened(unsigned char* result, const unsigned char* in) {
  for (const From part : load<std::array<From, Parts>>(in)) {
    const word q = bits(static_cast<__float128>(part));
    const bool quiet = (bits(part) >> (std::numeric_limits<From>::digits - 2) & 1) != 0;
    store(result, is_nan(q) && !quiet ? q ^ quiet_bit : q);
    result += 16;
  }
  return 0;
}
// The x87's product with 1 quiets signalling NaNs and raises flags in the x87.
unsigned widened_by_x87(unsigned char* result, const unsigned char* in) {
  const volatile long double unit = 1, product = load<long double>(in) * unit;
  const unsigned flags = current().status;
  store(result, static_cast<__float128>(product));
  return flags << x87_flags_shift;
}

// The modes of the routines' argument: 0 toward zero, 1 to nearest even, 2 down, 3 up; any other is
// away from zero for 32 bits and toward zero for 64. Two ranges are not those of their types:
// unsigned 32 bits have one binade more, which wraps, and signed 128 bits do not have -2^127. The
// compiler converts an 80-bit number with exponent 0 and its leading one stored to 0.
enum class mode_of { truncation, by_argument, by_mxcsr };
template <class To, mode_of Mode = mode_of::truncation, class From = __float128>
unsigned to_integer(unsigned char* result, const unsigned char* in) {
  constexpr int width = 8 * sizeof(To), range = width == 32 ? 33 : width;
  const word x = bits(static_cast<__float128>(load<From>(in))), size = magnitude(x);
  const bool negative = x != size, small = size >> 112 < 0x3fff + 128;
  const auto m = load<__float128>(&size);
  const word whole = small ? static_cast<word>(m) : 0;
  const __float128 rest = m - static_cast<__float128>(whole);
  const bool exact = rest == 0 && (size != 0 || load<From>(in) == 0);
  const bool away[] = {false, rest > 0.5 || (rest == 0.5 && whole % 2 != 0), negative, !negative};
  unsigned mode = Mode == mode_of::by_argument ? load<unsigned>(in + 16) : 0;
  if (Mode == mode_of::by_mxcsr) mode = ((current().mxcsr >> rounding_shift) + 1) & 3;
  const word n = whole + (rest > 0 && (mode < 4 ? away[mode] : width == 32));

  const word limit = word{1} << (width - 1);
  const bool fits_signed = n < limit || (n == limit && negative && width != 128),
             fits_unsigned = negative ? n == 0 : n >> (range - 1) < 2;
  const bool fits = small && (To(-1) < To(1) ? fits_signed : fits_unsigned);
  const word value = negative ? -n : n;
  store(result, static_cast<To>(fits ? value : limit));
  if (!fits) return invalid;
  return exact ? 0 : inexact;
}

template <class From, class To = __float128>
unsigned from_integer(unsigned char* result, const unsigned char* in) {
  store(result, static_cast<To>(load<From>(in)));
  return 0;
}

}  // namespace

using enum kind;
using enum mode_of;
using std::plus, std::minus, std::equal_to, std::not_equal_to, std::less, std::less_equal,
    std::greater, std::greater_equal;

constexpr long a_million = 1'000'000 / 4;  // in the four modes

// clang-format off
const std::vector<routine> routines = {
    {"addq", pair, calls<__addq, a_addq, zorvac_quad_add>(), arithmetic<mpfr_add>, a_million},
    {"subq", pair, calls<__subq, a_subq, zorvac_quad_sub>(), arithmetic<mpfr_sub>, a_million},
    {"mulq", pair, calls<__mulq, a_mulq, zorvac_quad_mul>(), arithmetic<mpfr_mul>, a_million},
    {"divq", pair, calls<__divq, a_divq, zorvac_quad_div>(), arithmetic<mpfr_div>, a_million},
    {"negq", quad, calls<__negq, a_negq>(), copied<sign>},

    {"eqq", pair, calls<__eqq, a_eqq, computed<equal_to<>>>(), comparison<equal_to<>, 0>},
    {"neq", pair, calls<__neq, a_neq, computed<not_equal_to<>>>(), comparison<not_equal_to<>, 0>},
    {"ltq", pair, calls<__ltq, a_ltq, computed<less<>>>(), comparison<less<>>},
    {"leq", pair, calls<__leq, a_leq, computed<less_equal<>>>(), comparison<less_equal<>>},
    {"gtq", pair, calls<__gtq, a_gtq, computed<greater<>>>(), comparison<greater<>>},
    {"geq", pair, calls<__geq, a_geq, computed<greater_equal<>>>(), comparison<greater_equal<>>},
    {"compareq", pair, calls<__compareq, compareq, spaceship>(), comparison<minus<>>},

    {"qtoi", with_mode, calls<__qtoi, a_qtoi, a_qtoc, a_qtos>(), to_integer<int32_t, by_argument>},
    {"qtoj", with_mode, calls<__qtoj, a_qtoj>(), to_integer<int64_t, by_argument>},
    {"cqtoi", quad, calls<a_cqtoi, a_cqtoch, a_cqtos, cast<int32_t>>(), to_integer<int32_t>},
    {"cqtoj", quad, calls<a_cqtoj, cast<int64_t>>(), to_integer<int64_t>},
    {"qtou", quad, calls<__qtou, cast<uint32_t>>(), to_integer<uint32_t>},
    {"qtok", quad, calls<__qtok, cast<uint64_t>>(), to_integer<uint64_t>},
    {"qton", quad, calls<__qton, cast<word>>(), to_integer<word>},
    {"qtom", quad, calls<__qtom, cast<int128>>(), to_integer<int128>},
    {"fton", binary32, calls<__fton>(), to_integer<word, truncation, float>},
    {"ftom", binary32, calls<__ftom>(), to_integer<int128, truncation, float>},
    {"dton", binary64, calls<__dton>(), to_integer<word, truncation, double>},
    {"dtom", binary64, calls<__dtom>(), to_integer<int128, truncation, double>},
    {"lton", extended, calls<__lton>(), to_integer<word, truncation, long double>},
    {"ltom", extended, calls<__ltom>(), to_integer<int128, truncation, long double>},

    {"qtof", quad, calls<__qtof, a_qtof, a_cqtof, cast<float>>(), narrowed<float>},
    {"qtod", quad, calls<__qtod, a_qtod, a_cqtod, zorvac_quad_to_double, cast<double>>(),
     narrowed<double>},
    {"qtol", quad, calls<__qtol, a_qtol, cast<long double>>(), narrowed<long double>},
    {"ftoq", binary32, calls<__ftoq, a_ftoq, cast<number, float>>(), widened<float>},
    {"dtoq", binary64, calls<__dtoq, a_dtoq, cast<number, double>>(), widened<double>},
    {"ltoq", extended, calls<__ltoq, a_ltoq, cast<number, long double>>(), widened_by_x87},

    {"ctoq", integer, calls<a_ctoq, cast<number, int8_t>>(), from_integer<int8_t>},
    {"stoq", integer, calls<a_stoq, cast<number, int16_t>>(), from_integer<int16_t>},
    {"itoq", integer, calls<__itoq, a_itoq, cast<number, int32_t>>(), from_integer<int32_t>},
    {"utoq", integer, calls<__utoq, cast<number, uint32_t>>(), from_integer<uint32_t>},
    {"jtoq", integer, calls<__jtoq, a_jtoq, cast<number, int64_t>>(), from_integer<int64_t>},
    {"ktoq", integer, calls<__ktoq, cast<number, uint64_t>>(), from_integer<uint64_t>},
    {"ntoq", integer, calls<__ntoq, cast<number, word>>(), from_integer<word>},
    {"mtoq", integer, calls<__mtoq, cast<number, int128>>(), from_integer<int128>},
    {"ntof", integer, calls<__ntof>(), from_integer<word, float>},
    {"mtof", integer, calls<__mtof>(), from_integer<int128, float>},
    {"ntod", integer, calls<__ntod>(), from_integer<word, double>},
    {"mtod", integer, calls<__mtod>(), from_integer<int128, double>},
    {"ntol", integer, calls<__ntol>(), from_integer<word, long double>},
    {"mtol", integer, calls<__mtol>(), from_integer<int128, long double>},

    {"caddq", four, calls<__caddq, a_caddq>(), part_by_part<plus<>>},
    {"csubq", four, calls<__csubq, a_csubq>(), part_by_part<minus<>>},
    {"cmulq", four, calls<__cmulq, a_cmulq, std_product>(), product},
    {"cdivq", four, calls<__cdivq, a_cdivq>(), quotient},
    {"cnegq", pair, calls<__cnegq, a_cnegq>(), copied<sign, 2>},
    {"ceqq", four, calls<__ceqq>(), complex_equality<__float128, true>},
    {"cneq", four, calls<__cneq>(), complex_equality<__float128, false>},
    {"a_ceqq", four, calls<a_ceqq>(), complex_equality<word, true>},
    {"a_cneq", four, calls<a_cneq>(), complex_equality<word, false>},

    {"ctocq", binary32, calls<a_ctocq>(), widened<float, 2>},
    {"cdtocq", binary64, calls<a_cdtocq>(), widened<double, 2>},
    {"ftocq", binary32, calls<a_ftocq>(), and_zero<widened<float>>},
    {"dtocq", binary64, calls<a_dtocq>(), and_zero<widened<double>>},
    {"chtocq", integer, calls<a_chtocq>(), and_zero<from_integer<int8_t>>},
    {"stocq", integer, calls<a_stocq>(), and_zero<from_integer<int16_t>, 4>},
    {"itocq", integer, calls<a_itocq>(), and_zero<from_integer<int32_t>>},
    {"jtocq", integer, calls<a_jtocq>(), and_zero<from_integer<int64_t>>},
    {"qtocq", quad, calls<a_qtocq>(), and_zero<copied<0>, 4>},
    {"cqtoq", quad, calls<a_cqtoq, cast<__float128>, cast<number, __float128>>(), copied<0>},
    {"cqtoc", pair, calls<a_cqtoc>(), narrowed<float, 2>},
    {"cqtocd", pair, calls<a_cqtocd>(), narrowed<double, 2>},

    {"sqrt", quad, calls<sqrt>(), arithmetic<mpfr_sqrt>},
    {"fma", four, calls<fma>(), arithmetic<mpfr_fma>},
    {"fmin", pair, calls<fmin>(), extreme<mpfr_min>},
    {"fmax", pair, calls<fmax>(), extreme<mpfr_max>},
    {"fmod", pair, calls<fmod>(), arithmetic<mpfr_fmod, invalid>, 1'000},
    {"remainder", pair, calls<remainder>(), arithmetic<mpfr_remainder, invalid>, 1'000},
    {"floor", quad, calls<floor>(), arithmetic<mpfr_floor, 0>},
    {"ceil", quad, calls<ceil>(), arithmetic<mpfr_ceil, 0>},
    {"trunc", quad, calls<trunc>(), arithmetic<mpfr_trunc, 0>},
    {"round", quad, calls<round>(), arithmetic<mpfr_round, 0>},
    {"roundeven", quad, calls<roundeven>(), arithmetic<mpfr_roundeven, 0>},
    {"nearbyint", quad, calls<nearbyint>(), arithmetic<mpfr_rint, 0>},
    {"rint", quad, calls<rint>(), arithmetic<mpfr_rint, inexact>},
    {"lrint", quad, calls<lrint, llrint>(), to_integer<int64_t, by_mxcsr>},
    {"scalbn", quad, calls<scaled<scalbn, 16'370>>(), arithmetic<scaled<16'370>, ~denormal>},
    {"ldexp", quad, calls<scaled<ldexp, -16'400>>(), arithmetic<scaled<-16'400>, ~denormal>},
    {"scalbln", quad, calls<scaled<scalbln, -1L << 40>>(),
     arithmetic<scaled<-1L << 40>, ~denormal>},
    {"frexp", quad, calls<own_fraction>(), arithmetic<fraction, 0>},
    {"logb", quad, calls<logb>(), arithmetic<exponent, division_by_zero>},
    {"nextafter", pair, calls<nextafter>(), next},
};
// clang-format on

}  // namespace zorvac::test
