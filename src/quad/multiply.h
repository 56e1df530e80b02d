#ifndef ZORVAC_QUAD_MULTIPLY_H
#define ZORVAC_QUAD_MULTIPLY_H
// Multiplication: four partial products, added up and rounded once.
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/places.h"
#include "quad/rounding.h"
#include "quad/words.h"

namespace zorvac::softfp {
namespace {
namespace multiplication {

using f = binary128;

// The significands' product. One factor has its leading one at bit 127, the other at bit 112. The
// product's is at bit 112 of its upper two words, as in a significand, or at bit 111: then the
// product is doubled. The bits from 112 up are what it adds to the exponent: 1 if doubled, else 2.
//
//   127 .. 112   111 .. 0        guard word         beyond
//   2 or 1       fraction        ................   ................
struct product {
  three_words words;
  uint64_t beyond;
};

[[gnu::always_inline]] inline product multiply_significands(two_words x, two_words y,
                                                            uint64_t leading_one) {
  // The sum of the partial products is below 2^241: it cannot wrap.
  const two_words low_low = multiply_words(x.low, y.low);
  const two_words low_high = multiply_words(x.low, y.high) + low_low.high;
  const two_words high_low = multiply_words(x.high, y.low);
  const two_words high_high = multiply_words(x.high, y.high) + low_high.high;
  three_words whole = three_words{high_high.high, high_high.low, high_low.low} +
                      three_words{0, high_low.high, low_high.low};
  double_or_add(whole, leading_one);
  return {whole, low_low.low};
}

inline uint128 multiply_finite(unpacked<f> a, unpacked<f> b) {
  const uint128 x = a.significand << 15, y = b.significand;
  const product p =
      multiply_significands({high(x), low(x)}, {high(y), low(y)}, high(f::leading_one));
  const uint128 packed = p.words.significand();
  return round_and_pack<f, exact_underflow::raised_if_unmasked>(
      a.negative != b.negative,
      a.exponent + b.exponent - f::bias - 1 + static_cast<int>(packed >> f::fraction_bits),
      f::fraction(packed) | f::leading_one, p.words.guard, p.beyond);
}

// The slow path: any operands.
template <class Rules>
uint128 multiply_any(uint128 a, uint128 b) {
  Rules::look_at(a, b);
  const bool negative = f::negative(a) != f::negative(b);
  if (is_nan<f>(a) || is_nan<f>(b)) return Rules::propagate_nan(a, b);
  if (is_infinite(a) || is_infinite(b)) {
    if (is_zero(a) || is_zero(b)) return invalid_operation();
    return f::signed_word(negative, f::infinity);
  }
  if (is_subnormal(a) && is_subnormal(b)) {
    // The product is far below the smallest subnormal number.
    raise_denormal_underflow_inexact();
    return rounded_to_zero_or_smallest<f>(negative);
  }
  if (is_subnormal(a) || is_subnormal(b)) raise_denormal();
  if (is_zero(a) || is_zero(b)) return f::signed_word(negative, 0);
  return multiply_finite(unpack<f>(a), unpack<f>(b));
}
template <class Rules, class Result, class Operand>
[[gnu::cold, gnu::noinline]] auto multiply_slowly(Result result, Operand a, Operand b) {
  return result(multiply_any<Rules>(a.word(), b.word()));
}

// Sign and exponent of the result are computed together: the sum of the signs is the product's
// sign, and a carry out of it is shifted out.
template <class Rules, class Result, class Operand>
[[gnu::always_inline]] inline auto multiply(Result result, Operand a_operand, Operand b_operand) {
  const uint128 a = a_operand.word(), b = b_operand.word();
  if (!is_common_case(a, b, [](int x, int y) { return x + y - f::bias; })) [[unlikely]]
    return multiply_slowly<Rules>(result, a_operand, b_operand);
  // If compilers knew these numbers, they would set single bits by an instruction that takes
  // longer, and set the top bit last.
  uint64_t leading_one = high(f::leading_one), top = uint64_t{1} << 63;
  asm("" : "+r"(leading_one), "+r"(top));
  uint64_t top_and_last = low(a) >> 49 | top;
  asm("" : "+r"(top_and_last));
  const two_words x = {high(a) << 15 | top_and_last, low(a) << 15};
  const two_words y = {high(f::fraction(b)) | leading_one, low(b)};
  const uint64_t head = (head_of(a) + head_of(b) - (f::bias + 1)) << (f::fraction_bits - 64);
  product p = multiply_significands(x, y, leading_one);
  p.words.high += head;
  return result(rounded<f>(p.words.significand(), p.words.guard, p.beyond));
}

}  // namespace multiplication
using multiplication::multiply;

}  // namespace
}  // namespace zorvac::softfp
#endif
