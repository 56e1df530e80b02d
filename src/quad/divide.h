#ifndef ZORVAC_QUAD_DIVIDE_H
#define ZORVAC_QUAD_DIVIDE_H
// Division: one division of 128 by 64 bits by the processor, for a reciprocal of the divisor, and
// multiplications by it for two quotient digits. They take less time than the second division that
// digits of their own would cost.
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/places.h"
#include "quad/rounding.h"
#include "quad/words.h"

namespace zorvac::softfp {
namespace {
namespace division {

using f = binary128;

// The quotient of a dividend whose high word is below the divisor; the processor traps otherwise.
[[gnu::always_inline]] inline uint64_t divide_words(uint128 dividend, uint64_t divisor) {
  uint64_t quotient, remainder;
  asm("div %[divisor]"
      : "=a"(quotient), "=d"(remainder)
      : "a"(low(dividend)), "d"(high(dividend)), [divisor] "r"(divisor)
      : "cc");
  return quotient;
}

// floor(2^62 rest / divisor), given an estimate that is too large by a few units at most, and with
// bit 0 set where something remains.
inline uint64_t exact_digit(uint128 rest, uint64_t digit, uint128 divisor) {
  const uint128 low_part = uint128{digit} * low(divisor);
  const uint128 high_part = uint128{digit} * high(divisor) + high(low_part);
  const three_words product = {high(high_part), low(high_part), low(low_part)};
  const three_words dividend = {high(rest >> 2), low(rest >> 2), low(rest) << 62};
  three_words remainder = dividend + (product ^ ~uint64_t{0}) + three_words{0, 0, 1};
  for (; static_cast<std::int64_t>(remainder.high) < 0; --digit)
    remainder = remainder + three_words{0, high(divisor), low(divisor)};
  return digit | ((remainder.significand() | remainder.guard) != 0);
}

// Of two equal significands: a power of two, exact down to the smallest subnormal number, and as
// such it raises nothing, even where an exact tiny result of another origin would raise UE.
inline uint128 power_of_two(bool negative, int exponent) {
  if (exponent >= f::special_exponent) return overflow<f>(negative);
  if (exponent >= 1) return f::signed_word(negative, pack<f>(exponent, f::leading_one));
  if (exponent > -f::fraction_bits)
    return f::signed_word(negative, f::leading_one >> (1 - exponent));
  raise_underflow_inexact();
  const bool increment = rounds_up(rounding_control(), negative, false, 1);
  return f::signed_word(negative, increment);
}

// With a and b the significands as integers, v = 2^14 b and V its high word, at least 2^62:
//
//   2^122 a / b = 2^62 first + second + less than 1
//
// The reciprocal r = floor((2^126 - 1) / (V + 1)) is below 2^190 / v, by less than 2^126 / V^2 + 2,
// which is at most 6. So if x is below 2^128, floor(x / 2^64) * r / 2^64 is below 2^62 x / v, by
// less than 6 and 1 more for the bits of x that were cut off.
//
// For x = 2^15 a, an eighth of that, rounded down, is a first digit too small by less than 2: the
// rest that it leaves, 2^74 a - first * v, is below 2 v < 2^128. For x = rest, this is the second
// digit, too small by less than 8 after rounding down and so, with 8 added, too large by 8 at most.
// That changes none of the bits that are kept nor the first one below them, and leaves some other
// bit set, provided that the digit's low 8 bits, which lie below both, are more than 8.
struct digits {
  uint64_t first, second;

  [[gnu::always_inline]] bool may_be_wrong() const { return (second & 0xff) <= 8; }
  // Its leading one is at bit 58 of the high word or, of a quotient below 1, one place below.
  [[gnu::always_inline]] two_words quotient() const {
    return two_words{first >> 2, first << 62} + second;
  }
};

// The significands as the digits are taken from them: 2^15 a, of which the high word matters apart,
// and v.
struct dividend_and_divisor {
  uint64_t a_top, a_low;
  two_words v;

  // Of normal numbers.
  [[gnu::always_inline]] static dividend_and_divisor of(uint128 a, uint128 b) {
    return {uint64_t{1} << 63 | high(a) << 15 | low(a) >> 49,
            low(a),
            {uint64_t{1} << 62 | high(b) << 16 >> 2 | low(b) >> 50, low(b) << 14}};
  }

  // What the first digit leaves.
  [[gnu::always_inline]] uint128 rest(uint64_t first) const {
    const uint64_t upper = (a_low << 10) - first * v.high;  // modulo 2^64
    const two_words product = multiply_words(first, v.low);
    return make_uint128(upper, 0) - make_uint128(product.high, product.low);
  }
  [[gnu::always_inline]] digits estimate() const {
    const uint64_t reciprocal = divide_words((uint128{1} << 126) - 1, v.high + 1);
    const uint64_t first = multiply_words(a_top, reciprocal).high >> 3;
    return {first, multiply_words(high(rest(first)), reciprocal).high + 8};
  }
  digits corrected(digits d) const {
    return {d.first, exact_digit(rest(d.first), d.second, make_uint128(v.high, v.low))};
  }
};

inline uint128 divide_finite(unpacked<f> a, unpacked<f> b) {
  const bool negative = a.negative != b.negative;
  if (a.significand == b.significand)
    return power_of_two(negative, a.exponent - b.exponent + f::bias);
  const auto significands = dividend_and_divisor::of(a.significand, b.significand);
  const two_words digits = significands.corrected(significands.estimate()).quotient();
  const uint128 quotient = make_uint128(digits.high, digits.low);
  const auto from_one_up = static_cast<int>(high(quotient) >> 58);  // 1 or 0
  const int surplus = 9 + from_one_up;
  return round_and_pack<f, exact_underflow::raised_if_unmasked>(
      negative, a.exponent - b.exponent + f::bias - 1 + from_one_up, quotient >> surplus,
      low(quotient) << (64 - surplus));
}

// The slow path: any operands.
template <class Rules>
uint128 divide_any(uint128 a, uint128 b) {
  Rules::look_at(a, b);
  const bool negative = f::negative(a) != f::negative(b);
  if (is_nan<f>(a) || is_nan<f>(b)) return Rules::propagate_nan(a, b);
  if ((is_zero(a) && is_zero(b)) || (is_infinite(a) && is_infinite(b))) return invalid_operation();
  if (is_infinite(a)) return f::signed_word(negative, f::infinity);
  if (is_zero(a) || is_infinite(b)) return f::signed_word(negative, 0);
  if (is_zero(b)) {
    raise_divide_by_zero();
    return f::signed_word(negative, f::infinity);
  }
  if (is_subnormal(a) || is_subnormal(b)) raise_denormal();
  return divide_finite(unpack<f>(a), unpack<f>(b));
}
template <class Rules, class Result, class Operand>
[[gnu::cold, gnu::noinline]] auto divide_slowly(Result result, Operand a, Operand b) {
  return result(divide_any<Rules>(a.word(), b.word()));
}

// A quotient from its digits. Sign and exponent are computed in one: the difference of the signs is
// the quotient's, and what is borrowed beyond them is shifted out. The bits below those that are
// kept and the first one below them only tell whether the quotient is exact or half way between
// two.
[[gnu::always_inline]] inline uint128 round_quotient(uint128 a, uint128 b, two_words quotient,
                                                     bool neither_exact_nor_tie) {
  const uint64_t from_one_up = quotient.high >> 58;
  const auto surplus = 8 + static_cast<int>(from_one_up);
  const two_words doubled = quotient >> surplus;
  const uint64_t head = (head_of(a) - head_of(b) + from_one_up + (f::bias - 2))
                        << (f::fraction_bits - 64);
  if (neither_exact_nor_tie)
    return rounded_half_inexact(head, make_uint128(doubled.high, doubled.low));
  three_words packed = halved({doubled.high, doubled.low, quotient.low << (64 - surplus)});
  packed.high += head;
  return rounded_sum(packed);
}

// The end of the common path where the second digit decides on more than it tells.
template <class Result, class Operand>
[[gnu::cold, gnu::noinline]] auto finish_exactly(Result result, Operand a_operand,
                                                 Operand b_operand, uint64_t first,
                                                 uint64_t second) {
  const uint128 a = a_operand.word(), b = b_operand.word();
  const digits d = dividend_and_divisor::of(a, b).corrected({first, second});
  return result(round_quotient(a, b, d.quotient(), false));
}

// A quotient whose estimated digits serve is neither exact nor half way between two numbers.
template <class Rules, class Result, class Operand>
[[gnu::always_inline]] inline auto divide(Result result, Operand a_operand, Operand b_operand) {
  const uint128 a = a_operand.word(), b = b_operand.word();
  if (!is_common_case(a, b, [](int x, int y) { return x - y + f::bias - 1; })) [[unlikely]]
    return divide_slowly<Rules>(result, a_operand, b_operand);
  const digits d = dividend_and_divisor::of(a, b).estimate();
  if (d.may_be_wrong()) [[unlikely]]
    return finish_exactly(result, a_operand, b_operand, d.first, d.second);
  return result(round_quotient(a, b, d.quotient(), true));
}

}  // namespace division
using division::divide;

}  // namespace
}  // namespace zorvac::softfp
#endif
