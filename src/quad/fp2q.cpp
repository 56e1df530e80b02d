// Smaller floating-point formats to quads: always exact.
#include "quad/formats.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

using q = binary128;

template <class F>
constexpr int added_fraction_bits = q::fraction_bits - F::fraction_bits;

// Zeros, subnormal numbers, infinities and NaNs. No NaN is quieted and nothing raised: this moves
// bits, it does not compute.
template <class F>
[[gnu::cold, gnu::noinline]] uint128 widen_special(typename F::word w) {
  const bool negative = F::negative(w);
  if (F::exponent(w) == F::special_exponent)
    return q::signed_word(negative,
                          q::infinity | uint128{F::fraction(w)} << added_fraction_bits<F>);
  if (F::fraction(w) == 0) return q::signed_word(negative, 0);
  const unpacked<F> number = unpack<F>(w);
  return q::signed_word(negative, pack<q>(number.exponent + q::bias - F::bias,
                                          uint128{number.significand} << added_fraction_bits<F>));
}

// The magnitude's fraction moves to the top of the wider one, and the exponent to its place.
template <class F>
[[gnu::always_inline]] inline uint128 widen(typename F::word w) {
  const int exponent = F::exponent(w);
  if (exponent == 0 || exponent == F::special_exponent) [[unlikely]]
    return widen_special<F>(w);
  constexpr uint128 bias_difference = uint128{q::bias - F::bias} << q::fraction_bits;
  return q::signed_word(F::negative(w),
                        (uint128{F::magnitude(w)} << added_fraction_bits<F>)+bias_difference);
}

// What the x87 makes of a number multiplied by 1 with a significand of 64 bits, whatever precision
// the program has set: signalling NaNs become quiet and the x87 raises its own flags.
const long double __l_one = 1.0L;

inline long double through_x87(long double value) {
  constexpr std::uint16_t full_precision = 0x300;  // of the control word's field
  std::uint16_t saved;
  asm volatile("fnstcw %0" : "=m"(saved));
  const auto full = static_cast<std::uint16_t>(saved | full_precision);
  long double product;
  asm volatile(
      "fldcw %[full]\n\t"
      "fldt %[value]\n\t"
      "fldt %[one]\n\t"
      "fmulp\n\t"
      "fstpt %[product]\n\t"
      "fldcw %[saved]"
      : [product] "=m"(product)
      : [value] "m"(value), [one] "m"(__l_one), [full] "m"(full), [saved] "m"(saved)
      : "st", "st(1)");
  return product;
}

}  // namespace

void __ftoq(void* destination, float value) { store(destination, widen<binary32>(word_of(value))); }
void __dtoq(void* destination, double value) {
  store(destination, widen<binary64>(word_of(value)));
}

// The exponents have the same width and bias: the word is shifted as it is.
void __ltoq(void* destination, long double value) {
  store(destination, word_of(through_x87(value)) << added_fraction_bits<x87>);
}
