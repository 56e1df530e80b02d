#ifndef ZORVAC_QUAD_TO_INTEGER_H
#define ZORVAC_QUAD_TO_INTEGER_H
// Numbers to integers, truncated. The caller handles numbers out of range.
#include "quad/flags.h"
#include "quad/formats.h"
#include "quad/sticky_double.h"

namespace zorvac::softfp {
namespace {

// The significand of a normal number, with its leading one at the top of two words.
[[gnu::always_inline]] constexpr uint128 significand_at_top(uint128 w) {
  return make_uint128(uint64_t{1} << 63 | high(w) << 15 | low(w) >> 49, low(w) << 15);
}

// The integer part of the magnitude of a normal number below 2^64. Raises PE for any fraction.
// There is no branch for numbers below 1, because it could be unpredictable.
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

template <class Integer>
[[gnu::always_inline]] constexpr Integer signed_integer(bool negative, uint64_t magnitude) {
  const uint64_t mask = -uint64_t{negative};
  return static_cast<Integer>((magnitude ^ mask) - mask);
}

// The integer part of a magnitude of any format, from 1 to below 2^128: one shift to the right, by
// 0 to 127 places from the top.
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
