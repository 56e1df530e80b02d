#ifndef ZORVAC_QUAD_ADD_H
#define ZORVAC_QUAD_ADD_H
// Addition and subtraction.
//
// The common path has no branch on the signs or on which operand is larger: a processor cannot
// predict such branches. Conditional moves order the operands, and a mask negates the smaller one
// or leaves it. A result with another exponent takes a branch: see `add`.
#include "quad/nan.h"
#include "quad/operands.h"
#include "quad/places.h"
#include "quad/rounding.h"
#include "quad/words.h"

namespace zorvac::softfp {
namespace {
namespace addition {

using f = binary128;

struct ordered_operands {
  uint128 larger, smaller;  // magnitudes
  bool negative;            // sign of the larger one, and of a result other than zero
  bool subtract;            // whether the signs differ
};

// `negate_b` is the sign bit or 0. It changes only this copy of b: a NaN operand keeps its sign.
inline ordered_operands order(uint128 a, uint128 b, uint64_t negate_b) {
  b ^= make_uint128(negate_b, 0);
  const bool subtract = f::negative(a) != f::negative(b);
  if (f::magnitude(a) < f::magnitude(b))
    return {f::magnitude(b), f::magnitude(a), f::negative(b), subtract};
  return {f::magnitude(a), f::magnitude(b), f::negative(a), subtract};
}

// Any finite operands.
inline uint128 add_finite(const ordered_operands& o) {
  // A subnormal number has the exponent of the smallest normal number, and no leading one.
  const int larger_exponent = f::exponent(o.larger) + (f::exponent(o.larger) == 0);
  const int smaller_exponent = f::exponent(o.smaller) + (f::exponent(o.smaller) == 0);
  const auto significand = [](uint128 w) {
    return f::fraction(w) | (f::exponent(w) != 0 ? f::leading_one : 0);
  };

  // A distance of 128 or more leaves only a sticky bit. That is enough: a difference then loses at
  // most one leading place, and the guard word's other bits are room for it.
  const auto aligned =
      shift_right_sticky(significand(o.smaller), 0, larger_exponent - smaller_exponent);
  const three_words addend = {high(aligned.significand), low(aligned.significand), aligned.guard};
  const uint128 larger = significand(o.larger);
  const three_words sum = add_or_subtract(larger, addend, -uint64_t{o.subtract});

  if (sum.significand() >> f::precision != 0)  // a carry
    return round_and_pack<f>(o.negative, larger_exponent + 1, sum.significand() >> 1,
                             sum.low << 63 | sum.guard >> 1, sum.guard & 1);

  // A shift to the left makes up for leading places that cancelled, as far as the exponent allows.
  // A shift by 2 or more leaves the guard word empty: the exponents then differ by at most 1.
  const int zeros =
      sum.significand() != 0 ? leading_zeros(sum.significand()) : 128 + leading_zeros(sum.guard);
  const int wanted = zeros - (128 - f::precision);
  const int shift = wanted < larger_exponent ? wanted : larger_exponent - 1;
  three_words normalised = sum << static_cast<unsigned>(shift & 63);
  if (shift >= 64) normalised = {normalised.low, normalised.guard, 0};
  if (normalised.significand() < f::leading_one)
    return f::signed_word(o.negative, normalised.significand());
  return round_and_pack<f>(o.negative, larger_exponent - shift, normalised.significand(),
                           normalised.guard);
}

// The slow path: any operands.
template <class Rules>
uint128 add_any(uint128 a, uint128 b, uint64_t negate_b) {
  Rules::look_at(a, b);
  const ordered_operands o = order(a, b, negate_b);
  if (is_nan<f>(a) || is_nan<f>(b)) return Rules::propagate_nan(a, b);
  if (is_infinite(o.smaller) && o.subtract) return invalid_operation();
  if (is_infinite(o.larger)) return f::signed_word(o.negative, f::infinity);

  if (is_subnormal(o.larger) || is_subnormal(o.smaller)) raise_denormal();
  if (o.larger == o.smaller && o.subtract)
    return f::signed_word(rounding_control() == rounding::down, 0);
  if (is_zero(o.smaller)) return f::signed_word(o.negative, o.larger);
  return add_finite(o);
}
template <class Rules, class Result, class Operand>
[[gnu::cold, gnu::noinline]] auto add_slowly(Result result, Operand a, Operand b,
                                             uint64_t negate_b) {
  return result(add_any<Rules>(a.word(), b.word(), negate_b));
}

constexpr int place = f::fraction_bits - 64;  // the leading one's, in the high word

// A difference whose high word cancelled. It has at most 65 bits, in the low word and at the top of
// the guard word, and is exact. The common path ordered the operands by their high words alone. If
// the order was wrong, the difference is below 0 and its high word is all ones. `head` is the
// larger operand's sign and exponent, less 1, in their places.
template <class Result>
[[gnu::cold, gnu::noinline]] auto cancelled(Result result, uint64_t head, uint64_t sum_high,
                                            uint64_t sum_low, uint64_t sum_guard) {
  uint128 rest = make_uint128(sum_low, sum_guard);
  if (sum_high != 0) {
    rest = -rest;
    head ^= high(f::sign_bit);
  } else if (rest == 0) {
    return result(f::signed_word(rounding_control() == rounding::down, 0));
  }
  const int zeros = leading_zeros(rest);  // in addition to place + 1 in the high word
  const uint128 significand = rest << zeros >> (128 - f::precision);
  head -= static_cast<uint64_t>(place + 1 + zeros) << place;  // the leading one adds 1
  return result(make_uint128(head + high(significand), low(significand)));
}

// A sum whose leading one is not in the larger operand's place: it is one place higher or, after a
// subtraction, anywhere lower. `head` is the larger operand's sign and exponent, less 1, in their
// places.
template <class Result>
[[gnu::always_inline]] inline auto normalised(Result result, uint64_t head, three_words sum) {
  if (static_cast<std::int64_t>(sum.high) <= 0) [[unlikely]]
    return cancelled(result, head, sum.high, sum.low, sum.guard);
  const int leading = highest_bit(sum.high);
  three_words packed = halved(sum << static_cast<unsigned>(place + 1 - leading));
  packed.high += head + (static_cast<uint64_t>(leading - place) << place);
  return result(rounded_sum(packed));
}

// The common path adds the smaller significand to the larger operand as a whole, or subtracts it:
//
//             127 .. 112             111 .. 0    guard word
//   larger    sign and exponent      fraction    0
//   smaller   0 .. significand >> distance ...   ................
//
// A distance below 64 loses no bit of the smaller operand and leaves the guard word's last bit
// free. Sign and exponent are already the result's, unless the sum carries into them or borrows
// from them. That case takes a branch: once in six additions if the exponents differ by up to 20,
// and less often in most programs. All other additions save a quarter of the instructions, and do
// not wait for the place of the leading one.
//
// `negate_b` is the sign bit or 0.
template <class Rules, class Result, class Operand>
[[gnu::always_inline]] inline auto add(Result result, Operand a, Operand b, uint64_t negate_b) {
  uint128 larger = a.word(), smaller = b.word();
  const uint64_t a_order = high(larger) << 1, b_order = high(smaller) << 1;
  smaller ^= make_uint128(negate_b, 0);
  exchange_if_less(a_order, b_order, larger, smaller);

  // An exponent from `first` up leaves room for all places that can cancel here. One up to `last`
  // leaves room for a carry and for rounding. Both operands are then normal numbers.
  constexpr uint64_t first = 128, last = f::special_exponent - 3;
  const uint64_t exponent = high(larger) << 1 >> (place + 1);
  const uint64_t distance = exponent - (high(smaller) << 1 >> (place + 1));
  if (exponent - first > last - first || distance >= 64) [[unlikely]]
    return add_slowly<Rules>(result, a, b, negate_b);

  const uint64_t all_ones_if_signs_differ =
      static_cast<uint64_t>(static_cast<std::int64_t>(high(larger) ^ high(smaller)) >> 63);
  const two_words addend = {high(f::fraction(smaller)) | high(f::leading_one), low(smaller)};
  three_words sum = add_or_subtract(
      larger, shift_into_guard(addend, static_cast<unsigned>(distance)), all_ones_if_signs_differ);
  if ((sum.high ^ high(larger)) >> place != 0) [[unlikely]] {
    const uint64_t head = ((high(larger) >> place) - 1) << place;
    sum.high -= head;
    return normalised(result, head, sum);
  }
  return result(rounded_sum(sum));
}

}  // namespace addition
using addition::add;

}  // namespace
}  // namespace zorvac::softfp
#endif
