#ifndef ZORVAC_QUAD_TO_INTEGER_H
#define ZORVAC_QUAD_TO_INTEGER_H
// Numbers to integers, truncated. What is out of range is the caller's business.
#include "quad/flags.h"
#include "quad/formats.h"
#include "quad/sticky_double.h"

namespace zorvac::softfp {
namespace {

// The significand of a normal number, its leading one at the top of two words.
[[gnu::always_inline]] constexpr uint128 significand_at_top(uint128 w) {
  return make_uint128(uint64_t{1} << 63 | high(w) << 15 | low(w) >> 49, low(w) << 15);
}

// The integer part alone, of a normal number, raising PE for any fraction. A number below 1 is no
// case of its own: whether an operand is one may be unpredictable.
[[gnu::always_inline]] inline uint64_t truncate(uint128 w) {
  const uint128 significand = significand_at_top(w);
  const int distance = binary128::bias + 63 - binary128::exponent(w);
  const uint64_t below_64 = -uint64_t{distance < 64};
  const uint64_t magnitude = high(significand) >> (distance & 63) & below_64;
  const uint64_t fraction = high(significand) ^ magnitude << (distance & 63);
  if ((fraction | low(significand)) != 0) raise_inexact();
  return magnitude;
}

// Whether a number is normal and below 2^bits.
[[gnu::always_inline]] constexpr bool is_normal_below(uint128 w, int bits) {
  return static_cast<unsigned>(binary128::exponent(w) - 1) <
         static_cast<unsigned>(binary128::bias + bits - 1);
}

// The integer part of a number that has a sticky double, by the processor: in range with PE for any
// fraction, else with IE the most negative integer. A 64-bit one is right below 2^48 only.
template <class Integer>
[[gnu::always_inline]] inline Integer truncate_by_processor(uint64_t sticky_double) {
  Integer integer;
  asm volatile("cvttsd2si %[value], %[integer]"
               : [integer] "=r"(integer)
               : [value] "x"(std::bit_cast<double>(sticky_double))
               : "memory");
  return integer;
}

template <class Integer>
[[gnu::always_inline]] constexpr Integer signed_integer(bool negative, uint64_t magnitude) {
  const uint64_t mask = -uint64_t{negative};
  return static_cast<Integer>((magnitude ^ mask) - mask);
}

// The integer part of a number of any format, from 1 to below 2^128. One shift to the right serves
// all magnitudes: 0 to 127 places from the top.
template <class F>
[[gnu::always_inline]] inline uint128 truncate_wide(typename F::word w) {
  const uint128 significand = uint128{F::fraction(w) | F::leading_one} << (127 - F::fraction_bits);
  const int distance = F::bias + 127 - F::exponent(w);
  const uint128 magnitude = significand >> distance;
  if (magnitude << distance != significand) raise_inexact();
  return magnitude;
}

}  // namespace
}  // namespace zorvac::softfp
#endif
