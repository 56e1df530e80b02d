#ifndef ZORVAC_QUAD_NARROW_H
#define ZORVAC_QUAD_NARROW_H
// Quads to smaller floating-point formats: one conversion over the target's format.
#include <type_traits>

#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/places.h"
#include "quad/rounding.h"
#include "quad/sticky_double.h"

namespace zorvac::softfp {
namespace {
namespace narrowing {

using q = binary128;

template <class F>
constexpr int lost_bits = q::precision - F::precision;

template <class F>
[[gnu::always_inline]] inline typename F::word narrow_finite(unpacked<q> number) {
  const uint128 rest = number.significand << (128 - lost_bits<F>);
  return round_and_pack<F>(number.negative, number.exponent - q::bias + F::bias,
                           static_cast<typename F::word>(number.significand >> lost_bits<F>),
                           high(rest) | (low(rest) != 0));
}

// The slow path: any number. A NaN keeps its sign and the top of its payload.
template <class F>
typename F::word narrow_any(uint128 w) {
  const bool negative = q::negative(w);
  if (is_signalling<q>(w)) raise_invalid();
  if (is_nan<q>(w)) {
    const auto payload = static_cast<typename F::word>(q::fraction(w) >> lost_bits<F>);
    return F::signed_word(negative, F::infinity | F::quiet_bit | payload);
  }
  if (is_infinite(w)) return F::signed_word(negative, F::infinity);
  if (is_zero(w)) return F::signed_word(negative, 0);
  if (is_subnormal(w)) raise_denormal();
  return narrow_finite<F>(unpack<q>(w));
}

template <class F, class Operand>
[[gnu::cold, gnu::noinline]] auto narrow_slowly(Operand a) {
  return value_of<F>(narrow_any<F>(a.word()));
}

// The common path: the exponent is well inside the target's range, so the number is not special.
//
// The processor rounds to a float. If the guard word comes from the low word alone, one shift puts
// exponent and fraction in place. After the bias is changed, the exponent's top bits are zeros. The
// shift drops them and the sign.
template <class F, class Operand>
[[gnu::always_inline]] inline auto narrow(Operand operand) {
  const uint128 w = operand.word();
  if (!is_safe_exponent<F>(q::exponent(w) - q::bias + F::bias)) [[unlikely]]
    return narrow_slowly<F>(operand);
  if constexpr (std::is_same_v<F, binary32>) {
    return round_by_processor(sticky_double_word(w));
  } else if constexpr (lost_bits<F> < 64 && sizeof(typename F::word) == sizeof(uint64_t)) {
    constexpr int up = 64 - lost_bits<F>;
    constexpr uint64_t bias_change = static_cast<uint64_t>(F::bias - q::bias) << F::fraction_bits;
    const uint64_t magnitude = (high(w) << up) + (low(w) >> lost_bits<F>)+bias_change;
    return value_of<F>(rounded<F>(F::signed_word(q::negative(w), magnitude), low(w) << up));
  } else {
    return value_of<F>(narrow_finite<F>(unpack_normal<q>(w)));
  }
}

}  // namespace narrowing
using narrowing::narrow;

}  // namespace
}  // namespace zorvac::softfp
#endif
