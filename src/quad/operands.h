#ifndef ZORVAC_QUAD_OPERANDS_H
#define ZORVAC_QUAD_OPERANDS_H
// How the arithmetic tells the operands of its common path from all others.
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

// The exponent plus 1, modulo 2^15: of a zero or subnormal number 1, of an infinity or a NaN 0, of
// all others more. Not every compiler sees that one addition and one shift do.
[[gnu::always_inline]] constexpr int wrapped_exponent(binary128::word w) {
  constexpr int exponent_place = binary128::fraction_bits - 63;  // in the high word without sign
  return static_cast<int>(((high(w) << 1) + (uint64_t{1} << exponent_place)) >> exponent_place);
}
[[gnu::always_inline]] constexpr bool is_special(binary128::word w) {
  return wrapped_exponent(w) <= 1;
}
// Of a number that is not special.
[[gnu::always_inline]] constexpr unpacked<binary128> unpack_ordinary(binary128::word w) {
  unpacked<binary128> number = unpack_normal<binary128>(w);
  number.exponent = wrapped_exponent(w) - 1;
  return number;
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
