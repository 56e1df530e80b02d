// 128-bit integers to floating-point numbers, rounded as MXCSR says, without raising a flag: one
// conversion over the target's format.
//
// An operation that shows the rounding mode would raise the inexact flag. So an inexact conversion
// stores MXCSR, which takes some processors longer than the rest of the conversion. An exact one
// does not.
#include "quad/formats.h"
#include "quad/rounding.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

//   leading one at the top:  significand, F::precision bits | guard word | sticky
//
// An unsigned integer close to 2^128 may round to infinity as a float: the carry ends in the
// exponent field, and the word is then an infinity.
template <class F>
typename F::word converted(bool negative, uint128 magnitude) {
  if (magnitude == 0) return 0;
  const int unused_bits = leading_zeros(magnitude);
  magnitude <<= unused_bits;
  const uint128 rest = magnitude << F::precision;
  return round_and_pack_silently<F>(
      negative, F::bias + 127 - unused_bits,
      static_cast<typename F::word>(magnitude >> (128 - F::precision)),
      high(rest) | (low(rest) != 0));
}

template <class F>
typename F::word from_unsigned(zorvac_uint128_t value) {
  return converted<F>(false, value);
}
template <class F>
typename F::word from_signed(zorvac_int128_t value) {
  const auto word = static_cast<uint128>(value);
  return converted<F>(value < 0, value < 0 ? -word : word);
}

}  // namespace

float __ntof(zorvac_uint128_t value) { return value_of<binary32>(from_unsigned<binary32>(value)); }
double __ntod(zorvac_uint128_t value) { return value_of<binary64>(from_unsigned<binary64>(value)); }
long double __ntol(zorvac_uint128_t value) { return value_of<x87>(from_unsigned<x87>(value)); }
void __ntoq(void* q, zorvac_uint128_t value) { store(q, from_unsigned<binary128>(value)); }

float __mtof(zorvac_int128_t value) { return value_of<binary32>(from_signed<binary32>(value)); }
double __mtod(zorvac_int128_t value) { return value_of<binary64>(from_signed<binary64>(value)); }
long double __mtol(zorvac_int128_t value) { return value_of<x87>(from_signed<x87>(value)); }
void __mtoq(void* q, zorvac_int128_t value) { store(q, from_signed<binary128>(value)); }
