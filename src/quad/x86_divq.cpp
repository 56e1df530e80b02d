// Division: two quotient digits, each by the processor's own 128-by-64 division and made too small
// or too large rather than exact, as there is room to spare: long division in a base so much
// smaller than 2^64 that a first digit is never wrong by more than 1 (after Knuth, The Art of
// Computer Programming, volume 2, 4.3.1, algorithm D).
#include "core/export.h"
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/rounding.h"
#include "quad/words.h"

namespace zorvac::softfp {
namespace {

using f = binary128;

struct quotient_and_remainder {
  uint64_t quotient, remainder;
};

// Of a dividend whose high word is below the divisor; the processor traps otherwise.
[[gnu::always_inline]] inline quotient_and_remainder divide_words(uint128 dividend,
                                                                  uint64_t divisor) {
  quotient_and_remainder result;
  asm("div %[divisor]"
      : "=a"(result.quotient), "=d"(result.remainder)
      : "a"(low(dividend)), "d"(high(dividend)), [divisor] "r"(divisor)
      : "cc");
  return result;
}

[[gnu::always_inline]] constexpr uint128 shift_left(uint128 x, int n) {  // 1 to 63 places
  return make_uint128(high(x) << n | low(x) >> (64 - n), low(x) << n);
}

// floor(2^63 rest / divisor), given an estimate that is not below it by less than 5 steps down,
// and with bit 0 set where something remains.
[[gnu::cold, gnu::noinline]] uint64_t exact_digit(uint128 rest, uint64_t digit, uint128 divisor) {
  for (;; --digit) {
    const uint128 low_part = uint128{digit} * low(divisor);
    const uint128 high_part = uint128{digit} * high(divisor) + high(low_part);
    const uint64_t product[] = {high(high_part), low(high_part), low(low_part)};
    const uint64_t dividend[] = {high(rest >> 1), low(rest >> 1), low(rest) << 63};
    int i = 0;
    while (i < 2 && product[i] == dividend[i]) ++i;
    if (product[i] == dividend[i]) return digit;
    if (product[i] < dividend[i]) return digit | 1;
  }
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

// With v, the divisor, V its high word and u, the dividend, placed as in the code,
//
//   u / v * 2^64 = first + rest / v     2^60 < first < 2^62
//
// where `first` comes from floor(u / V). That is not below floor(u * 2^64 / v), as V * 2^64 is not
// above v, and above it by first * (v mod 2^64) / v < 2^62 * 2^64 / 2^126 = 1 at most, rounded up:
// lowered by 1 it leaves a rest from 0 to below 2 v. The second digit, rest / v * 2^63, comes from
// floor(rest / 2 / V) and is too large by less than 5 in the same way. That changes none of the
// bits that are kept, nor the first one below them, and leaves some other bit set, provided that
// the digit's low 10 bits, which lie below both, are 5 or more.
//
// Both operands' significands as integers: the quotient first * 2^63 + second has 125 or 124 bits.
[[gnu::always_inline]] inline uint128 divide_finite(unpacked<f> a, unpacked<f> b) {
  const bool negative = a.negative != b.negative;
  if (a.significand == b.significand) [[unlikely]]
    return power_of_two(negative, a.exponent - b.exponent + f::bias);

  const uint128 u = shift_left(a.significand, 11), v = shift_left(b.significand, 14);
  const auto [first_estimate, remainder] = divide_words(u, high(v));
  const uint64_t first = first_estimate - 1;
  const uint128 rest = v + make_uint128(remainder, 0) - uint128{first_estimate} * low(v);

  uint64_t second = ~uint64_t{0};
  if (const uint128 half_rest = make_uint128(high(rest) >> 1, high(rest) << 63 | low(rest) >> 1);
      high(half_rest) < high(v)) [[likely]]
    second = divide_words(half_rest, high(v)).quotient;
  if ((second & 0x3ff) < 5) [[unlikely]]
    second = exact_digit(rest, second, v);

  const uint128 quotient = make_uint128(first >> 1, first << 63) + second;
  const auto from_one_up = static_cast<int>(high(quotient) >> 60);  // 1 or 0
  const three_words result = shift_into_guard(quotient, 11 + from_one_up);
  return round_and_pack<f, exact_underflow::raised_if_unmasked>(
      negative, a.exponent - b.exponent + f::bias - 1 + from_one_up, result.significand(),
      result.guard);
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
