#ifndef ZORVAC_QUAD_OPERANDS_H
#define ZORVAC_QUAD_OPERANDS_H
// How the arithmetic tells the operands of its common path from all others.
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

// Whether one of two quads is zero, subnormal, infinite or a NaN: its exponent is 0 or all ones,
// and so 1 or 0 after an increment that wraps. One branch for both.
[[gnu::always_inline]] constexpr bool either_is_special(binary128::word a, binary128::word b) {
  constexpr int exponent_place = binary128::fraction_bits - 63;  // of the high word without sign
  constexpr uint64_t one = uint64_t{1} << exponent_place;
  const int a_is = (high(a) << 1) + one < 2 * one;
  const int b_is = (high(b) << 1) + one < 2 * one;
  return (a_is | b_is) != 0;
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
