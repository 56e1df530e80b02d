// Quads in memory to integers of 32 and 64 bits.
//
// A number out of range raises IE and gives the integer indefinite: the most negative number of the
// type, or the same bits unsigned.
#include <type_traits>

#include "quad/rounding.h"
#include "quad/to_integer.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

using q = binary128;

template <class Integer>
constexpr int width = 8 * static_cast<int>(sizeof(Integer));
template <class Integer>
constexpr uint64_t indefinite_word = uint64_t{1} << (width<Integer> - 1);

template <class Integer>
[[gnu::cold, gnu::noinline]] Integer indefinite() {
  raise_invalid();
  return static_cast<Integer>(indefinite_word<Integer>);
}

// Integer part and fraction of a magnitude below 2^64; the fraction's lowest bit is sticky.
[[gnu::always_inline]] inline guarded<uint64_t> split(uint128 w) {
  const int exponent = q::exponent(w);
  if (exponent == 0) return {0, q::fraction(w) != 0};
  const uint128 significand = significand_at_top(w);
  return shift_right_sticky(high(significand), low(significand), q::bias + 63 - exponent);
}

// The rounding argument. An unknown one is `Otherwise`.
template <rounding Otherwise>
constexpr rounding rounding_of(int argument) {
  switch (argument) {
    case ZORVAC_TO_INT_TOWARD_ZERO:
      return rounding::toward_zero;
    case ZORVAC_TO_INT_NEAREST:
      return rounding::to_nearest;
    case ZORVAC_TO_INT_DOWN:
      return rounding::down;
    case ZORVAC_TO_INT_UP:
      return rounding::up;
  }
  return Otherwise;
}

template <class Integer, rounding Otherwise>
[[gnu::noinline]] Integer round_to_signed(uint128 w, int mode) {
  const bool negative = q::negative(w);
  const uint64_t limit = indefinite_word<Integer> - !negative;
  if (q::exponent(w) >= q::bias + 64) return indefinite<Integer>();
  const guarded<uint64_t> exact = split(w);
  const uint64_t magnitude = rounded_to_integer(rounding_of<Otherwise>(mode), negative, exact);
  if (exact.significand > limit || magnitude > limit) return indefinite<Integer>();  // it may wrap
  if (exact.guard != 0) raise_inexact();
  return signed_integer<Integer>(negative, magnitude);
}

// The exponent alone decides whether a number is in range. For 32 bits the range is one binade
// wider than the type, so 33-bit values wrap. Part of the interface.
template <class Integer>
constexpr int end_of_range = q::bias + (width<Integer> == 32 ? 33 : width<Integer>);

template <class Integer>
[[gnu::always_inline]] constexpr bool is_out_of_range(uint128 w) {
  const int exponent = q::exponent(w);
  return exponent >= q::bias && (exponent >= end_of_range<Integer> || q::negative(w));
}

// Takes any number.
template <class Integer>
[[gnu::always_inline]] inline Integer truncate_to_unsigned(uint128 w) {
  if (is_out_of_range<Integer>(w)) [[unlikely]]
    return indefinite<Integer>();
  if (q::exponent(w) != 0) [[likely]]
    return static_cast<Integer>(truncate(w));
  if (q::fraction(w) != 0) raise_inexact();
  return 0;
}
[[gnu::cold, gnu::noinline]] std::uint32_t to_unsigned_slowly(uint128 w) {
  return truncate_to_unsigned<std::uint32_t>(w);
}

}  // namespace

std::int32_t __qtoi(const void* a, int mode) {
  const uint128 w = load(a);
  if (mode == ZORVAC_TO_INT_TOWARD_ZERO && has_sticky_double(w)) [[likely]]
    return truncate_by_processor<std::int32_t>(sticky_double_word(w));
  return round_to_signed<std::int32_t, rounding::away_from_zero>(w, mode);
}
std::int64_t __qtoj(const void* a, int mode) {
  const uint128 w = load(a);
  if (mode == ZORVAC_TO_INT_TOWARD_ZERO && is_normal_below(w, 63)) [[likely]]
    return signed_integer<std::int64_t>(q::negative(w), truncate(w));
  return round_to_signed<std::int64_t, rounding::toward_zero>(w, mode);
}

// A number out of range becomes a NaN, without a branch: the sign may be unpredictable.
std::uint32_t __qtou(const void* a) {
  const uint128 w = load(a);
  if (!has_sticky_double(w)) [[unlikely]]
    return to_unsigned_slowly(w);
  const int exponent = q::exponent(w);
  const bool refused =
      (exponent >= end_of_range<std::uint32_t>) | ((exponent >= q::bias) & q::negative(w));
  const auto wide = static_cast<uint64_t>(
      truncate_by_processor<std::int64_t>(sticky_double_word(w) | -uint64_t{refused}));
  return static_cast<std::uint32_t>(wide | (wide >> 63 << 31));
}
std::uint64_t __qtok(const void* a) { return truncate_to_unsigned<uint64_t>(load(a)); }
