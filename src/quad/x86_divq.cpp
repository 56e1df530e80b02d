// Division: two quotient digits of 64 bits each, long division in base 2^64 with the processor's
// own 128-by-64 division (Knuth, The Art of Computer Programming, volume 2, 4.3.1, algorithm D).
#include "core/export.h"
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/rounding.h"

namespace zorvac::softfp {
namespace {

using f = binary128;

// The quotient of a dividend whose high word is below the divisor; the processor traps otherwise.
[[gnu::always_inline]] inline uint64_t divide_words(uint128 dividend, uint64_t divisor) {
  uint64_t quotient, remainder;
  asm("div %4"
      : "=a"(quotient), "=d"(remainder)
      : "a"(low(dividend)), "d"(high(dividend)), "r"(divisor)
      : "cc");
  return quotient;
}

// Three words: a remainder on its way from one digit to the next.
struct partial_remainder {
  uint64_t top;
  uint128 rest;
};

// dividend * 2^64 - digit * divisor, modulo 2^192.
[[gnu::always_inline]] inline partial_remainder multiply_back(uint128 dividend, uint64_t digit,
                                                              uint128 divisor) {
  const uint128 low_part = uint128{digit} * low(divisor);
  const uint128 high_part = uint128{digit} * high(divisor) + high(low_part);
  const uint128 taken = high_part << 64 | low(low_part);
  const uint128 from = dividend << 64;
  return {high(dividend) - high(high_part) - (from < taken), from - taken};
}

// The next digit of a dividend below the divisor, whose top bit is set: from the leading words,
// which make it too large by 2 at most (theorem B of the section named above).
[[gnu::always_inline]] inline uint64_t estimate_digit(uint128 dividend, uint128 divisor) {
  if (high(dividend) >= high(divisor)) [[unlikely]]
    return ~uint64_t{0};
  return divide_words(dividend, high(divisor));
}

// Makes an estimated digit exact: adds the divisor back while the remainder is negative.
[[gnu::always_inline]] inline uint128 correct(partial_remainder r, uint64_t& digit,
                                              uint128 divisor) {
  while (static_cast<std::int64_t>(r.top) < 0) {
    --digit;
    r.rest += divisor;
    r.top += r.rest < divisor;
  }
  return r.rest;
}

// Of two equal significands: a power of two, exact down to the smallest subnormal number, and as
// such it raises nothing, even where an exact tiny result of another origin would raise UE.
[[gnu::cold, gnu::noinline]] uint128 power_of_two(bool negative, int exponent) {
  if (exponent >= f::special_exponent) return overflow<f>(negative);
  if (exponent >= 1) return f::signed_word(negative, pack<f>(exponent, f::leading_one));
  if (exponent > -f::fraction_bits)
    return f::signed_word(negative, f::leading_one >> (1 - exponent));
  raise_underflow_inexact();
  const bool increment = rounds_up(rounding_control(), negative, false, 1);
  return f::signed_word(negative, increment);
}

[[gnu::always_inline]] inline uint128 divide_finite(unpacked<f> a, unpacked<f> b) {
  const bool negative = a.negative != b.negative;
  if (a.significand == b.significand) [[unlikely]]
    return power_of_two(negative, a.exponent - b.exponent + f::bias);

  // The divisor's top bit is set. The dividend is below it, and the quotient's first digit has its
  // top bit set: the significand is the upper 113 bits of the 128 that the two digits have.
  const bool larger = a.significand > b.significand;
  const uint128 divisor = b.significand << 15;
  const uint128 dividend = a.significand << (larger ? 14 : 15);

  uint64_t first = estimate_digit(dividend, divisor);
  const uint128 rest = correct(multiply_back(dividend, first, divisor), first, divisor);
  uint64_t second = estimate_digit(rest, divisor);
  // The second digit may stay too large by up to 2 as long as that changes neither the bits that
  // are kept nor the guard word's being other than 0, on which side of a half it stands included.
  // Its low 14 bits lie below the first guard bit: from 5 up, they stay above 2.
  if ((second & 0x3fff) < 5) [[unlikely]]
    second |= correct(multiply_back(rest, second, divisor), second, divisor) != 0;
  return round_and_pack<f, exact_underflow::raised_if_unmasked>(
      negative, a.exponent - b.exponent + f::bias - 1 + larger, make_uint128(first, second) >> 15,
      second << 49);
}

// Where an operand is zero, subnormal, infinite or a NaN.
[[gnu::cold, gnu::noinline]] uint128 divide_special(uint128 a, uint128 b) {
  const bool negative = f::negative(a) != f::negative(b);
  if (is_nan<f>(a) || is_nan<f>(b)) return propagate_nan(a, b);
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

}  // namespace
}  // namespace zorvac::softfp

// One body serves both processor classes.
ZORVAC_EXPORT_AS("__divq.L", void divq_l(void* quotient, const void* a, const void* b));
void divq_l(void* quotient, const void* a_address, const void* b_address) {
  using namespace zorvac::softfp;
  const uint128 a = load(a_address), b = load(b_address);
  if (either_is_special(a, b)) [[unlikely]]
    return store(quotient, divide_special(a, b));
  store(quotient, divide_finite(unpack_normal<binary128>(a), unpack_normal<binary128>(b)));
}
ZORVAC_EXPORT_AS("__divq.A",
                 __attribute__((alias("__divq.L"))) void divq_a(void* quotient, const void* a,
                                                                const void* b));
