#ifndef ZORVAC_QUAD_MATH_HPP
#define ZORVAC_QUAD_MATH_HPP
/** The functions of <cmath> for zorvac::quad, but for remquo, nexttoward, nan and the comparisons,
 *  which operators do. Templates find them by argument-dependent lookup, after `using std::sqrt;`
 *  and the like.
 *
 *  The functions from fpclassify() to nextafter() are in this header. They compute in integers and
 *  need no library but libzorvac. Their results are exact or correctly rounded:
 *
 *  Rounding:  by MXCSR if the result is rounded (sqrt, fma, ldexp, scalbn, scalbln, fdim), and in
 *             rint, nearbyint, lrint and llrint.
 *  Flags:     those of IEEE 754, raised in MXCSR by real double-precision operations. sqrt and fma
 *             raise the denormal-operand flag as the processor's own instructions do.
 *  NaN:       as in <zorvac/quad.h>. If one operand of fmin or fmax is a quiet NaN, the result is
 *             the other.
 *  Source:    IEEE 754-2019, 5.3.1, 5.4.1, 5.9, 9.4 and 9.6; C17, 7.12 and F.10.
 *
 *  The functions from exp() on are those of libquadmath. A program that calls one links with
 *  -lquadmath, which comes with gcc. Other programs do not refer to it. <quadmath.h> is not needed.
 */
#include <cmath>
#include <limits>
#include <zorvac/quad.hpp>

namespace zorvac {
namespace detail {

/* ---- Unpacking and packing ------------------------------------------------------------------- */

// A finite number that is not zero: significand * 2^(exponent - bias - 112), leading one in place.
struct unpacked {
  bool negative;
  int exponent;
  uint128 significand;
};
constexpr unpacked unpack(quad a) {
  const uint128 size = abs(a).bits();
  const int exponent = static_cast<int>(size >> 112);
  if (exponent != 0) return {signbit(a), exponent, (size & (leading_one - 1)) | leading_one};
  const int zeros = leading_zeros(size) - 15;
  return {signbit(a), 1 - zeros, size << zeros};
}
// MXCSR's rounding-control field.
enum class rounding : unsigned { to_nearest, down, up, toward_zero };
inline rounding rounding_control() {
  return static_cast<rounding>(__builtin_ia32_stmxcsr() >> 13 & 3);
}

inline void raise_divide_by_zero() { perform(unknown(1) / unknown(0)); }
inline void raise_denormal() { perform(unknown(0x1p-1074) * unknown(1)); }
inline void raise_inexact() { perform(unknown(1) + unknown(0x1p-1022)); }
inline void raise_overflow_inexact() { perform(unknown(0x1p1023) * unknown(0x1p1023)); }
inline void raise_underflow_inexact() { perform(unknown(0x1p-1022) * unknown(0x1p-1022)); }

// The result of an invalid operation.
inline quad invalid() {
  raise_invalid();
  return -std::numeric_limits<quad>::quiet_NaN();
}

// Rounds and raises exceptions, as the operators do. The exponent may be any number. The guard word
// has the bits below the significand, left-aligned. Its lowest bit is sticky.
inline quad round_and_pack(bool negative, int exponent, uint128 significand, std::uint64_t guard) {
  return quad::from_bits(zorvac_quad_round(negative ? 1 : 0, exponent, significand, guard));
}

/* ---- Square root ----------------------------------------------------------------------------- */

template <class Word>
struct root_and_rest {
  Word root, rest;
};

// The largest integer whose square is at most h * 4^Digits + `low`, and the rest. `high` has the
// root and the rest of h. This is the method of paper and pencil, with many digits in a step
// (Zimmermann, Karatsuba Square Root, 1999). The root of h must have at least Digits bits.
template <int Digits, class Word>
constexpr root_and_rest<Word> extend_root(root_and_rest<Word> high, Word low) {
  constexpr Word mask = (Word{1} << Digits) - 1;
  const Word dividend = high.rest << Digits | low >> Digits;
  const Word digits = dividend / (2 * high.root);
  Word root = (high.root << Digits) + digits;
  Word rest = ((dividend - digits * (2 * high.root)) << Digits) + (low & mask);
  if (rest < digits * digits) {  // the root is 1 too large
    rest += 2 * root - 1;
    --root;
  }
  return {root, static_cast<Word>(rest - digits * digits)};
}

constexpr root_and_rest<std::uint64_t> root_of_16_bits(std::uint64_t square) {
  std::uint64_t root = 0;
  for (std::uint64_t bit = 1 << 7; bit != 0; bit >>= 1)
    if ((root + bit) * (root + bit) <= square) root += bit;
  return {root, square - root * root};
}

/* ---- Fused multiplication and addition ------------------------------------------------------- */

// A magnitude of up to 384 bits, words[5] * 2^320 + ... + words[0]. The exponent is that of a quad
// with the same leading one.
struct wide {
  int exponent;
  std::uint64_t words[6];

  // Moves the leading one to bit 382, which leaves one above it for a carry.
  constexpr void normalise() {
    while (words[5] == 0) {
      for (int i = 5; i > 0; --i) words[i] = words[i - 1];
      words[0] = 0;
    }
    const int zeros = __builtin_clzll(words[5]) - 1;
    if (zeros > 0) {
      for (int i = 5; i > 0; --i) words[i] = words[i] << zeros | words[i - 1] >> (64 - zeros);
      words[0] <<= zeros;
    } else if (zeros < 0) {
      shift_right_sticky(1);
    }
  }

  // Bit 0 is sticky.
  constexpr void shift_right_sticky(int distance) {
    bool lost = false;
    for (; distance >= 64; distance -= 64) {
      lost = lost || words[0] != 0;
      for (int i = 0; i < 5; ++i) words[i] = words[i + 1];
      words[5] = 0;
    }
    if (distance > 0) {
      lost = lost || words[0] << (64 - distance) != 0;
      for (int i = 0; i < 5; ++i) words[i] = words[i] >> distance | words[i + 1] << (64 - distance);
      words[5] >>= distance;
    }
    words[0] |= lost ? 1 : 0;
  }

  constexpr bool operator<(const wide& b) const {
    if (exponent != b.exponent) return exponent < b.exponent;
    int i = 5;
    while (i > 0 && words[i] == b.words[i]) --i;
    return words[i] < b.words[i];
  }

  // Adds b, or subtracts b, which must not be larger.
  constexpr void add(const wide& b, bool subtract) {
    bool carry = subtract;
    for (int i = 0; i < 6; ++i) {
      const auto sum =
          static_cast<uint128>(words[i]) + (subtract ? ~b.words[i] : b.words[i]) + (carry ? 1 : 0);
      words[i] = static_cast<std::uint64_t>(sum);
      carry = sum >> 64 != 0;
    }
  }
};

constexpr wide exact_product(const unpacked& a, const unpacked& b) {
  const uint128 a_low = static_cast<std::uint64_t>(a.significand), a_high = a.significand >> 64;
  const uint128 b_low = static_cast<std::uint64_t>(b.significand), b_high = b.significand >> 64;
  const uint128 low = a_low * b_low, one = a_low * b_high, other = a_high * b_low;
  const uint128 middle =
      (low >> 64) + static_cast<std::uint64_t>(one) + static_cast<std::uint64_t>(other);
  const uint128 high = a_high * b_high + (one >> 64) + (other >> 64) + (middle >> 64);
  wide product{a.exponent + b.exponent - bias + static_cast<int>(high >> (225 - 128)),
               {0, 0, static_cast<std::uint64_t>(low), static_cast<std::uint64_t>(middle),
                static_cast<std::uint64_t>(high), static_cast<std::uint64_t>(high >> 64)}};
  product.normalise();
  return product;
}

// a * b + c. The operands are finite and not zero.
inline quad fused(quad a, quad b, quad c) {
  if (is_subnormal(a) || is_subnormal(b) || is_subnormal(c)) raise_denormal();
  const unpacked addend = unpack(c);
  wide sum = exact_product(unpack(a), unpack(b));
  wide other{addend.exponent,
             {0, 0, 0, 0, static_cast<std::uint64_t>(addend.significand),
              static_cast<std::uint64_t>(addend.significand >> 64)}};
  other.normalise();
  bool negative = signbit(a) != signbit(b);
  const bool subtract = negative != addend.negative;
  if (sum < other) {
    const wide product = sum;
    sum = other;
    other = product;
    negative = addend.negative;
  }
  // If bits are lost, the numbers differ so much that these bits are at least 150 places below the
  // one that decides the rounding.
  const int distance = sum.exponent - other.exponent;
  other.shift_right_sticky(distance < 384 ? distance : 383);
  sum.add(other, subtract);

  int top = 5;
  while (top >= 0 && sum.words[top] == 0) --top;
  if (top < 0) return with_sign(rounding_control() == rounding::down, 0);
  const int exponent = sum.exponent + 64 * (top - 5) + 1 - __builtin_clzll(sum.words[top]);
  sum.normalise();
  const bool sticky = (sum.words[0] | sum.words[1] | sum.words[2] | sum.words[3] << 50) != 0;
  const uint128 head = static_cast<uint128>(sum.words[5]) << 64 | sum.words[4];
  const std::uint64_t guard = sum.words[4] << 50 | sum.words[3] >> 14 | (sticky ? 1 : 0);
  return round_and_pack(negative, exponent, head >> 14, guard);
}

/* ---- Rounding to integers -------------------------------------------------------------------- */

// The neighbouring integer that a number is rounded to.
enum class neighbour { even_of_halves, below, above, nearer_to_zero, farther_of_halves };

// Rounds to an integer, and raises inexact only if `signals`.
inline quad integral(quad a, neighbour to, bool signals = false) {
  const uint128 size = abs(a).bits();
  const int exponent = static_cast<int>(size >> 112) - bias;
  if (exponent >= 112) return isnan(a) ? a + a : a;
  if (size == 0) return a;
  // Below 1, the neighbours are 0 and 1, and their difference as words is 1 itself.
  constexpr uint128 one = static_cast<uint128>(bias) << 112;
  const uint128 unit = exponent < 0 ? one : static_cast<uint128>(1) << (112 - exponent);
  const uint128 whole = exponent < 0 ? 0 : size & ~(unit - 1);
  if (whole == size) return a;
  const uint128 half = exponent < 0 ? one - leading_one : unit >> 1, rest = size - whole;
  if (signals) raise_inexact();
  bool up = false;
  switch (to) {
    case neighbour::even_of_halves:
      up = rest > half || (rest == half && (whole & unit) != 0);
      break;
    case neighbour::below:
      up = signbit(a);
      break;
    case neighbour::above:
      up = !signbit(a);
      break;
    case neighbour::farther_of_halves:
      up = rest >= half;
      break;
    case neighbour::nearer_to_zero:
      break;
  }
  return with_sign(signbit(a), up ? whole + unit : whole);
}
inline neighbour by_rounding_control() {
  constexpr neighbour neighbours[] = {neighbour::even_of_halves, neighbour::below, neighbour::above,
                                      neighbour::nearer_to_zero};
  return neighbours[static_cast<unsigned>(rounding_control())];
}
inline std::int64_t rounded_by_control(quad a) {  // to nearest is the C routine's mode 1
  return __qtoj(&a, static_cast<int>((static_cast<unsigned>(rounding_control()) + 1) & 3));
}
inline std::int64_t rounded_from_halves(quad a) {
  const quad whole = integral(a, neighbour::farther_of_halves);
  return __qtoj(&whole, ZORVAC_TO_INT_TOWARD_ZERO);
}

// The remainder of a / b with the quotient truncated, or rounded to nearest, ties to even. In the
// second case it may have either sign.
inline quad rest_of_division(quad a, quad b, bool to_nearest) {
  if (isnan(a) || isnan(b)) return a + b;
  if (isinf(a) || is_zero(b)) return invalid();
  if (isinf(b) || is_zero(a)) return a;
  const unpacked x = unpack(a), y = unpack(b);
  if (x.exponent < y.exponent - 1) return a;
  bool negative = x.negative, odd = false;
  // In units of 2^exponent: the rest, and the divisor, doubled if the dividend's exponent is less.
  const int exponent = x.exponent < y.exponent ? x.exponent : y.exponent;
  const uint128 divisor = y.significand << (y.exponent - exponent);
  uint128 rest = x.significand;
  if (rest >= divisor) {
    rest -= divisor;
    odd = true;
  }
  for (int missing = x.exponent - exponent; missing > 0;) {
    const int step = missing < 15 ? missing : 15;
    const uint128 dividend = rest << step;
    odd = (dividend / divisor & 1) != 0;
    rest = dividend % divisor;
    missing -= step;
  }
  if (to_nearest && (2 * rest > divisor || (2 * rest == divisor && odd))) {
    rest = divisor - rest;
    negative = !negative;
  }
  if (rest == 0) return with_sign(signbit(a), 0);
  const int zeros = leading_zeros(rest) - 15;
  return round_and_pack(negative, exponent - zeros, zeros < 0 ? rest >> -zeros : rest << zeros, 0);
}

}  // namespace detail

/* ---- Classes --------------------------------------------------------------------------------- */

/** FP_NAN, FP_INFINITE, FP_ZERO, FP_SUBNORMAL or FP_NORMAL. */
constexpr int fpclassify(quad a) {
  if (isnan(a)) return FP_NAN;
  if (isinf(a)) return FP_INFINITE;
  if (detail::is_zero(a)) return FP_ZERO;
  return isnormal(a) ? FP_NORMAL : FP_SUBNORMAL;
}
constexpr bool isunordered(quad a, quad b) { return isnan(a) || isnan(b); }

/* ---- Arithmetic ------------------------------------------------------------------------------ */

/** Correctly rounded. sqrt(-0) is -0. Other negative numbers are an invalid operation. */
inline quad sqrt(quad a) {
  if (isnan(a)) return a + a;
  if (detail::is_zero(a)) return a;
  if (signbit(a)) return detail::invalid();
  if (isinf(a)) return a;
  if (detail::is_subnormal(a)) detail::raise_denormal();
  const detail::unpacked x = detail::unpack(a);

  // a = square * 4^n. The square has 119 or 120 bits, and its root 60.
  using detail::extend_root, detail::uint128;
  const bool odd_power = (x.exponent - detail::bias) % 2 != 0;
  const uint128 square = x.significand << (odd_power ? 7 : 6);
  const auto bits = [&](int shift, int count) {
    return static_cast<std::uint64_t>(square >> shift) & ((std::uint64_t{1} << count) - 1);
  };
  const auto of_16 = detail::root_of_16_bits(bits(104, 16));
  const auto of_32 = extend_root<8>(of_16, bits(88, 16));
  const auto of_60 = extend_root<14>(of_32, bits(60, 28));
  const auto of_120 = extend_root<30>(of_60, bits(0, 60));
  const detail::root_and_rest<uint128> wider{of_120.root, of_120.rest};
  const auto root = extend_root<56>(wider, uint128{0});  // of 116 bits

  const std::uint64_t guard = static_cast<std::uint64_t>(root.root) << 61;
  // The exponent halved, rounded down.
  const int exponent = ((x.exponent - detail::bias + 32768) >> 1) - 16384 + detail::bias;
  return detail::round_and_pack(false, exponent, root.root >> 3, guard | (root.rest != 0 ? 1 : 0));
}

/** a * b + c, rounded once. */
inline quad fma(quad a, quad b, quad c) {
  if (isnan(c) && !isnan(a) && !isnan(b)) return c + c;
  if (!isfinite(a) || !isfinite(b)) return a * b + c;
  if (isinf(c)) return c;
  if (detail::is_zero(a) || detail::is_zero(b)) return a * b + c;
  if (detail::is_zero(c)) return a * b;
  return detail::fused(a, b, c);
}

/** a - b if a > b, else +0. */
inline quad fdim(quad a, quad b) {
  if (isunordered(a, b)) return a + b;
  return a > b ? a - b : quad();
}

/** The smaller and the larger operand; -0 is below +0. A quiet NaN is ignored. */
inline quad fmin(quad a, quad b) {
  if (detail::is_signalling(a) || detail::is_signalling(b)) return a + b;
  if (isunordered(a, b)) return isnan(a) ? b : a;
  return a < b || (a == b && signbit(a)) ? a : b;
}
inline quad fmax(quad a, quad b) {
  if (detail::is_signalling(a) || detail::is_signalling(b)) return a + b;
  if (isunordered(a, b)) return isnan(a) ? b : a;
  return a > b || (a == b && signbit(b)) ? a : b;
}

/** a - n b, exact, with n = a / b truncated, or rounded to nearest (ties to even). */
inline quad fmod(quad a, quad b) { return detail::rest_of_division(a, b, false); }
inline quad remainder(quad a, quad b) { return detail::rest_of_division(a, b, true); }

/* ---- To integers ----------------------------------------------------------------------------- */

/** Only rint(), lrint() and llrint() raise inexact. Those with an integer type handle a number out
 *  of range as __qtoj() does. */
inline quad floor(quad a) { return detail::integral(a, detail::neighbour::below); }
inline quad ceil(quad a) { return detail::integral(a, detail::neighbour::above); }
inline quad trunc(quad a) { return detail::integral(a, detail::neighbour::nearer_to_zero); }
inline quad round(quad a) { return detail::integral(a, detail::neighbour::farther_of_halves); }
inline quad roundeven(quad a) { return detail::integral(a, detail::neighbour::even_of_halves); }
inline quad nearbyint(quad a) { return detail::integral(a, detail::by_rounding_control()); }
inline quad rint(quad a) { return detail::integral(a, detail::by_rounding_control(), true); }
inline long lrint(quad a) { return detail::rounded_by_control(a); }
inline long long llrint(quad a) { return detail::rounded_by_control(a); }
inline long lround(quad a) { return detail::rounded_from_halves(a); }
inline long long llround(quad a) { return detail::rounded_from_halves(a); }

/** Stores the integral part in *whole and returns the rest. Both have the sign of a. */
inline quad modf(quad a, quad* whole) {
  *whole = trunc(a);
  return copysign(isinf(a) ? quad() : a - *whole, a);
}

/* ---- Exponents ------------------------------------------------------------------------------- */

/** a * 2^n, rounded once. */
inline quad scalbln(quad a, long n) {
  if (!isfinite(a) || detail::is_zero(a)) return isnan(a) ? a + a : a;
  constexpr long most = 40000;  // more than from the smallest number to the largest
  const detail::unpacked x = detail::unpack(a);
  const int exponent = x.exponent + static_cast<int>(n < -most ? -most : n > most ? most : n);
  return detail::round_and_pack(x.negative, exponent, x.significand, 0);
}
inline quad scalbn(quad a, int n) { return scalbln(a, n); }
inline quad ldexp(quad a, int n) { return scalbln(a, n); }

/** Returns a number of [1/2, 1) and stores the exponent: a is the number * 2^*power. If a is zero,
 *  infinite or a NaN, returns it and stores 0. */
inline quad frexp(quad a, int* power) {
  *power = 0;
  if (!isfinite(a) || detail::is_zero(a)) return isnan(a) ? a + a : a;
  const detail::unpacked x = detail::unpack(a);
  *power = x.exponent - (detail::bias - 1);
  return detail::round_and_pack(x.negative, detail::bias - 1, x.significand, 0);
}

/** The n for which 2^n <= |a| < 2^(n+1). */
inline quad logb(quad a) {
  if (isnan(a)) return a + a;
  if (isinf(a)) return abs(a);
  if (!detail::is_zero(a)) return detail::unpack(a).exponent - detail::bias;
  detail::raise_divide_by_zero();
  return -std::numeric_limits<quad>::infinity();
}

/** The same. For zero, a NaN and infinity it is an invalid operation and gives FP_ILOGB0,
 *  FP_ILOGBNAN and INT_MAX. */
inline int ilogb(quad a) {
  if (isfinite(a) && !detail::is_zero(a)) return detail::unpack(a).exponent - detail::bias;
  detail::raise_invalid();
  if (isnan(a)) return FP_ILOGBNAN;
  return isinf(a) ? std::numeric_limits<int>::max() : FP_ILOGB0;
}

/** The number next to a in the direction of b. If a and b differ, an infinite result raises
 *  overflow and inexact, and a subnormal result or zero raises underflow and inexact. */
inline quad nextafter(quad a, quad b) {
  if (isunordered(a, b)) return a + b;
  if (a == b) return b;
  if (detail::is_zero(a)) {
    detail::raise_underflow_inexact();
    return detail::with_sign(signbit(b), 1);
  }
  const bool away = signbit(a) ? b < a : b > a;
  const detail::uint128 size = away ? abs(a).bits() + 1 : abs(a).bits() - 1;
  if (size == detail::infinity_bits) detail::raise_overflow_inexact();
  if (size < detail::leading_one) detail::raise_underflow_inexact();
  return detail::with_sign(signbit(a), size);
}

/* ---- Functions of libquadmath ---------------------------------------------------------------- */

#define ZORVAC_QUAD_1(name)                                                                \
  namespace detail {                                                                       \
  extern "C" float128_t zorvac_libquadmath_##name(float128_t) noexcept __asm__(#name "q"); \
  }                                                                                        \
  inline quad name(quad a) { return detail::zorvac_libquadmath_##name(static_cast<float128_t>(a)); }
#define ZORVAC_QUAD_2(name)                                                        \
  namespace detail {                                                               \
  extern "C" float128_t zorvac_libquadmath_##name(float128_t, float128_t) noexcept \
      __asm__(#name "q");                                                          \
  }                                                                                \
  inline quad name(quad a, quad b) {                                               \
    return detail::zorvac_libquadmath_##name(static_cast<float128_t>(a),           \
                                             static_cast<float128_t>(b));          \
  }
ZORVAC_QUAD_1(exp)
ZORVAC_QUAD_1(exp2)
ZORVAC_QUAD_1(expm1)
ZORVAC_QUAD_1(log)
ZORVAC_QUAD_1(log2)
ZORVAC_QUAD_1(log10)
ZORVAC_QUAD_1(log1p)
ZORVAC_QUAD_2(pow)
ZORVAC_QUAD_1(cbrt)
ZORVAC_QUAD_2(hypot)
ZORVAC_QUAD_1(sin)
ZORVAC_QUAD_1(cos)
ZORVAC_QUAD_1(tan)
ZORVAC_QUAD_1(asin)
ZORVAC_QUAD_1(acos)
ZORVAC_QUAD_1(atan)
ZORVAC_QUAD_2(atan2)
ZORVAC_QUAD_1(sinh)
ZORVAC_QUAD_1(cosh)
ZORVAC_QUAD_1(tanh)
ZORVAC_QUAD_1(asinh)
ZORVAC_QUAD_1(acosh)
ZORVAC_QUAD_1(atanh)
ZORVAC_QUAD_1(erf)
ZORVAC_QUAD_1(erfc)
ZORVAC_QUAD_1(lgamma)
ZORVAC_QUAD_1(tgamma)
#undef ZORVAC_QUAD_1
#undef ZORVAC_QUAD_2

}  // namespace zorvac
#endif
