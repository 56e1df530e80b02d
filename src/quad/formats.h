#ifndef ZORVAC_QUAD_FORMATS_H
#define ZORVAC_QUAD_FORMATS_H
// Binary floating-point formats as traits, and unpacked numbers. Rounding, packing and conversions
// are written once, as templates over a format.
//
// The namespace of this folder is softfp: zorvac::quad is the class of C++ programs. Everything
// here has internal linkage: each source has its own copy of the tables and of the numbers that
// raise exceptions.
#include <bit>
#include <cstdint>
#include <cstring>

namespace zorvac::softfp {
namespace {

using std::uint64_t;
__extension__ using uint128 = unsigned __int128;

[[gnu::always_inline]] constexpr uint64_t low(uint128 x) { return static_cast<uint64_t>(x); }
[[gnu::always_inline]] constexpr uint64_t high(uint128 x) { return static_cast<uint64_t>(x >> 64); }
[[gnu::always_inline]] constexpr uint128 make_uint128(uint64_t high, uint64_t low) {
  return uint128{high} << 64 | low;
}

// A number in a format is handled as one right-aligned word:
//
//   sign | exponent, ExponentBits wide | fraction, without the leading one
//
// Adding 1 to such a word carries from the fraction into the exponent. It leads from the largest
// subnormal to the smallest normal number, and from the largest number to infinity. So rounding
// needs no special case for them (IEEE 754-2019, 3.4).
template <class Word, int Precision, int ExponentBits>
struct format {
  using word = Word;
  static constexpr int precision = Precision;  // significand bits, the leading one included
  static constexpr int fraction_bits = Precision - 1;
  static constexpr int bias = (1 << (ExponentBits - 1)) - 1;
  static constexpr int special_exponent = (1 << ExponentBits) - 1;  // of infinities and NaNs

  static constexpr Word leading_one = Word{1} << fraction_bits;
  static constexpr Word quiet_bit = leading_one >> 1;
  static constexpr Word infinity = Word{special_exponent} << fraction_bits;
  static constexpr Word largest = infinity - 1;
  static constexpr Word sign_bit = Word{1} << (fraction_bits + ExponentBits);

  [[gnu::always_inline]] static constexpr bool negative(Word w) { return (w & sign_bit) != 0; }
  [[gnu::always_inline]] static constexpr Word magnitude(Word w) { return w & (sign_bit - 1); }
  [[gnu::always_inline]] static constexpr Word fraction(Word w) { return w & (leading_one - 1); }
  [[gnu::always_inline]] static constexpr int exponent(Word w) {
    return static_cast<int>(w >> fraction_bits) & special_exponent;
  }
  [[gnu::always_inline]] static constexpr Word signed_word(bool is_negative, Word w) {
    return w | Word{is_negative} << (fraction_bits + ExponentBits);
  }
};

// The x87's format stores its leading one. The word leaves it out, like the others.
using binary32 = format<uint64_t, 24, 8>;
using binary64 = format<uint64_t, 53, 11>;
using x87 = format<uint128, 64, 15>;
using binary128 = format<uint128, 113, 15>;

[[gnu::always_inline]] inline binary128::word load(const void* quad) {
  uint64_t words[2];
  std::memcpy(words, quad, sizeof words);
  return make_uint128(words[1], words[0]);
}
[[gnu::always_inline]] inline void store(void* quad, binary128::word w) {
  const uint64_t words[2] = {low(w), high(w)};
  std::memcpy(quad, words, sizeof words);
}

struct x87_image {  // in memory; six bytes of padding follow
  uint64_t significand;
  std::uint16_t sign_and_exponent;
};

// (If a compiler does not inline std::bit_cast, it is a weak function.)
[[gnu::always_inline]] inline binary32::word word_of(float value) {
  return __builtin_bit_cast(std::uint32_t, value);
}
[[gnu::always_inline]] inline binary64::word word_of(double value) {
  return __builtin_bit_cast(uint64_t, value);
}
[[gnu::always_inline]] inline x87::word word_of(long double value) {
  x87_image image;
  std::memcpy(&image, &value, 10);
  // In a pseudo-denormal number the exponent is 0 but the leading one is stored. It then makes the
  // exponent 1.
  const uint64_t without_leading_one = image.significand << 1 >> 1;
  const uint64_t exponent = image.sign_and_exponent & x87::special_exponent;
  return (uint128{image.sign_and_exponent} << x87::fraction_bits) +
         (exponent != 0 ? without_leading_one : image.significand);
}

template <class F>
auto value_of(typename F::word w);
template <>
[[gnu::always_inline]] inline auto value_of<binary32>(binary32::word w) {
  return __builtin_bit_cast(float, static_cast<std::uint32_t>(w));
}
template <>
[[gnu::always_inline]] inline auto value_of<binary64>(binary64::word w) {
  return __builtin_bit_cast(double, w);
}
template <>
[[gnu::always_inline]] inline auto value_of<x87>(x87::word w) {
  const uint64_t leading_one = x87::exponent(w) != 0 ? uint64_t{1} << 63 : 0;
  const x87_image image = {leading_one | low(x87::fraction(w)),
                           static_cast<std::uint16_t>(w >> x87::fraction_bits)};
  long double value = 0;
  std::memcpy(&value, &image, 10);
  return value;
}

template <class F>
constexpr bool is_nan(typename F::word w) {
  return F::magnitude(w) > F::infinity;
}
template <class F>
constexpr bool is_signalling(typename F::word w) {
  return is_nan<F>(w) && (w & F::quiet_bit) == 0;
}

[[gnu::always_inline]] constexpr int leading_zeros(uint64_t x) { return __builtin_clzll(x); }
[[gnu::always_inline]] constexpr int highest_bit(uint64_t x) { return 63 ^ __builtin_clzll(x); }
constexpr int leading_zeros(uint128 x) {  // in all three, x must not be 0
  return high(x) != 0 ? leading_zeros(high(x)) : 64 + leading_zeros(low(x));
}

// A finite number. The significand is an integer of the format's precision. The exponent is biased,
// and belongs to the leading one.
template <class F>
struct unpacked {
  bool negative;
  int exponent;
  typename F::word significand;
};

// For a number whose exponent is neither 0 nor special.
template <class F>
[[gnu::always_inline]] constexpr unpacked<F> unpack_normal(typename F::word w) {
  return {F::negative(w), F::exponent(w), F::fraction(w) | F::leading_one};
}

// For a finite number other than zero. The leading one of a subnormal number is shifted to its
// place, and the exponent is 1 minus the shift.
template <class F>
constexpr unpacked<F> unpack(typename F::word w) {
  if (F::exponent(w) != 0) return unpack_normal<F>(w);
  constexpr int unused_bits = 8 * static_cast<int>(sizeof w) - F::precision;
  const int shift = leading_zeros(F::fraction(w)) - unused_bits;
  return {F::negative(w), 1 - shift, F::fraction(w) << shift};
}

// Puts exponent and significand together. The leading one is in place and adds 1 to the exponent
// field.
template <class F>
[[gnu::always_inline]] constexpr typename F::word pack(int exponent, typename F::word significand) {
  const auto field = static_cast<uint64_t>(exponent - 1);
  if constexpr (F::fraction_bits > 64)  // saves the addition to the low word
    return make_uint128(high(significand) + field * high(F::leading_one), low(significand));
  else
    return (typename F::word{field} << F::fraction_bits) + significand;
}

}  // namespace
}  // namespace zorvac::softfp
#endif
