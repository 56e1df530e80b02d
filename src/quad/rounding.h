#ifndef ZORVAC_QUAD_ROUNDING_H
#define ZORVAC_QUAD_ROUNDING_H
// The one place that rounds, and that knows overflow and underflow (IEEE 754-2019, 4.3, 7.4, 7.5).
//
// A result arrives exact: a significand of the format's precision and, for everything below it, a
// 64-bit guard word, left-aligned. The lowest bit of the guard word is sticky: everything lost
// further down is ORed into it, so that "exactly half" stays distinct from "just above half". That
// is all that rounding needs.
#include "core/mxcsr.h"
#include "quad/flags.h"
#include "quad/formats.h"
#include "quad/words.h"

namespace zorvac::softfp {
namespace {

// MXCSR's rounding-control field, and a direction that only some conversions to integer use.
enum class rounding : std::uint32_t { to_nearest, down, up, toward_zero, away_from_zero };

[[gnu::always_inline]] inline rounding rounding_control() {
  return static_cast<rounding>((mxcsr::read() & mxcsr::rounding_field) >> mxcsr::rounding_shift);
}

constexpr uint64_t half = uint64_t{1} << 63;

// Whether rounding increments a magnitude with this guard word. A tie goes to the even neighbour:
// up from an odd number and down from an even one.
constexpr bool rounds_up(rounding mode, bool negative, bool odd, uint64_t guard) {
  switch (mode) {
    case rounding::to_nearest:
      return guard > half - odd;
    case rounding::down:
      return negative && guard != 0;
    case rounding::up:
      return !negative && guard != 0;
    case rounding::away_from_zero:
      return guard != 0;
    case rounding::toward_zero:
      break;
  }
  return false;
}
// The same for an inexact result, in a mode other than to nearest.
[[gnu::always_inline]] inline uint64_t rounds_up_directed(bool negative) {
  return rounding_control() == (negative ? rounding::down : rounding::up);
}

// Raises PE if a result is inexact, and returns whether to round it to nearest. For an exact result
// the answer is yes in every mode: rounding does not change it. There is no branch: exactness
// selects the addends.
//
// Storing MXCSR may stall a processor for as long as the rest of an addition takes. But two sums
// that raise PE show the mode: only when rounding to nearest is 1 + 3/4 ulp more than 1 + (the
// smallest normal number). So MXCSR is stored in the other modes only.
[[gnu::always_inline]] inline bool raise_inexact_to_nearest(
    uint64_t all_ones_if_inexact = ~uint64_t{0}) {
  const double* const at_exact = p_addends;
  const double* const addends = at_exact + static_cast<std::int64_t>(all_ones_if_inexact);
  const double one = at_exact[2];
  const double by_next_to_nothing = one + addends[0];
  const double by_most_of_ulp = one + addends[2];
  perform(by_next_to_nothing);
  return by_most_of_ulp > by_next_to_nothing;
}

// Rounds `packed`, a result already put together, and raises PE if it is inexact. `beyond` holds
// the bits below the guard word. Only whether it is zero matters.
//
// In the usual case, to nearest and neither exact nor a tie, the guard word's top bit is the
// increment. In the other cases that bit is set to the increment.
template <class F>
[[gnu::always_inline]] inline typename F::word rounded(typename F::word packed, uint64_t guard,
                                                       uint64_t beyond = 0) {
  if ((guard << 1 | beyond) == 0) [[unlikely]] {
    if (guard == 0) return packed;
    guard = static_cast<uint64_t>(packed) << 63;
  }
  if (!raise_inexact_to_nearest()) [[unlikely]]
    guard = rounds_up_directed(F::negative(packed)) << 63;
  return add_top_bit(packed, guard);
}

// The same for a quad. There is no branch for exact results: about one sum in ten is exact, and a
// processor cannot predict which.
[[maybe_unused, gnu::always_inline]] inline uint128 rounded_sum(three_words packed) {
  if (!raise_inexact_to_nearest(all_ones_unless_zero(packed.guard))) [[unlikely]]
    packed.guard = -rounds_up_directed(packed.high >> 63 != 0);
  return rounded_by_guard(packed);
}
// The same for a quad that is neither exact nor a tie, from twice its significand. `head` is added
// to the high word.
[[maybe_unused, gnu::always_inline]] inline uint128 rounded_half_inexact(uint64_t head,
                                                                         uint128 doubled) {
  uint64_t last = low(doubled);
  if (!raise_inexact_to_nearest()) [[unlikely]]
    last = (last & ~uint64_t{1}) | rounds_up_directed(head >> 63 != 0);
  return add_half(head, make_uint128(high(doubled), last));
}

template <class Word>
struct guarded {
  Word significand;
  uint64_t guard;
};

// Shifts right by any distance from 0 up. The bits shifted out enter the guard word.
//
//   significand                    guard word
//   ....................|..........--->|..................s    s is sticky
template <class Word>
constexpr guarded<Word> shift_right_sticky(Word significand, uint64_t guard, int distance) {
  auto wide = static_cast<uint128>(significand);
  if (distance >= 128) return {0, (wide | guard) != 0};
  if (distance >= 64) {
    guard = low(wide) | (guard != 0);
    wide = high(wide);
    distance -= 64;
  }
  if (distance == 0) return {static_cast<Word>(wide), guard};
  const auto lost = uint64_t{guard << (64 - distance) != 0};
  return {static_cast<Word>(wide >> distance),
          low(wide) << (64 - distance) | guard >> distance | lost};
}

// A magnitude rounded to an integer, in a direction of the caller's. Raises nothing.
template <class Word>
constexpr Word rounded_to_integer(rounding mode, bool negative, guarded<Word> exact) {
  const bool odd = (exact.significand & 1) != 0;
  return exact.significand + rounds_up(mode, negative, odd, exact.guard);
}

// Infinity, or the largest number in directions that do not lead away from zero: what a number just
// below infinity rounds to.
template <class F>
typename F::word overflow(bool negative) {
  raise_overflow_inexact();
  return F::signed_word(negative,
                        F::largest + rounds_up(rounding_control(), negative, true, ~uint64_t{0}));
}

// Zero or the smallest subnormal number: what a magnitude of at most half that number rounds to.
// Raises nothing.
template <class F>
typename F::word rounded_to_zero_or_smallest(bool negative) {
  return F::signed_word(negative, rounds_up(rounding_control(), negative, false, 1));
}

// What happens to a tiny result that is exact. IEEE 754-2019, 7.5, raises underflow for it if the
// program has asked for a trap.
enum class exact_underflow { ignored, raised_if_unmasked };

// A result below the normal numbers. Tininess is detected after rounding: the result is not tiny
// only if it becomes the smallest normal number when it is rounded to full precision.
template <class F, exact_underflow Exact>
typename F::word pack_tiny(bool negative, int exponent, typename F::word significand,
                           uint64_t guard) {
  const std::uint32_t status = mxcsr::read();
  const bool becomes_normal = exponent == 0 && significand == 2 * F::leading_one - 1 &&
                              rounds_up(rounding_control(), negative, true, guard);
  const auto shifted = shift_right_sticky(significand, guard, 1 - exponent);
  const auto packed = F::signed_word(negative, shifted.significand);
  if (shifted.guard != 0) {
    if (!becomes_normal) raise_underflow_inexact();
    return rounded<F>(packed, shifted.guard);
  }
  if (Exact == exact_underflow::raised_if_unmasked &&
      (status & mxcsr::underflow << mxcsr::mask_shift) == 0)
    raise_underflow();
  return packed;
}

// A result that may overflow, or that is tiny.
template <class F, exact_underflow Exact>
[[gnu::cold, gnu::noinline]] typename F::word round_and_pack_edge(bool negative, int exponent,
                                                                  typename F::word significand,
                                                                  uint64_t guard) {
  if (exponent < 1) return pack_tiny<F, Exact>(negative, exponent, significand, guard);
  if (exponent >= F::special_exponent) return overflow<F>(negative);
  const auto packed = rounded<F>(F::signed_word(negative, pack<F>(exponent, significand)), guard);
  return F::magnitude(packed) == F::infinity ? overflow<F>(negative) : packed;
}

// Rounds a result, puts it together and raises its exceptions. `exponent` is the biased exponent of
// the leading one, in any range, and the significand has its leading one in place.
template <class F, exact_underflow Exact = exact_underflow::ignored>
[[gnu::always_inline]] inline typename F::word round_and_pack(bool negative, int exponent,
                                                              typename F::word significand,
                                                              uint64_t guard, uint64_t beyond = 0) {
  constexpr auto safe_exponents = static_cast<unsigned>(F::special_exponent - 2);  // from 1 up
  if (static_cast<unsigned>(exponent - 1) >= safe_exponents) [[unlikely]]
    return round_and_pack_edge<F, Exact>(negative, exponent, significand, guard | (beyond != 0));
  return rounded<F>(F::signed_word(negative, pack<F>(exponent, significand)), guard, beyond);
}

// The same for a result that is not tiny and rounds to infinity at most. Raises nothing.
template <class F>
[[gnu::always_inline]] inline typename F::word round_and_pack_silently(bool negative, int exponent,
                                                                       typename F::word significand,
                                                                       uint64_t guard) {
  auto packed = pack<F>(exponent, significand);
  if (guard != 0) packed += rounds_up(rounding_control(), negative, (packed & 1) != 0, guard);
  return F::signed_word(negative, packed);
}

}  // namespace
}  // namespace zorvac::softfp
#endif
