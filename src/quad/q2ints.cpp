// Quads to integers of 32 and 64 bits.
//
// What cannot be represented gives the integer indefinite, the most negative number of the type
// or the same bits unsigned, and raises IE.
#include <type_traits>

#include "quad/rounding.h"
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

// The significand of a normal number, its leading one at the top of two words.
[[gnu::always_inline]] constexpr uint128 significand_at_top(uint128 w) {
  return make_uint128(uint64_t{1} << 63 | high(w) << 15 | low(w) >> 49, low(w) << 15);
}

// Integer part and fraction of a magnitude below 2^64; the fraction's lowest bit is sticky.
[[gnu::always_inline]] inline guarded<uint64_t> split(uint128 w) {
  const int exponent = q::exponent(w);
  if (exponent == 0) return {0, q::fraction(w) != 0};
  const uint128 significand = significand_at_top(w);
  return shift_right_sticky(high(significand), low(significand), q::bias + 63 - exponent);
}

// The integer part alone, of a normal number, raising PE for any fraction. A number below 1 is no
// case of its own: whether an operand is one may be unpredictable.
[[gnu::always_inline]] inline uint64_t truncate(uint128 w) {
  const uint128 significand = significand_at_top(w);
  const int distance = q::bias + 63 - q::exponent(w);
  const uint64_t below_64 = -uint64_t{distance < 64};
  const uint64_t magnitude = high(significand) >> (distance & 63) & below_64;
  const uint64_t fraction = high(significand) ^ magnitude << (distance & 63);
  if ((fraction | low(significand)) != 0) raise_inexact();
  return magnitude;
}

// Whether a number is normal and below 2^bits.
[[gnu::always_inline]] constexpr bool is_normal_below(uint128 w, int bits) {
  return static_cast<unsigned>(q::exponent(w) - 1) < static_cast<unsigned>(q::bias + bits - 1);
}

// The rounding argument. Whatever it does not know goes to `Otherwise`.
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

template <class Integer>
[[gnu::always_inline]] constexpr Integer signed_integer(bool negative, uint64_t magnitude) {
  const uint64_t mask = -uint64_t{negative};
  return static_cast<Integer>((magnitude ^ mask) - mask);
}

template <class Integer, rounding Otherwise>
[[gnu::noinline]] Integer round_to_signed(uint128 w, int mode) {
  const bool negative = q::negative(w);
  const uint64_t limit = indefinite_word<Integer> - !negative;
  if (q::exponent(w) >= q::bias + 64) return indefinite<Integer>();
  const auto [magnitude, guard] = split(w);
  const bool increment =
      rounds_up(rounding_of<Otherwise>(mode), negative, (magnitude & 1) != 0, guard);
  if (magnitude > limit - increment) return indefinite<Integer>();
  if (guard != 0) raise_inexact();
  return signed_integer<Integer>(negative, magnitude + increment);
}

template <class Integer, rounding Otherwise>
[[gnu::always_inline]] inline Integer to_signed(const void* address, int mode) {
  const uint128 w = load(address);
  if (mode == ZORVAC_TO_INT_TOWARD_ZERO && is_normal_below(w, width<Integer> - 1)) [[likely]]
    return signed_integer<Integer>(q::negative(w), truncate(w));
  return round_to_signed<Integer, Otherwise>(w, mode);
}

// Truncates a number below 2^RangeBits.
template <class Integer, int RangeBits>
[[gnu::always_inline]] inline Integer to_unsigned(const void* address) {
  const uint128 w = load(address);
  const int exponent = q::exponent(w);
  if (exponent >= q::bias && (exponent >= q::bias + RangeBits || q::negative(w))) [[unlikely]]
    return indefinite<Integer>();
  if (exponent != 0) [[likely]]
    return static_cast<Integer>(truncate(w));
  if (q::fraction(w) != 0) raise_inexact();
  return 0;
}

}  // namespace

std::int32_t __qtoi(const void* a, int mode) {
  return to_signed<std::int32_t, rounding::away_from_zero>(a, mode);
}
std::int64_t __qtoj(const void* a, int mode) {
  return to_signed<std::int64_t, rounding::toward_zero>(a, mode);
}

// The range is judged by the exponent alone, and one binade wider than the type: compiled programs
// rely on 33-bit values wrapping.
std::uint32_t __qtou(const void* a) { return to_unsigned<std::uint32_t, 33>(a); }
std::uint64_t __qtok(const void* a) { return to_unsigned<std::uint64_t, 64>(a); }
