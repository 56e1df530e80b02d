// Multiplication: four partial products, added up and rounded once.
#include "core/export.h"
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/rounding.h"
#include "quad/words.h"

namespace zorvac::softfp {
namespace {

using f = binary128;

// The significands' product. With one factor's leading one at the top of its two words, bit 127,
// the product's is at bit 112 of its upper two words, where a significand has it, or one place
// below.
//
//   127 .. 113   112 .. 0        guard word         beyond
//   0            significand     ................   ................
[[gnu::always_inline]] inline uint128 multiply_finite(unpacked<f> a, unpacked<f> b) {
  const uint64_t x_high = high(a.significand) << 15 | low(a.significand) >> 49;
  const uint64_t x_low = low(a.significand) << 15;
  const uint64_t y_high = high(b.significand), y_low = low(b.significand);

  // The partial products added up; the whole is below 2^241, so nothing wraps at the top.
  const uint128 low_low = uint128{x_low} * y_low;
  const uint128 low_high = add_word(uint128{x_low} * y_high, high(low_low));
  const uint128 high_low = uint128{x_high} * y_low;
  const uint128 high_high = add_word(uint128{x_high} * y_high, high(low_high));
  const three_words product = three_words{high(high_high), low(high_high), low(high_low)} +
                              three_words{0, high(high_low), low(low_high)};

  const uint64_t from_two_up = product.high >> (f::fraction_bits - 64);  // 1 or 0
  const three_words normalised = product + (product & (from_two_up - 1));
  return round_and_pack<f, exact_underflow::raised_if_unmasked>(
      a.negative != b.negative, a.exponent + b.exponent - f::bias + static_cast<int>(from_two_up),
      normalised.significand(), normalised.guard, low(low_low));
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
  if (is_special(a) || is_special(b)) [[unlikely]]
    return store(product, multiply_special(a, b));
  store(product, multiply_finite(unpack_ordinary(a), unpack_ordinary(b)));
}
ZORVAC_EXPORT_AS("__mulq.A",
                 __attribute__((alias("__mulq.L"))) void mulq_a(void* product, const void* a,
                                                                const void* b));
