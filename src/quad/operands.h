#ifndef ZORVAC_QUAD_OPERANDS_H
#define ZORVAC_QUAD_OPERANDS_H
// How the arithmetic recognises the operands of its common path.
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

// Zeros, subnormal numbers, infinities and NaNs.
[[gnu::always_inline]] constexpr bool is_special(binary128::word w) {
  const int exponent = binary128::exponent(w);
  return exponent == 0 || exponent == binary128::special_exponent;
}

// Whether the magnitude is from 2^-8191 to below 2^8191. Products and quotients of two such numbers
// are normal numbers. This takes one addition and one comparison.
[[gnu::always_inline]] constexpr bool is_moderate(binary128::word w) {
  constexpr int exponent_place = binary128::fraction_bits - 63;
  constexpr uint64_t first = binary128::bias - 8191, past = binary128::bias + 8191;
  return (high(w) << 1) - (first << exponent_place) < (past - first) << exponent_place;
}

// Whether a result with this exponent is a normal number, even if rounding adds 1 to the exponent.
template <class F>
[[gnu::always_inline]] constexpr bool is_safe_exponent(int exponent) {
  return static_cast<unsigned>(exponent - 1) < unsigned{F::special_exponent - 2};
}

// Whether two operands can take the common path of multiplication or division. Outside the moderate
// range they may still be normal numbers, and so may the result. Its exponent is then `exponent_of`
// or one more.
template <class ExponentOf>
[[gnu::always_inline]] constexpr bool is_common_case(binary128::word a, binary128::word b,
                                                     ExponentOf exponent_of) {
  using f = binary128;
  if (is_moderate(a) && is_moderate(b)) [[likely]]
    return true;
  const int exponent = exponent_of(f::exponent(a), f::exponent(b));
  return !is_special(a) && !is_special(b) && is_safe_exponent<f>(exponent) &&
         is_safe_exponent<f>(exponent + 1);
}

// The sign and the exponent, from the top of a number.
[[gnu::always_inline]] constexpr uint64_t head_of(binary128::word w) {
  return high(w) >> (binary128::fraction_bits - 64);
}

[[gnu::always_inline]] constexpr bool is_zero(binary128::word w) {
  return binary128::magnitude(w) == 0;
}
[[gnu::always_inline]] constexpr bool is_infinite(binary128::word w) {
  return binary128::magnitude(w) == binary128::infinity;
}
[[gnu::always_inline]] constexpr bool is_subnormal(binary128::word w) {
  return !is_zero(w) && binary128::exponent(w) == 0;
}

}  // namespace
}  // namespace zorvac::softfp
#endif
