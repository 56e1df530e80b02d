#ifndef ZORVAC_QUAD_DIVIDE_H
#define ZORVAC_QUAD_DIVIDE_H
// Division. The processor divides 128 by 64 bits once, for a reciprocal of the divisor.
// Multiplications by the reciprocal give two quotient digits: they take less time than a second
// division.
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/places.h"
#include "quad/rounding.h"
#include "quad/words.h"

namespace zorvac::softfp {
namespace {
namespace division {

using f = binary128;

// The dividend's high word must be below the divisor. Otherwise the processor traps.
[[gnu::always_inline]] inline uint64_t divide_words(uint128 dividend, uint64_t divisor) {
  uint64_t quotient, remainder;
  asm("div %[divisor]"
      : "=a"(quotient), "=d"(remainder)
      : "a"(low(dividend)), "d"(high(dividend)), [divisor] "r"(divisor)
      : "cc");
  return quotient;
}

// floor(2^62 rest / divisor), with bit 0 set if there is a remainder. `digit` is an estimate, too
// large by at most 8.
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

// The quotient of two equal significands: a power of two, exact down to the smallest subnormal
// number. An exact one raises nothing, even where another exact tiny result would raise UE.
inline uint128 power_of_two(bool negative, int exponent) {
  if (exponent >= f::special_exponent) return overflow<f>(negative);
  if (exponent >= 1) return f::signed_word(negative, pack<f>(exponent, f::leading_one));
  if (exponent > -f::fraction_bits)
    return f::signed_word(negative, f::leading_one >> (1 - exponent));
  raise_underflow_inexact();
  return rounded_to_zero_or_smallest<f>(negative);
}

// Let a and b be the significands as integers, v = 2^14 b, and V the high word of v, at least 2^62:
//
//   2^122 a / b = 2^62 first + second + less than 1
//
// The reciprocal r = floor((2^126 - 1) / (V + 1)) is below 2^190 / v, by less than 2^126 / V^2 + 2,
// which is at most 6. So if x is below 2^128, e(x) = floor(x / 2^64) * r / 2^64 is below
// 2^62 x / v, by less than 7: 6, and 1 for the bits of x that were cut off.
//
// The first digit is e(2^15 a) / 8, rounded down. It is too small by less than 2, so the rest that
// it leaves, 2^74 a - first * v, is below 2 v < 2^128. The second digit is e(rest), rounded down,
// plus 8. Without the 8 it would be too small by less than 8, so it is too large by at most 8. The
// bits that are kept, and the first one below them, lie above the digit's low 8 bits. If these are
// more than 8, the error changes no higher bit, and some bit below the first one is set.
struct digits {
  uint64_t first, second;

  [[gnu::always_inline]] bool may_be_wrong() const { return (second & 0xff) <= 8; }
  // Its leading one is at bit 58 of the high word or, if the quotient is below 1, at bit 57.
  [[gnu::always_inline]] two_words quotient() const {
    return two_words{first >> 2, first << 62} + second;
  }
};

// What the digits are computed from: the high word of 2^15 a, the low word of a, and v.
struct dividend_and_divisor {
  uint64_t a_top, a_low;
  two_words v;

  // Takes normal numbers or their significands.
  [[gnu::always_inline]] static dividend_and_divisor of(uint128 a, uint128 b) {
    return {uint64_t{1} << 63 | high(a) << 15 | low(a) >> 49,
            low(a),
            {uint64_t{1} << 62 | high(b) << 16 >> 2 | low(b) >> 50, low(b) << 14}};
  }

  // The rest that the first digit leaves.
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

// Rounds a quotient. Sign and exponent are computed together: the difference of the signs is the
// quotient's sign, and a borrow beyond it is shifted out. The bits below the first one that is not
// kept only decide whether the quotient is exact or half way between two numbers.
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

// The end of the common path if the estimated second digit is not good enough.
template <class Result, class Operand>
[[gnu::cold, gnu::noinline]] auto finish_exactly(Result result, Operand a_operand,
                                                 Operand b_operand, uint64_t first,
                                                 uint64_t second) {
  const uint128 a = a_operand.word(), b = b_operand.word();
  const digits d = dividend_and_divisor::of(a, b).corrected({first, second});
  return result(round_quotient(a, b, d.quotient(), false));
}

// If the estimated digits are good enough, the quotient is neither exact nor half way between two
// numbers.
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
