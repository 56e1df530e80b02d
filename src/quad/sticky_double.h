#ifndef ZORVAC_QUAD_STICKY_DOUBLE_H
#define ZORVAC_QUAD_STICKY_DOUBLE_H
// A quad as a double, which the processor then converts, with all flags.
//
//   sign | exponent, 11 bits | the high word's fraction, 48 bits | 000 | s
//
// The lowest bit is sticky: it is set if the low word is not 0. The conversion keeps at most 48
// bits, so the bits below them lead the processor to the same decision as the quad's would.
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

// Whether the exponent would be neither 0 nor special in a double.
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
  const uint64_t magnitude = (high(w) << up) + bias_change;  // drops sign and exponent's top bits
  return (magnitude & (to::sign_bit - 1)) | (high(w) & to::sign_bit) | uint64_t{low(w) != 0};
}
// The integer part. PE is raised for any fraction. Out of range the result is the most negative
// integer, with IE. A 64-bit result is right only below 2^48. The statement is volatile: it may
// trap.
template <class Integer>
[[gnu::always_inline]] inline Integer truncate_by_processor(uint64_t sticky_double) {
  Integer integer;
  asm volatile("cvttsd2si %[value], %[integer]"
               : [integer] "=r"(integer)
               : [value] "x"(__builtin_bit_cast(double, sticky_double))
               : "memory");
  return integer;
}

// The float that a number rounds to by MXCSR. The exponent must be a normal float's.
[[maybe_unused, gnu::always_inline]] inline float round_by_processor(uint64_t sticky_double) {
  float nearest = 0;  // the instruction keeps the rest of the register, and so waits for it
  asm volatile("cvtsd2ss %[value], %[nearest]"
               : [nearest] "+x"(nearest)
               : [value] "x"(__builtin_bit_cast(double, sticky_double))
               : "memory");
  return nearest;
}

}  // namespace
}  // namespace zorvac::softfp
#endif
