#ifndef ZORVAC_QUAD_STICKY_DOUBLE_H
#define ZORVAC_QUAD_STICKY_DOUBLE_H
// A quad as a double, for conversions that the processor then does on its own, with their flags.
//
//   sign | exponent, 11 bits | the high word's fraction, 48 bits | 000 | s
//
// The lowest bit is sticky: it stands for all of the low word. What is converted to has 48 bits at
// most, so that whatever the processor decides by the bits below, it decides the same.
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

// Of a number whose exponent is neither 0 nor special in a double.
[[gnu::always_inline]] constexpr bool has_sticky_double(uint128 w) {
  using from = binary128;
  using to = binary64;
  constexpr int first = from::bias - to::bias + 1;
  return static_cast<unsigned>(from::exponent(w) - first) < unsigned{to::special_exponent - 1};
}
[[gnu::always_inline]] inline uint64_t sticky_double_word(uint128 w) {
  using from = binary128;
  using to = binary64;
  constexpr int up = to::fraction_bits - (from::fraction_bits - 64);
  constexpr uint64_t bias_change = static_cast<uint64_t>(to::bias - from::bias)
                                   << to::fraction_bits;
  const uint64_t magnitude = (high(w) << up) + bias_change;  // the sign and the exponent's top go
  return (magnitude & (to::sign_bit - 1)) | (high(w) & to::sign_bit) | uint64_t{low(w) != 0};
}
// Its integer part: in range with PE for any fraction, else with IE the most negative integer. A
// 64-bit one is right below 2^48 only. The statement is volatile: it may trap.
template <class Integer>
[[gnu::always_inline]] inline Integer truncate_by_processor(uint64_t sticky_double) {
  Integer integer;
  asm volatile("cvttsd2si %[value], %[integer]"
               : [integer] "=r"(integer)
               : [value] "x"(__builtin_bit_cast(double, sticky_double))
               : "memory");
  return integer;
}

// And the nearest float, of a number that is normal as one.
[[maybe_unused, gnu::always_inline]] inline float round_by_processor(uint64_t sticky_double) {
  float nearest = 0;  // the rest of the register stays, and so is waited for
  asm volatile("cvtsd2ss %[value], %[nearest]"
               : [nearest] "+x"(nearest)
               : [value] "x"(__builtin_bit_cast(double, sticky_double))
               : "memory");
  return nearest;
}

}  // namespace
}  // namespace zorvac::softfp
#endif
