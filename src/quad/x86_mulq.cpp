// Multiplication.
#include "core/export.h"
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/rounding.h"

namespace zorvac::softfp {
namespace {

using f = binary128;

// The significands' product, 226 or 225 bits, cut into significand and guard word.
//
// With one factor shifted left by 15 places and the other by 1, the upper 128 of 256 bits are the
// significand of a product below 2, and one place too many of one from 2 up.
[[gnu::always_inline]] inline uint128 multiply_finite(unpacked<f> a, unpacked<f> b) {
  const uint128 x = a.significand << 15, y = b.significand << 1;
  const uint128 low_low = uint128{low(x)} * low(y);
  const uint128 low_high = uint128{low(x)} * high(y);
  const uint128 high_low = uint128{high(x)} * low(y);
  const uint128 high_high = uint128{high(x)} * high(y);
  // high(y) is below 2^50, so neither of the two sums can wrap.
  const uint128 middle = low_high + high(low_low);
  const uint128 sum = high_low + low(middle);
  const uint128 product = high_high + high(middle) + high(sum);
  const uint64_t rest = low(sum) | (low(low_low) != 0);

  const int carry = static_cast<int>(product >> f::precision);  // 0 or 1
  const uint64_t guard =
      rest >> carry | (rest & 1) | (low(product) & static_cast<uint64_t>(carry)) << 63;
  return round_and_pack<f, exact_underflow::raised_if_unmasked>(
      a.negative != b.negative, a.exponent + b.exponent - f::bias + carry, product >> carry, guard);
}

// Where an operand is zero, subnormal, infinite or a NaN.
[[gnu::cold, gnu::noinline]] uint128 multiply_special(uint128 a, uint128 b) {
  const bool negative = f::negative(a) != f::negative(b);
  if (is_nan<f>(a) || is_nan<f>(b)) return propagate_nan(a, b);
  if (is_infinite(a) || is_infinite(b)) {
    if (is_zero(a) || is_zero(b)) return invalid_operation();
    return f::signed_word(negative, f::infinity);
  }
  if (is_subnormal(a) && is_subnormal(b)) {
    // Far below the smallest subnormal number: rounds to that or to zero.
    raise_denormal_underflow_inexact();
    return f::signed_word(negative, rounds_up(rounding_control(), negative, false, 1));
  }
  if (is_subnormal(a) || is_subnormal(b)) raise_denormal();
  if (is_zero(a) || is_zero(b)) return f::signed_word(negative, 0);
  return multiply_finite(unpack<f>(a), unpack<f>(b));
}

}  // namespace
}  // namespace zorvac::softfp

// One body serves both processor classes.
ZORVAC_EXPORT_AS("__mulq.L", void mulq_l(void* product, const void* a, const void* b));
void mulq_l(void* product, const void* a_address, const void* b_address) {
  using namespace zorvac::softfp;
  const uint128 a = load(a_address), b = load(b_address);
  if (either_is_special(a, b)) [[unlikely]]
    return store(product, multiply_special(a, b));
  store(product, multiply_finite(unpack_normal<binary128>(a), unpack_normal<binary128>(b)));
}
ZORVAC_EXPORT_AS("__mulq.A",
                 __attribute__((alias("__mulq.L"))) void mulq_a(void* product, const void* a,
                                                                const void* b));
