// Quads to smaller floating-point formats: one conversion over the target's format.
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/rounding.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

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

// Any number, at leisure. A NaN keeps its sign and the top of its payload.
template <class F>
[[gnu::cold, gnu::noinline]] typename F::word narrow_any(uint128 w) {
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

// A number well inside the target's range, which a special one's exponent never is. Where the guard
// word comes from the low word alone, one shift puts exponent and fraction in place: it drops the
// sign and of the exponent, once its bias is changed, zeros.
template <class F>
[[gnu::always_inline]] inline auto narrow(const void* address) {
  const uint128 w = load(address);
  if (!is_safe_exponent<F>(q::exponent(w) - q::bias + F::bias)) [[unlikely]]
    return value_of<F>(narrow_any<F>(w));
  if constexpr (lost_bits<F> < 64 && sizeof(typename F::word) == sizeof(uint64_t)) {
    constexpr int up = 64 - lost_bits<F>;
    constexpr uint64_t bias_change = static_cast<uint64_t>(F::bias - q::bias) << F::fraction_bits;
    const uint64_t magnitude = (high(w) << up) + (low(w) >> lost_bits<F>)+bias_change;
    return value_of<F>(rounded<F>(F::signed_word(q::negative(w), magnitude), low(w) << up));
  } else {
    return value_of<F>(narrow_finite<F>(unpack_normal<q>(w)));
  }
}

}  // namespace

float __qtof(const void* a) { return narrow<binary32>(a); }
double __qtod(const void* a) { return narrow<binary64>(a); }
long double __qtol(const void* a) { return narrow<x87>(a); }
