// Addition and subtraction.
//
// The common path, two normal numbers and a normal result, has no branch that depends on signs,
// on which operand is larger or on carries: for operands as they come a processor could not
// predict any of those. The operands are ordered by masks, and the smaller one is negated, or
// not, by masks too.
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/rounding.h"
#include "zorvac/quad.h"

namespace zorvac::softfp {
namespace {

using f = binary128;

// Significands are worked on with 14 bits below them and one above:
//
//   127     126           14   13             0
//   carry | significand      | guard bits, sticky
//
// Two guard bits and the sticky one would do: where the smaller operand is shifted by more than
// one place, a difference loses at most one place at the top.
constexpr int work_bits = 14;

struct operand {
  int exponent;
  uint128 significand;  // shifted to its working place
};

// For shifts by less than 64 places: a shift of a whole 128-bit integer spends half its time on
// distances from 64.
[[gnu::always_inline]] constexpr uint128 shift_left(uint128 x, int n) {
  return make_uint128(high(x) << n | low(x) >> 1 >> (63 - n), low(x) << n);
}
[[gnu::always_inline]] constexpr uint128 shift_right_sticky(uint128 x, int n) {
  const bool lost = low(x) << 1 << (63 - n) != 0;
  return make_uint128(high(x) >> n, high(x) << 1 << (63 - n) | low(x) >> n | lost);
}
[[gnu::noinline]] uint128 shift_right_far(uint128 x, int n) {
  if (n >= 128) return x != 0;
  return x >> n | (x << (128 - n) != 0);
}

// The sum or difference of two magnitudes where some place at the top is lost for good: the result
// is exact, and it is zero, a subnormal number or one that has lost 64 places and more.
[[gnu::cold, gnu::noinline]] uint128 pack_cancelled(bool negative, int exponent, uint128 sum) {
  if (sum == 0) return f::signed_word(rounding_control() == rounding::down, 0);
  int shift = leading_zeros(sum);
  if (shift > exponent) shift = exponent;  // then bit 127 stays 0, and the exponent field too
  sum = sum << shift >> (work_bits + 1);
  return f::signed_word(negative, pack<f>(exponent + 1 - shift, sum));
}

// The larger operand plus or minus the smaller one.
[[gnu::always_inline]] inline uint128 add_finite(bool negative, operand larger, operand smaller,
                                                 bool subtract) {
  const int distance = larger.exponent - smaller.exponent;
  const uint128 aligned = distance < 64 ? shift_right_sticky(smaller.significand, distance)
                                        : shift_right_far(smaller.significand, distance);
  const auto sign_mask = -uint128{subtract};
  const uint128 sum = larger.significand + (aligned ^ sign_mask) + subtract;

  // 0 for a carry to the top, 1 for none, more where leading places cancelled.
  const int shift = high(sum) != 0 ? leading_zeros(high(sum)) : 64;
  const int exponent = larger.exponent + 1 - shift;
  if (shift == 64 || exponent < 1) [[unlikely]]
    return pack_cancelled(negative, larger.exponent, sum);
  const uint128 normalised = shift_left(sum, shift);
  return round_and_pack<f>(negative, exponent, normalised >> (work_bits + 1),
                           low(normalised) << (63 - work_bits));
}

// Subnormal numbers have the exponent of the smallest normal ones, and no leading one.
operand unpack_any(uint128 magnitude) {
  const int exponent = f::exponent(magnitude);
  const uint128 leading_one = exponent != 0 ? f::leading_one : 0;
  return {exponent + (exponent == 0), (f::fraction(magnitude) | leading_one) << work_bits};
}

// a + b, or a - b, where an operand is zero, subnormal, infinite or a NaN.
//
// `subtract` tells whether magnitudes are subtracted.
[[gnu::cold, gnu::noinline]] uint128 add_special(uint128 a, uint128 b, bool subtract) {
  if (is_nan<f>(a) || is_nan<f>(b)) return propagate_nan(a, b);
  if (is_infinite(a) && is_infinite(b) && subtract) return invalid_operation();
  const uint128 ma = f::magnitude(a), mb = f::magnitude(b);
  const bool swapped = ma < mb;
  const bool negative = f::negative(a) != (subtract && swapped);
  if (is_infinite(a) || is_infinite(b)) return f::signed_word(negative, f::infinity);

  if (is_subnormal(a) || is_subnormal(b)) raise_denormal();
  if (is_zero(a) && is_zero(b) && !subtract) return a;
  if (is_zero(a) != is_zero(b)) return f::signed_word(negative, ma | mb);
  return add_finite(negative, unpack_any(swapped ? mb : ma), unpack_any(swapped ? ma : mb),
                    subtract);
}

[[gnu::always_inline]] inline operand unpack_normal_operand(uint128 magnitude) {
  return {f::exponent(magnitude), (f::fraction(magnitude) | f::leading_one) << work_bits};
}

// a + b where `subtract` says whether their effective signs differ.
[[gnu::always_inline]] inline void add(void* result, const void* a_address, const void* b_address,
                                       uint64_t negate_b) {
  const uint128 a = load(a_address), b = load(b_address);
  const bool subtract = ((high(a) ^ high(b) ^ negate_b) >> 63) != 0;
  if (either_is_special(a, b)) [[unlikely]]
    return store(result, add_special(a, b, subtract));
  const uint128 ma = f::magnitude(a), mb = f::magnitude(b);
  const bool swapped = ma < mb;
  const uint128 difference = (ma ^ mb) & -uint128{swapped};
  const bool negative = f::negative(a) != (swapped & subtract);
  store(result, add_finite(negative, unpack_normal_operand(ma ^ difference),
                           unpack_normal_operand(mb ^ difference), subtract));
}

}  // namespace
}  // namespace zorvac::softfp

void __addq(void* sum, const void* a, const void* b) { zorvac::softfp::add(sum, a, b, 0); }
void __subq(void* difference, const void* a, const void* b) {
  zorvac::softfp::add(difference, a, b, std::uint64_t{1} << 63);
}
