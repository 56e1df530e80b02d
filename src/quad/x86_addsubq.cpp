// Addition and subtraction.
//
// The common path has no branch that depends on signs, on which operand is larger or on carries:
// for operands as they come, a processor could not predict any of those. The operands are ordered
// by conditional moves, and the smaller one is negated, or not, by a mask.
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/rounding.h"
#include "quad/words.h"
#include "zorvac/quad.h"

namespace zorvac::softfp {
namespace {

using f = binary128;

struct ordered_operands {
  uint128 larger, smaller;  // magnitudes
  bool negative;            // sign of the larger one, and of the result unless that is zero
  bool subtract;            // whether the smaller one's sign differs
};

// `negate_b` is the sign bit, or 0. It must not touch what b itself holds, for a NaN comes back
// with the sign it has.
[[gnu::always_inline]] inline ordered_operands order(uint128 a, uint128 b, uint64_t negate_b) {
  b ^= make_uint128(negate_b, 0);
  const uint128 difference = a ^ b;
  const uint128 larger = select_if_less(f::magnitude(a), f::magnitude(b), a, b);
  return {f::magnitude(larger), f::magnitude(larger ^ difference), f::negative(larger),
          f::negative(difference)};
}

// The sum or difference of two significands, aligned. The larger one's leading one is at its
// place, bit 112 of the upper two words. The sum's may be one place further up or, after a
// subtraction, anywhere below.
//
//             127 .. 113   112 .. 0          guard word
//   larger    0            significand       0
//   smaller   0            significand >> distance, ................
//
// Fewer than 64 places: none of the smaller significand's bits gets lost.
[[gnu::always_inline]] inline three_words add_aligned(uint128 larger, uint128 smaller, int distance,
                                                      bool subtract) {
  const three_words addend = shift_into_guard(smaller, distance);
  return three_words{high(larger), low(larger), subtract} + (addend ^ -uint64_t{subtract});
}

// The common path: a result well inside the normal numbers. Its leading one is shifted to the
// place of a carry, so that the lowest bit of the upper two words becomes the first of the guard
// word.
[[gnu::always_inline]] inline uint128 pack_sum(bool negative, int exponent, three_words sum) {
  constexpr int carry_place = f::precision - 64;
  const int shift = carry_place - highest_bit(sum.high);
  const three_words normalised = sum << shift;
  const uint128 significand =
      make_uint128(normalised.high >> 1, normalised.high << 63 | normalised.low >> 1);
  return f::signed_word(negative, rounded(negative, pack<f>(exponent + 1 - shift, significand),
                                          normalised.low << 63, normalised.guard));
}

// The same for any finite operands, at leisure.
[[gnu::cold, gnu::noinline]] uint128 add_finite(const ordered_operands& o) {
  // Subnormal numbers have the exponent of the smallest normal ones, and no leading one.
  const int larger_exponent = f::exponent(o.larger) + (f::exponent(o.larger) == 0);
  const int smaller_exponent = f::exponent(o.smaller) + (f::exponent(o.smaller) == 0);
  const auto significand = [](uint128 w) {
    return f::fraction(w) | (f::exponent(w) != 0 ? f::leading_one : 0);
  };

  // A distance of 114 and more leaves nothing but a sticky bit. Some room below the guard word's
  // first bits is all that a difference needs, as it loses one leading place at most then.
  const auto aligned =
      shift_right_sticky(significand(o.smaller), 0, larger_exponent - smaller_exponent);
  const three_words addend = {high(aligned.significand), low(aligned.significand), aligned.guard};
  const uint128 larger = significand(o.larger);
  const three_words sum =
      three_words{high(larger), low(larger), o.subtract} + (addend ^ -uint64_t{o.subtract});

  if (sum.significand() >> f::precision != 0)  // a carry
    return round_and_pack<f>(o.negative, larger_exponent + 1, sum.significand() >> 1,
                             sum.low << 63 | sum.guard >> 1, sum.guard & 1);

  // Leading places that cancelled come back by a shift, as far as the exponent goes. One of 2
  // places and more leaves the guard word empty: the exponents differ by 1 at most then.
  const int zeros =
      sum.significand() != 0 ? leading_zeros(sum.significand()) : 128 + leading_zeros(sum.guard);
  const int wanted = zeros - (128 - f::precision);
  const int shift = wanted < larger_exponent ? wanted : larger_exponent - 1;
  three_words normalised = sum << (shift & 63);
  if (shift >= 64) normalised = {normalised.low, normalised.guard, 0};
  if (normalised.significand() < f::leading_one)
    return f::signed_word(o.negative, normalised.significand());
  return round_and_pack<f>(o.negative, larger_exponent - shift, normalised.significand(),
                           normalised.guard);
}

// Where an exponent is special, or the result may be zero, subnormal or too large, or the operands
// are far apart.
[[gnu::cold, gnu::noinline]] uint128 add_general(uint128 a, uint128 b, uint64_t negate_b) {
  const ordered_operands o = order(a, b, negate_b);
  if (is_nan<f>(a) || is_nan<f>(b)) return propagate_nan(a, b);
  if (is_infinite(o.smaller) && o.subtract) return invalid_operation();
  if (is_infinite(o.larger)) return f::signed_word(o.negative, f::infinity);

  if (is_subnormal(o.larger) || is_subnormal(o.smaller)) raise_denormal();
  if (o.larger == o.smaller && o.subtract)
    return f::signed_word(rounding_control() == rounding::down, 0);
  if (is_zero(o.smaller)) return f::signed_word(o.negative, o.larger);
  return add_finite(o);
}

[[gnu::always_inline]] inline void add(void* result, const void* a_address, const void* b_address,
                                       uint64_t negate_b) {
  const uint128 a = load(a_address), b = load(b_address);
  const ordered_operands o = order(a, b, negate_b);
  const int exponent = static_cast<int>(o.larger >> f::fraction_bits);
  const int distance = exponent - static_cast<int>(o.smaller >> f::fraction_bits);
  // Exponents from 64 up leave room for all the places that can cancel here, and those below
  // `last` room for a carry and for rounding. Both operands are normal numbers then.
  constexpr int first = 64, last = f::special_exponent - 3;
  if (static_cast<unsigned>(exponent - first) > last - first || distance >= 64) [[unlikely]]
    return store(result, add_general(a, b, negate_b));
  const three_words sum =
      add_aligned(f::fraction(o.larger) | f::leading_one, f::fraction(o.smaller) | f::leading_one,
                  distance, o.subtract);
  if (sum.high == 0) [[unlikely]]
    return store(result, add_general(a, b, negate_b));
  store(result, pack_sum(o.negative, exponent, sum));
}

}  // namespace
}  // namespace zorvac::softfp

void __addq(void* sum, const void* a, const void* b) { zorvac::softfp::add(sum, a, b, 0); }
void __subq(void* difference, const void* a, const void* b) {
  zorvac::softfp::add(difference, a, b, std::uint64_t{1} << 63);
}
