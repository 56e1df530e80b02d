// The table of routines, and the oracles: what the compiler makes of the same operation on its own
// __float128, rounded and flagged by MXCSR as ours is, with this library's own rules (which NaN,
// when the denormal flag) around it. The C library rounds to integers.
#include <functional>
#include <limits>
#include <tuple>

#include "quads.h"
#include "zorvac/quad.hpp"

extern "C" {
__float128 toward_zero(__float128) __asm__("truncf128");
__float128 to_nearest(__float128) __asm__("roundevenf128");
__float128 down(__float128) __asm__("floorf128");
__float128 up(__float128) __asm__("ceilf128");
}

namespace zorvac::test {
namespace {

using number = zorvac::quad;
using place = unsigned char*;
using const_place = const unsigned char*;

// ---- Calls, by the routine's own shape ----

template <class T>
T next_operand(const_place& at) {
  const const_place here = at;
  at += 16;
  if constexpr (std::is_pointer_v<T>)
    return here;
  else
    return load<T>(here);
}
template <class... T>
void call_as(void (*routine)(void*, T...), place result, const_place in) {
  std::apply([&](auto... x) { routine(result, x...); }, std::tuple<T...>{next_operand<T>(in)...});
}
template <class R, class... T>
void call_as(R (*routine)(T...), place result, const_place in) {
  store(result, std::apply(routine, std::tuple<T...>{next_operand<T>(in)...}));
}
template <auto Routine>
void by(place result, const_place in) {
  call_as(Routine, result, in);
}
template <auto... Routine>
std::vector<call*> calls() {
  return {by<Routine>...};
}

// What the C++ value type makes of an operator or a conversion.
template <class F>
auto computed(number a, number b) -> decltype(F()(a, b) + 0) {  // bool becomes int
  return F()(a, b);
}
template <class To, class From>
To cast(From value) {
  return static_cast<To>(value);
}

// ---- Oracles ----

// By this library or the compiler's, which raises some flags in the x87 and the denormal-operand
// flag by rules of its own.
unsigned raised() {
  const registers now = current();
  return (now.mxcsr | (now.status & ~denormal)) & all_flags;
}

word chosen_nan(word a, word b) {
  if (is_nan(a) != is_nan(b)) return is_nan(a) ? a : b;
  if (is_signalling(a) != is_signalling(b)) return is_signalling(a) ? b : a;
  if (magnitude(a) != magnitude(b)) return magnitude(a) > magnitude(b) ? a : b;
  return (a & sign) != 0 ? a : b;
}

template <class F>
unsigned arithmetic(place result, const_place in) {
  const auto a = load<word>(in), b = load<word>(in + 16);
  if (is_nan(a) || is_nan(b)) {
    store(result, chosen_nan(a, b) | quiet_bit);
    return is_signalling(a) || is_signalling(b) ? invalid : 0;
  }
  store(result, F()(load<__float128>(in), load<__float128>(in + 16)));
  unsigned flags = raised();
  // A zero or an infinity that decides the result keeps the other operand's size from being seen.
  constexpr bool divides = std::is_same_v<F, std::divides<>>,
                 scales = divides || std::is_same_v<F, std::multiplies<>>;
  const bool decided = magnitude(a) == infinity || magnitude(b) == infinity ||
                       (divides && (magnitude(a) == 0 || magnitude(b) == 0));
  if (!decided && (is_subnormal(a) || is_subnormal(b))) flags |= denormal;
  // A power of two is the quotient of equal significands, which raises nothing whatever happens.
  const word r = magnitude(load<word>(result));
  if (scales && is_subnormal(r) && (flags & inexact) == 0 && !(divides && (r & (r - 1)) == 0))
    flags |= exact_underflow;
  return flags;
}

struct three_way {
  int operator()(__float128 a, __float128 b) const { return (a > b) - (a < b); }
};
template <class F, unsigned FlagsOfNan = invalid>
unsigned comparison(place result, const_place in) {
  const auto a = load<__float128>(in), b = load<__float128>(in + 16);
  const bool ordered = a <= b || a >= b;
  store(result, int{F()(a, b)});
  return ordered ? 0 : FlagsOfNan;
}

template <int Parts>
unsigned negated(place result, const_place in) {
  for (int at = 0; at < 16 * Parts; at += 16) store(result + at, load<word>(in + at) ^ sign);
  return 0;
}

// Complex operations: the stated formulas, in the library's own arithmetic. A sum stores its real
// part before it reads the imaginary ones, a product or a quotient is complete before.
template <class F>
unsigned part_by_part(place result, const_place in) {
  for (const int at : {0, 16})
    store(result + at, F()(load<number>(in + at), load<number>(in + 32 + at)));
  return raised();
}
template <class F>
unsigned complex(place result, const_place in) {
  const auto ar = load<number>(in), ai = load<number>(in + 16);
  const auto br = load<number>(in + 32), bi = load<number>(in + 48);
  if (std::is_same_v<F, std::multiplies<>>) {
    store(result, ar * br - ai * bi);
    store(result + 16, ar * bi + ai * br);
  } else {
    const number reciprocal = number(1) / (br * br + bi * bi);
    store(result, (ar * br + ai * bi) * reciprocal);
    store(result + 16, (ai * br - ar * bi) * reciprocal);
  }
  return raised();
}
template <class Part, bool Equal>
unsigned complex_equality(place result, const_place in) {
  const bool real = load<Part>(in) == load<Part>(in + 32);
  store(result, int{(real && load<Part>(in + 16) == load<Part>(in + 48)) == Equal});
  return 0;
}

// Some entries clear the imaginary part. Two clear only the last 12 of its bytes, and the lowest
// four of the real one.
template <oracle* Real, bool Partially = false>
unsigned and_zero(place result, const_place in) {
  const unsigned flags = Real(result, in);
  if (Partially) std::memset(result, 0, 4);
  std::memset(result + (Partially ? 20 : 16), 0, Partially ? 12 : 16);
  return flags;
}
unsigned copied(place result, const_place in) {
  std::memmove(result, in, 16);
  return 0;
}

// Of two parts the first is stored before the second is read.
template <class To, int Parts = 1>
unsigned narrowed(place result, const_place in) {
  unsigned flags = 0;
  for (int i = 0; i < Parts; ++i, in += 16, result += sizeof(To)) {
    if (is_subnormal(load<word>(in))) flags |= denormal;
    store(result, static_cast<To>(load<__float128>(in)));
  }
  return flags | raised();
}
// Here they are read together. The compiler's routine quiets signalling NaNs.
template <class From, std::size_t Parts = 1>
unsigned widened(place result, const_place in) {
  for (const From part : load<std::array<From, Parts>>(in)) {
    const word q = bits(static_cast<__float128>(part));
    const bool quiet = (bits(part) >> (std::numeric_limits<From>::digits - 2) & 1) != 0;
    store(result, is_nan(q) && !quiet ? q ^ quiet_bit : q);
    result += 16;
  }
  return 0;
}
// The x87's own product with 1 quiets signalling NaNs and raises flags there.
unsigned widened_by_x87(place result, const_place in) {
  const volatile long double unit = 1;
  const volatile long double product = load<long double>(in) * unit;
  const unsigned flags = current().status;
  store(result, static_cast<__float128>(product));
  return flags << x87_flags_shift;
}

// By the modes of the routines' argument: 0 toward zero, 1 to nearest even, 2 down, 3 up; anything
// else away from zero for 32 bits and toward zero for 64. Two ranges are not those of their types:
// unsigned 32 bits take one binade more, which wraps, and signed 128 bits leave out -2^127. The
// compiler takes an 80-bit number with an exponent of 0 and its leading one stored for 0.
template <class To, bool TakesMode = false, class From = __float128>
unsigned to_integer(place result, const_place in) {
  constexpr int width = 8 * sizeof(To);
  constexpr bool is_signed = To(-1) < To(1);
  const auto x = static_cast<__float128>(load<From>(in));
  const int mode = TakesMode ? load<int>(in + 16) : 0;
  decltype(&down) const directions[] = {toward_zero, to_nearest, down, up};
  const auto otherwise = width == 64 ? toward_zero : x < 0 ? down : up;
  const __float128 rounded = (mode >= 0 && mode <= 3 ? directions[mode] : otherwise)(x);
  const bool exact = rounded == x && (rounded != 0 || load<From>(in) == 0);

  constexpr int range = is_signed ? width - 1 : width == 32 ? 33 : width;
  const __float128 end = static_cast<__float128>(word{1} << (range - 1)) * 2;
  const bool above_lowest = width == 128 ? rounded > -end : rounded >= -end;
  const bool fits = rounded < end && (is_signed ? above_lowest : rounded >= 0);
  word n = word{1} << (width - 1);
  if (fits) n = rounded < 0 ? -static_cast<word>(-rounded) : static_cast<word>(rounded);
  store(result, static_cast<To>(n));
  return !fits ? invalid : exact ? 0 : inexact;
}

// Rounded once: what does not fit a __float128 goes there rounded to odd, to be rounded again.
template <class Integer, class To = __float128>
unsigned from_integer(place result, const_place in) {
  const auto n = load<Integer>(in);
  const bool negative = !(n > 0) && n != 0;
  const word m = negative ? -static_cast<word>(n) : static_cast<word>(n);
  const auto odd =
      static_cast<__float128>(m >> 113 != 0 ? (m >> 15 | word{m << 113 != 0}) << 15 : m);
  const __float128 same = negative ? -odd : odd, rounded = static_cast<__float128>(n);
  store(result, static_cast<To>(std::is_same_v<To, __float128> ? rounded : same));
  return 0;
}

#define MUL "__mulq __mulq.L "
#define DIV "__divq __divq.L "
#define CMUL "__cmulq " MUL MUL MUL MUL "__subq __addq "
#define CDIV "__cdivq " MUL MUL "__addq " DIV MUL MUL MUL MUL "__addq __subq " MUL MUL

}  // namespace

using enum kind;
using std::plus, std::minus, std::multiplies, std::divides, std::equal_to, std::not_equal_to,
    std::less, std::less_equal, std::greater, std::greater_equal;

// clang-format off
const std::vector<routine> routines = {
    {"addq", pair, calls<__addq, a_addq, computed<plus<>>>(), arithmetic<plus<>>},
    {"subq", pair, calls<__subq, a_subq, computed<minus<>>>(), arithmetic<minus<>>},
    {"mulq", pair, calls<__mulq, a_mulq, computed<multiplies<>>>(), arithmetic<multiplies<>>, MUL},
    {"divq", pair, calls<__divq, a_divq, computed<divides<>>>(), arithmetic<divides<>>, DIV},
    {"negq", quad, calls<__negq, a_negq>(), negated<1>},

    {"eqq", pair, calls<__eqq, a_eqq, computed<equal_to<>>>(), comparison<equal_to<>, 0>},
    {"neq", pair, calls<__neq, a_neq, computed<not_equal_to<>>>(), comparison<not_equal_to<>, 0>},
    {"ltq", pair, calls<__ltq, a_ltq, computed<less<>>>(), comparison<less<>>},
    {"leq", pair, calls<__leq, a_leq, computed<less_equal<>>>(), comparison<less_equal<>>},
    {"gtq", pair, calls<__gtq, a_gtq, computed<greater<>>>(), comparison<greater<>>},
    {"geq", pair, calls<__geq, a_geq, computed<greater_equal<>>>(), comparison<greater_equal<>>},
    {"compareq", pair, calls<__compareq, compareq>(), comparison<three_way>},

    {"qtoi", quad_and_mode, calls<__qtoi, a_qtoi, a_qtoc, a_qtos>(), to_integer<int32_t, true>},
    {"qtoj", quad_and_mode, calls<__qtoj, a_qtoj>(), to_integer<int64_t, true>},
    {"cqtoi", quad, calls<a_cqtoi, a_cqtoch, a_cqtos, cast<int32_t, number>>(),
     to_integer<int32_t>, "__qtoi "},
    {"cqtoj", quad, calls<a_cqtoj, cast<int64_t, number>>(), to_integer<int64_t>, "__qtoj "},
    {"qtou", quad, calls<__qtou, cast<uint32_t, number>>(), to_integer<uint32_t>},
    {"qtok", quad, calls<__qtok, cast<uint64_t, number>>(), to_integer<uint64_t>},
    {"qton", quad, calls<__qton, cast<word, number>>(), to_integer<word>},
    {"qtom", quad, calls<__qtom, cast<int128, number>>(), to_integer<int128>},
    {"fton", binary32, calls<__fton>(), to_integer<word, false, float>},
    {"ftom", binary32, calls<__ftom>(), to_integer<int128, false, float>},
    {"dton", binary64, calls<__dton>(), to_integer<word, false, double>},
    {"dtom", binary64, calls<__dtom>(), to_integer<int128, false, double>},
    {"lton", extended, calls<__lton>(), to_integer<word, false, long double>},
    {"ltom", extended, calls<__ltom>(), to_integer<int128, false, long double>},

    {"qtof", quad, calls<__qtof, a_qtof, a_cqtof, cast<float, number>>(), narrowed<float>},
    {"qtod", quad, calls<__qtod, a_qtod, a_cqtod, cast<double, number>>(), narrowed<double>},
    {"qtol", quad, calls<__qtol, a_qtol, cast<long double, number>>(), narrowed<long double>},
    {"ftoq", binary32, calls<__ftoq, a_ftoq, cast<number, float>>(), widened<float>},
    {"dtoq", binary64, calls<__dtoq, a_dtoq, cast<number, double>>(), widened<double>},
    {"ltoq", extended, calls<__ltoq, a_ltoq, cast<number, long double>>(), widened_by_x87},

    {"ctoq", integer, calls<a_ctoq, cast<number, int8_t>>(), from_integer<int8_t>, "__itoq "},
    {"stoq", integer, calls<a_stoq, cast<number, int16_t>>(), from_integer<int16_t>, "__itoq "},
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

    {"caddq", four, calls<__caddq, a_caddq>(), part_by_part<plus<>>, "__caddq __addq __addq "},
    {"csubq", four, calls<__csubq, a_csubq>(), part_by_part<minus<>>, "__csubq __subq __subq "},
    {"cmulq", four, calls<__cmulq, a_cmulq>(), complex<multiplies<>>, CMUL},
    {"cdivq", four, calls<__cdivq, a_cdivq>(), complex<divides<>>, CDIV},
    {"cnegq", pair, calls<__cnegq, a_cnegq>(), negated<2>, "__cnegq __negq __negq "},
    {"ceqq", four, calls<__ceqq>(), complex_equality<__float128, true>, "__ceqq __eqq __eqq "},
    {"cneq", four, calls<__cneq>(), complex_equality<__float128, false>, "__cneq __neq __neq "},
    {"a_ceqq", four, calls<a_ceqq>(), complex_equality<word, true>, ""},
    {"a_cneq", four, calls<a_cneq>(), complex_equality<word, false>, ""},

    {"ctocq", binary32, calls<a_ctocq>(), widened<float, 2>, "__ftoq __ftoq "},
    {"cdtocq", binary64, calls<a_cdtocq>(), widened<double, 2>, "__dtoq __dtoq "},
    {"ftocq", binary32, calls<a_ftocq>(), and_zero<widened<float>>, "__ftoq "},
    {"dtocq", binary64, calls<a_dtocq>(), and_zero<widened<double>>, "__dtoq "},
    {"chtocq", integer, calls<a_chtocq>(), and_zero<from_integer<int8_t>>, "__itoq "},
    {"stocq", integer, calls<a_stocq>(), and_zero<from_integer<int16_t>, true>, "__itoq "},
    {"itocq", integer, calls<a_itocq>(), and_zero<from_integer<int32_t>>, "__itoq "},
    {"jtocq", integer, calls<a_jtocq>(), and_zero<from_integer<int64_t>>, "__jtoq "},
    {"qtocq", quad, calls<a_qtocq>(), and_zero<copied, true>, ""},
    {"cqtoq", quad, calls<a_cqtoq>(), copied, ""},
    {"cqtoc", pair, calls<a_cqtoc>(), narrowed<float, 2>, "__qtof __qtof "},
    {"cqtocd", pair, calls<a_cqtocd>(), narrowed<double, 2>, "__qtod __qtod "},
};
// clang-format on

}  // namespace zorvac::test
