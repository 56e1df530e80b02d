#ifndef ZORVAC_QUAD_WIDEN_H
#define ZORVAC_QUAD_WIDEN_H
// Smaller floating-point formats to quads: always exact.
#include "quad/flags.h"
#include "quad/formats.h"
#include "quad/places.h"

namespace zorvac::softfp {
namespace {
namespace widening {

using q = binary128;

template <class F>
constexpr int added_fraction_bits = q::fraction_bits - F::fraction_bits;

// Zeros, subnormal numbers, infinities and NaNs.
template <class F, class Rules>
uint128 widen_special(typename F::word w) {
  const bool negative = F::negative(w);
  if (F::exponent(w) == F::special_exponent) {
    const uint128 special = q::infinity | uint128{F::fraction(w)} << added_fraction_bits<F>;
    if (Rules::widening_computes && is_signalling<F>(w)) {
      raise_invalid();
      return q::signed_word(negative, special | q::quiet_bit);
    }
    return q::signed_word(negative, special);
  }
  if (F::fraction(w) == 0) return q::signed_word(negative, 0);
  if (Rules::widening_computes) raise_denormal();
  const unpacked<F> number = unpack<F>(w);
  return q::signed_word(negative, pack<q>(number.exponent + q::bias - F::bias,
                                          uint128{number.significand} << added_fraction_bits<F>));
}
template <class F, class Rules, class Result>
[[gnu::cold, gnu::noinline]] auto widen_slowly(Result result, typename F::word w) {
  return result(widen_special<F, Rules>(w));
}

// One shift moves the fraction to the top of the wider one, and the exponent to its place.
template <class F, class Rules, class Result>
[[gnu::always_inline]] inline auto widen(Result result, typename F::word w) {
  const int exponent = F::exponent(w);
  if (exponent == 0 || exponent == F::special_exponent) [[unlikely]]
    return widen_slowly<F, Rules>(result, w);
  constexpr uint128 bias_difference = uint128{q::bias - F::bias} << q::fraction_bits;
  return result(q::signed_word(
      F::negative(w), (uint128{F::magnitude(w)} << added_fraction_bits<F>)+bias_difference));
}

// The exponents of an 80-bit number and of a quad have the same width and bias, so one shift is
// enough.
[[gnu::always_inline]] constexpr uint128 widened(x87::word w) {
  return w << added_fraction_bits<x87>;
}

}  // namespace widening
using widening::widen, widening::widened;

}  // namespace
}  // namespace zorvac::softfp
#endif
