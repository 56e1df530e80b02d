// The binary128 routines that compilers for x86-64 call for __float128 and _Float128, under the
// same names: arithmetic, comparison, conversion. Bits, NaNs and flags are those of the compiler's
// own run-time library; docs/bridge.md has the two differences.
#include <limits>
#include <type_traits>

#include "compiler_rules.h"
#include "quad/add.h"
#include "quad/compare.h"
#include "quad/divide.h"
#include "quad/from_integer.h"
#include "quad/multiply.h"
#include "quad/narrow.h"
#include "quad/to_integer.h"
#include "quad/widen.h"

using namespace zorvac::softfp;

namespace {

using f = binary128;
using rules = first_rules;

__extension__ using int128 = __int128;

// ---- Comparison: the result is 64 bits wide, in RAX ----

template <long Unordered>
struct order {
  using rules = first_rules;
  static constexpr long unordered = Unordered;
  static long of(int sign) { return sign; }
};

[[gnu::noinline]] long differ_slowly(in_xmm a_operand, in_xmm b_operand) {
  const uint128 a = a_operand.word(), b = b_operand.word();
  rules::look_at(a, b);
  if (is_signalling<f>(a) || is_signalling<f>(b)) raise_invalid();
  return !equal(a, b);
}
[[gnu::always_inline]] inline bool is_normal(uint128 w) {
  constexpr uint64_t first = high(f::leading_one) << 1, special = high(f::infinity) << 1;
  return (high(w) << 1) - first < special - first;
}
[[gnu::always_inline]] inline long differ(in_xmm a_operand, in_xmm b_operand) {
  const uint128 a = a_operand.word(), b = b_operand.word();
  if (!is_normal(a) || !is_normal(b)) [[unlikely]]
    return differ_slowly(a_operand, b_operand);
  return a != b;
}

// ---- Numbers to integers: truncated; out of range, the nearest integer of the type ----

template <class Integer>
constexpr int width = 8 * static_cast<int>(sizeof(Integer));
template <class Integer>
constexpr bool is_signed_integer = Integer(-1) < Integer(0);

// A NaN is treated as an infinity of its sign.
template <class Integer>
Integer saturated(bool negative) {
  raise_invalid();
  const uint128 all_ones = ~uint128{0} >> (128 - width<Integer> + is_signed_integer<Integer>);
  if (!negative) return static_cast<Integer>(all_ones);
  return static_cast<Integer>(is_signed_integer<Integer> ? all_ones + 1 : 0);
}
template <class Integer>
[[gnu::noinline]] Integer to_integer_slowly(in_xmm operand) {
  const uint128 w = operand.word();
  const bool negative = f::negative(w);
  rules::look_at(w, w);
  if (f::exponent(w) < f::bias) {
    if (!is_zero(w)) raise_inexact();
    return 0;
  }
  if (f::exponent(w) >= f::bias + width<Integer>) return saturated<Integer>(negative);
  const uint128 significand = uint128{f::fraction(w) | f::leading_one} << (127 - f::fraction_bits);
  const uint128 magnitude = significand >> (f::bias + 127 - f::exponent(w));
  const uint128 limit = is_signed_integer<Integer>
                            ? (uint128{1} << (width<Integer> - 1)) - !negative
                            : (negative ? 0 : ~uint128{0});
  if (magnitude > limit) return saturated<Integer>(negative);
  truncate_wide<f>(w);  // raises PE
  return static_cast<Integer>(negative ? -magnitude : magnitude);
}

template <class Integer>
[[gnu::always_inline]] inline Integer to_integer(in_xmm operand) {
  const uint128 w = operand.word();
  const int exponent = f::exponent(w);
  const bool allowed_sign = is_signed_integer<Integer> || !f::negative(w);
  constexpr int end = f::bias + width<Integer> - is_signed_integer<Integer>;
  if constexpr (width<Integer> == 32) {
    if (has_sticky_double(w) && exponent < end && allowed_sign) [[likely]]
      return static_cast<Integer>(truncate_by_processor<std::int64_t>(sticky_double_word(w)));
  } else if constexpr (width<Integer> == 64) {
    if (exponent != 0 && exponent < end && allowed_sign) [[likely]]
      return signed_integer<Integer>(f::negative(w), truncate(w));
  } else {
    if (exponent >= f::bias && exponent < end && allowed_sign) [[likely]] {
      const uint128 mask = -uint128{f::negative(w)};
      return static_cast<Integer>((truncate_wide<f>(w) ^ mask) - mask);
    }
  }
  return to_integer_slowly<Integer>(operand);
}

// ---- Integers of 128 bits to numbers: rounded ----

[[gnu::always_inline]] inline uint128 from_wide(bool negative, uint128 magnitude) {
  if (magnitude == 0) return 0;
  const int unused_bits = leading_zeros(magnitude);
  magnitude <<= unused_bits;
  return round_and_pack<f>(negative, f::bias + 127 - unused_bits,
                           magnitude >> (127 - f::fraction_bits),
                           low(magnitude) << f::precision % 64);
}

// ---- Smaller formats ----

using binary16 = format<uint64_t, 11, 5>;

}  // namespace

namespace zorvac::softfp {
namespace {

// A binary16 number is passed in the lowest bits of an XMM register, like a float.
template <>
inline auto value_of<binary16>(binary16::word w) {
  return __builtin_bit_cast(float, static_cast<std::uint32_t>(w));
}

}  // namespace
}  // namespace zorvac::softfp

#pragma GCC visibility push(default)
extern "C" {

xmm __addtf3(xmm a, xmm b) { return add<rules>(to_xmm{}, in_xmm{a}, in_xmm{b}, 0); }
xmm __subtf3(xmm a, xmm b) {
  return add<second_rules>(to_xmm{}, in_xmm{a}, in_xmm{b}, high(f::sign_bit));
}
xmm __multf3(xmm a, xmm b) { return multiply<rules>(to_xmm{}, in_xmm{a}, in_xmm{b}); }
xmm __divtf3(xmm a, xmm b) { return divide<second_rules>(to_xmm{}, in_xmm{a}, in_xmm{b}); }
xmm __negtf2(xmm a) { return _mm_xor_si128(a, to_xmm{}(f::sign_bit)); }

long __eqtf2(xmm a, xmm b) { return differ(in_xmm{a}, in_xmm{b}); }
long __netf2(xmm a, xmm b) { return differ(in_xmm{a}, in_xmm{b}); }
long __lttf2(xmm a, xmm b) { return compare<order<2>>(in_xmm{a}, in_xmm{b}); }
long __letf2(xmm a, xmm b) { return compare<order<2>>(in_xmm{a}, in_xmm{b}); }
long __gttf2(xmm a, xmm b) { return compare<order<-2>>(in_xmm{a}, in_xmm{b}); }
long __getf2(xmm a, xmm b) { return compare<order<-2>>(in_xmm{a}, in_xmm{b}); }
long __unordtf2(xmm a_operand, xmm b_operand) {
  const uint128 a = in_xmm{a_operand}.word(), b = in_xmm{b_operand}.word();
  rules::look_at(a, b);
  if (is_signalling<f>(a) || is_signalling<f>(b)) raise_invalid();
  return is_nan<f>(a) || is_nan<f>(b);
}

xmm __extendhftf2(float value) {
  return widen<binary16, rules>(to_xmm{}, word_of(value) & (2 * binary16::sign_bit - 1));
}
xmm __extendsftf2(float value) { return widen<binary32, rules>(to_xmm{}, word_of(value)); }
xmm __extenddftf2(double value) { return widen<binary64, rules>(to_xmm{}, word_of(value)); }
// The leading one, which this format stores, is ignored.
xmm __extendxftf2(long double value) {
  x87_image image;
  std::memcpy(&image, &value, 10);
  uint128 w = uint128{image.sign_and_exponent} << f::fraction_bits | uint128{image.significand << 1}
                                                                         << (f::fraction_bits - 64);
  if (is_signalling<f>(w)) {
    raise_invalid();
    w |= f::quiet_bit;
  }
  rules::look_at(w, w);
  return to_xmm{}(w);
}

float __trunctfhf2(xmm a) { return narrow<binary16>(in_xmm{a}); }
float __trunctfsf2(xmm a) { return narrow<binary32>(in_xmm{a}); }
double __trunctfdf2(xmm a) { return narrow<binary64>(in_xmm{a}); }
long double __trunctfxf2(xmm a) { return narrow<x87>(in_xmm{a}); }

std::int32_t __fixtfsi(xmm a) { return to_integer<std::int32_t>(in_xmm{a}); }
std::int64_t __fixtfdi(xmm a) { return to_integer<std::int64_t>(in_xmm{a}); }
int128 __fixtfti(xmm a) { return to_integer<int128>(in_xmm{a}); }
std::uint32_t __fixunstfsi(xmm a) { return to_integer<std::uint32_t>(in_xmm{a}); }
std::uint64_t __fixunstfdi(xmm a) { return to_integer<std::uint64_t>(in_xmm{a}); }
uint128 __fixunstfti(xmm a) { return to_integer<uint128>(in_xmm{a}); }

xmm __floatsitf(std::int32_t value) { return to_xmm{}(from_signed(value)); }
xmm __floatditf(std::int64_t value) { return to_xmm{}(from_signed(value)); }
xmm __floattitf(int128 value) {
  const auto word = static_cast<uint128>(value);
  return to_xmm{}(from_wide(value < 0, value < 0 ? -word : word));
}
xmm __floatunsitf(std::uint32_t value) { return to_xmm{}(from_magnitude(false, value)); }
xmm __floatunditf(std::uint64_t value) { return to_xmm{}(from_magnitude(false, value)); }
xmm __floatuntitf(uint128 value) { return to_xmm{}(from_wide(false, value)); }

}  // extern "C"
#pragma GCC visibility pop
