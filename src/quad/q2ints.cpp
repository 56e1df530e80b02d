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

// Integer part and fraction of a magnitude below 2^64; the fraction's lowest bit is sticky.
[[gnu::always_inline]] inline guarded<uint64_t> split(uint128 w) {
  const int exponent = q::exponent(w);
  const uint128 leading_one = exponent != 0 ? q::leading_one : 0;
  const uint128 significand = (q::fraction(w) | leading_one) << (127 - q::fraction_bits);
  return shift_right_sticky(high(significand), low(significand), q::bias + 63 - exponent);
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

template <class Integer, rounding Otherwise>
[[gnu::always_inline]] inline Integer to_signed(const void* address, int mode) {
  const uint128 w = load(address);
  const bool negative = q::negative(w);
  const uint64_t limit = indefinite_word<Integer> - !negative;
  if (q::exponent(w) >= q::bias + 64) [[unlikely]]
    return indefinite<Integer>();
  auto [magnitude, guard] = split(w);
  const bool increment =
      rounds_up(rounding_of<Otherwise>(mode), negative, (magnitude & 1) != 0, guard);
  if (magnitude > limit - increment) [[unlikely]]
    return indefinite<Integer>();
  if (guard != 0) raise_inexact();
  magnitude += increment;
  return static_cast<Integer>(negative ? -magnitude : magnitude);
}

// Truncates a number below 2^RangeBits.
template <class Integer, int RangeBits>
[[gnu::always_inline]] inline Integer to_unsigned(const void* address) {
  const uint128 w = load(address);
  const int exponent = q::exponent(w);
  if (exponent >= q::bias && (exponent >= q::bias + RangeBits || q::negative(w))) [[unlikely]]
    return indefinite<Integer>();
  const auto [magnitude, guard] = split(w);
  if (guard != 0) raise_inexact();
  return static_cast<Integer>(magnitude);
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
