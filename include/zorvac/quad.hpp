#ifndef ZORVAC_QUAD_HPP
#define ZORVAC_QUAD_HPP
/** zorvac::quad: a number type of 113 bits (33 decimal digits) for C++17 and later. It uses the
 *  routines of <zorvac/quad.h>.
 *
 *    using namespace zorvac::literals;
 *    zorvac::quad x = 1;
 *    x = sqrt(x + 2.5_q) / 3;                 // rounds and raises flags by MXCSR, as __divq() does
 *    std::cout << std::setprecision(34) << x; // 0.6236095644623235642639581220527582
 *    if (auto y = zorvac::quad::parse(text)) ...
 *
 *  There are three headers. This one includes the others:
 *
 *    <zorvac/quad.hpp>       the type: conversions, arithmetic, comparison, limits
 *    <zorvac/quad_math.hpp>  the functions of <cmath>
 *    <zorvac/quad_text.hpp>  decimal text: from_chars, to_chars, streams, std::format, literals
 *
 *  They work with exceptions on or off, and need no library but libzorvac, except for the functions
 *  that quad_math.hpp takes from libquadmath. `&x` may be passed to the C routines: a quad has
 *  their representation, and std::complex<quad> that of a complex quad.
 *
 *  Conversions to quad are implicit and exact, except that integers of 128 bits are rounded, and
 *  that bool and characters need an explicit one: quad(true). All conversions from quad are
 *  explicit.
 */
#include <zorvac/quad.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>
#ifdef __has_include
#if __has_include(<version>)
#include <version>
#endif
#endif
#ifdef __cpp_lib_three_way_comparison
#include <compare>
#endif

namespace zorvac {

/** The compilers' own binary128. */
__extension__ typedef __float128 float128_t;

class quad;
}  // namespace zorvac

// Declared early, because the C++ library's own isnan() looks for it.
template <>
class std::numeric_limits<zorvac::quad>;

namespace zorvac {

/** Internals that the headers share. */
namespace detail {

using uint128 = zorvac_uint128_t;

// Flags are raised as in the library: by an operation in doubles, on operands that the compiler
// does not know and with a result that it cannot leave out.
inline double unknown(double x) {
  __asm__ volatile("" : "+x"(x));
  return x;
}
inline void perform(double result) { __asm__ volatile("" : : "x"(result) : "memory"); }
inline void raise_invalid() { perform(unknown(0) / unknown(0)); }

// By value, with the bits and the flags of __addq() and so on. They are in the static library, and
// in a small archive that comes with the shared library and is linked with it.
extern "C" {
uint128 zorvac_quad_add(uint128 a, uint128 b);
uint128 zorvac_quad_sub(uint128 a, uint128 b);
uint128 zorvac_quad_mul(uint128 a, uint128 b);
uint128 zorvac_quad_div(uint128 a, uint128 b);
double zorvac_quad_to_double(uint128 a);
uint128 zorvac_quad_round(int negative, int exponent, uint128 significand, std::uint64_t guard);
}

template <class T>
constexpr bool is_character = std::is_same_v<T, char> || std::is_same_v<T, wchar_t> ||
#ifdef __cpp_char8_t
                              std::is_same_v<T, char8_t> ||
#endif
                              std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;
template <class T>
constexpr bool is_integer = std::is_integral_v<T> && sizeof(T) <= 8;
template <class T>
constexpr bool is_number = is_integer<T> && !is_character<T> && !std::is_same_v<T, bool>;

// |value| in a type that has room for it.
template <class Integer,
          class Wide = std::conditional_t<sizeof(Integer) <= 8, std::uint64_t, uint128>>
constexpr Wide magnitude(Integer value) {
  return value < 0 ? Wide{0} - static_cast<Wide>(value) : static_cast<Wide>(value);
}

}  // namespace detail

class quad {
  template <bool Condition>
  using if_so = std::enable_if_t<Condition, int>;

 public:
  /** +0. */
  constexpr quad() = default;

  /** Exact. A NaN keeps its sign and payload, but a signalling NaN of type long double is
   *  quieted. */
  template <class Integer, if_so<detail::is_number<Integer>> = 0>
  constexpr quad(Integer value) : quad(of_magnitude(value < 0, detail::magnitude(value))) {}
  constexpr quad(float value) : quad(widened(__builtin_bit_cast(std::uint32_t, value), 23, 0xff)) {}
  constexpr quad(double value)
      : quad(widened(__builtin_bit_cast(std::uint64_t, value), 52, 0x7ff)) {}
  quad(long double value) { __ltoq(this, value); }
  constexpr quad(float128_t value) : quad(__builtin_bit_cast(quad, value)) {}

  /** 1 or 0 from bool, and the code of a character. */
  template <class Truth, if_so<detail::is_integer<Truth> && !detail::is_number<Truth>> = 0>
  constexpr explicit quad(Truth value) : quad(static_cast<std::int64_t>(value)) {}

  /** Rounded by MXCSR, but without the inexact flag. Below 2^113 a constant expression. */
  constexpr quad(zorvac_uint128_t value) {
    if (value >> 113 == 0)
      *this = of_magnitude(false, value);
    else
      __ntoq(this, value);
  }
  constexpr quad(zorvac_int128_t value) {
    const zorvac_uint128_t size = detail::magnitude(value);
    if (size >> 113 == 0)
      *this = of_magnitude(value < 0, size);
    else
      __mtoq(this, value);
  }

  /** The number with these 64-bit words. */
  static constexpr quad from_words(std::uint64_t low, std::uint64_t high) {
    quad q;
    q.low_ = low;
    q.high_ = high;
    return q;
  }
  constexpr std::uint64_t low_word() const { return low_; }
  constexpr std::uint64_t high_word() const { return high_; }

  /** The same as one word of 128 bits. */
  static constexpr quad from_bits(zorvac_uint128_t bits) {
    return from_words(static_cast<std::uint64_t>(bits), static_cast<std::uint64_t>(bits >> 64));
  }
  constexpr zorvac_uint128_t bits() const {
    return static_cast<zorvac_uint128_t>(high_) << 64 | low_;
  }

  /** The number that from_chars() reads from the whole of `text`, or nothing. */
  static constexpr std::optional<quad> parse(std::string_view text);

  /** Rounded by MXCSR. */
  explicit operator float() const { return __qtof(this); }
  explicit operator double() const { return detail::zorvac_quad_to_double(bits()); }
  explicit operator long double() const { return __qtol(this); }

  /** The same bits, NaNs included. */
  constexpr explicit operator float128_t() const { return __builtin_bit_cast(float128_t, *this); }

  /** Truncated. A number out of range gives the indefinite value of the C routine and raises its
   *  flag. Integers of 8 and 16 bits are the low bits of the 32-bit conversion. */
  template <class Integer, if_so<detail::is_integer<Integer>> = 0>
  explicit operator Integer() const {
    if constexpr (std::is_same_v<Integer, bool>) {
      return *this != quad();
    } else if constexpr (std::is_signed_v<Integer>) {
      return static_cast<Integer>(sizeof(Integer) <= 4 ? __qtoi(this, ZORVAC_TO_INT_TOWARD_ZERO)
                                                       : __qtoj(this, ZORVAC_TO_INT_TOWARD_ZERO));
    } else {
      return static_cast<Integer>(sizeof(Integer) <= 4 ? __qtou(this) : __qtok(this));
    }
  }
  explicit operator zorvac_int128_t() const { return __qtom(this); }
  explicit operator zorvac_uint128_t() const { return __qton(this); }

  friend quad operator+(quad a, quad b) {
    return from_bits(detail::zorvac_quad_add(a.bits(), b.bits()));
  }
  friend quad operator-(quad a, quad b) {
    return from_bits(detail::zorvac_quad_sub(a.bits(), b.bits()));
  }
  friend quad operator*(quad a, quad b) {
    return from_bits(detail::zorvac_quad_mul(a.bits(), b.bits()));
  }
  friend quad operator/(quad a, quad b) {
    return from_bits(detail::zorvac_quad_div(a.bits(), b.bits()));
  }
  quad& operator+=(quad b) { return *this = *this + b; }
  quad& operator-=(quad b) { return *this = *this - b; }
  quad& operator*=(quad b) { return *this = *this * b; }
  quad& operator/=(quad b) { return *this = *this / b; }

  friend constexpr quad operator+(quad a) { return a; }
  friend constexpr quad operator-(quad a) { return from_words(a.low_, a.high_ ^ sign_bit); }

  quad& operator++() { return *this += 1; }
  quad& operator--() { return *this -= 1; }
  quad operator++(int) {
    const quad before = *this;
    return ++*this, before;
  }
  quad operator--(int) {
    const quad before = *this;
    return --*this, before;
  }

  /** Equality is quiet. The ordering raises the invalid flag if an operand is a NaN. If none is,
   *  all of them are constant expressions. */
  friend constexpr bool operator==(quad a, quad b) {
    if (a.bits() == b.bits()) return !isnan(a);
    return ((a.high_ | b.high_) & ~sign_bit) == 0 && (a.low_ | b.low_) == 0;
  }
  friend constexpr bool operator!=(quad a, quad b) { return !(a == b); }
  friend constexpr bool operator<(quad a, quad b) { return ordered(a, b) && a.rank() < b.rank(); }
  friend constexpr bool operator<=(quad a, quad b) { return ordered(a, b) && a.rank() <= b.rank(); }
  friend constexpr bool operator>(quad a, quad b) { return b < a; }
  friend constexpr bool operator>=(quad a, quad b) { return b <= a; }
#ifdef __cpp_lib_three_way_comparison
  friend constexpr std::partial_ordering operator<=>(quad a, quad b) {
    if (!ordered(a, b)) return std::partial_ordering::unordered;
    return a.rank() <=> b.rank();
  }
#endif

  /** The sign and the class of any quad, NaNs included. No flags. */
  friend constexpr bool signbit(quad a) { return a.high_ >> 63 != 0; }
  friend constexpr bool isfinite(quad a) { return (a.high_ & infinity_high) != infinity_high; }
  friend constexpr bool isinf(quad a) {
    return (a.high_ & ~sign_bit) == infinity_high && a.low_ == 0;
  }
  friend constexpr bool isnan(quad a) {
    return abs(a).bits() > from_words(0, infinity_high).bits();
  }
  friend constexpr bool isnormal(quad a) { return isfinite(a) && (a.high_ & infinity_high) != 0; }
  friend constexpr quad abs(quad a) { return from_words(a.low_, a.high_ & ~sign_bit); }
  friend constexpr quad fabs(quad a) { return abs(a); }
  friend constexpr quad copysign(quad a, quad sign) {
    return from_words(a.low_, (a.high_ & ~sign_bit) | (sign.high_ & sign_bit));
  }

 private:
  static constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;
  static constexpr std::uint64_t infinity_high = 0x7fff000000000000;
  static constexpr int bias = 16383, fraction_bits = 112;

  // size * 2^exponent with a sign. `size` has at most 113 bits.
  static constexpr quad of_magnitude(bool negative, zorvac_uint128_t size, int exponent = 0) {
    const auto sign = static_cast<zorvac_uint128_t>(negative) << 127;
    if (size == 0) return from_bits(sign);
    const auto high = static_cast<std::uint64_t>(size >> 64),
               low = static_cast<std::uint64_t>(size);
    const int zeros = (high != 0 ? __builtin_clzll(high) : 64 + __builtin_clzll(low)) - 15;
    // The leading one adds the last 1 to the exponent.
    const auto biased = static_cast<zorvac_uint128_t>(bias + fraction_bits - zeros + exponent - 1);
    return from_bits(sign | ((biased << fraction_bits) + (size << zeros)));
  }
  static constexpr quad of_magnitude(bool negative, std::uint64_t size) {
    if (size == 0) return quad();
    const int zeros = __builtin_clzll(size);
    const std::uint64_t fraction = size << zeros << 1;  // without its leading one
    const auto biased = static_cast<std::uint64_t>(bias + 63 - zeros);
    return from_words(fraction << 48,
                      static_cast<std::uint64_t>(negative) << 63 | biased << 48 | fraction >> 16);
  }

  // From the bits of a number in a narrower format (IEEE 754-2019, 3.4).
  static constexpr quad widened(std::uint64_t bits, int fraction_width, int special) {
    const bool negative = bits >> (fraction_width + (special == 255 ? 8 : 11)) != 0;
    const int exponent = static_cast<int>(bits >> fraction_width) & special;
    const std::uint64_t fraction = bits & ((std::uint64_t{1} << fraction_width) - 1);
    const int narrow_bias = special / 2;
    if (exponent == 0) return of_magnitude(negative, fraction, 1 - narrow_bias - fraction_width);
    const int biased = exponent == special ? 0x7fff : exponent - narrow_bias + bias;
    const std::uint64_t top = fraction << (64 - fraction_width);  // at the left
    return from_words(top << 48, static_cast<std::uint64_t>(negative) << 63 |
                                     static_cast<std::uint64_t>(biased) << 48 | top >> 16);
  }

  // Numbers are ordered as these integers are.
  constexpr zorvac_int128_t rank() const {
    const auto size = static_cast<zorvac_int128_t>(abs(*this).bits());
    return signbit(*this) ? -size : size;
  }
  static constexpr bool ordered(quad a, quad b) {
    if (!isnan(a) && !isnan(b)) return true;
    detail::raise_invalid();
    return false;
  }

  std::uint64_t low_ = 0, high_ = 0;
};
static_assert(sizeof(quad) == 16 && std::is_trivially_copyable_v<quad>);

namespace detail {

constexpr uint128 leading_one = static_cast<uint128>(1) << 112;
constexpr uint128 infinity_bits = static_cast<uint128>(0x7fff) << 112;
constexpr uint128 sign_mask = static_cast<uint128>(1) << 127;
constexpr uint128 quiet_bit = leading_one >> 1;
constexpr int bias = 16383;

constexpr int leading_zeros(uint128 x) {  // x is not 0
  const auto high = static_cast<std::uint64_t>(x >> 64);
  return high != 0 ? __builtin_clzll(high) : 64 + __builtin_clzll(static_cast<std::uint64_t>(x));
}

constexpr bool is_signalling(quad a) { return isnan(a) && (a.bits() & quiet_bit) == 0; }
constexpr bool is_zero(quad a) { return abs(a).bits() == 0; }
constexpr bool is_subnormal(quad a) { return !is_zero(a) && (abs(a).bits() >> 112) == 0; }

constexpr quad with_sign(bool negative, uint128 size) {
  return quad::from_bits(negative ? size | sign_mask : size);
}

}  // namespace detail

}  // namespace zorvac

/** The limits that the C++ library has for each number type. */
template <>
class std::numeric_limits<zorvac::quad> {
  using quad = zorvac::quad;

 public:
  static constexpr bool is_specialized = true;
  static constexpr bool is_signed = true, is_integer = false, is_exact = false;
  static constexpr bool is_iec559 = true, is_bounded = true, is_modulo = false;
  static constexpr bool has_infinity = true, has_quiet_NaN = true, has_signaling_NaN = true;
  static constexpr float_denorm_style has_denorm = denorm_present;
  static constexpr bool has_denorm_loss = false, traps = false, tinyness_before = false;
  static constexpr float_round_style round_style = round_to_nearest;
  static constexpr int radix = 2, digits = 113, digits10 = 33, max_digits10 = 36;
  static constexpr int min_exponent = -16381, max_exponent = 16384;
  static constexpr int min_exponent10 = -4931, max_exponent10 = 4932;
  static constexpr quad min() { return quad::from_words(0, 0x0001000000000000); }
  static constexpr quad max() { return quad::from_words(~std::uint64_t{0}, 0x7ffeffffffffffff); }
  static constexpr quad lowest() { return -max(); }
  static constexpr quad epsilon() { return quad::from_words(0, 0x3f8f000000000000); }
  static constexpr quad round_error() { return quad::from_words(0, 0x3ffe000000000000); }
  static constexpr quad infinity() { return quad::from_words(0, 0x7fff000000000000); }
  static constexpr quad quiet_NaN() { return quad::from_words(0, 0x7fff800000000000); }
  static constexpr quad signaling_NaN() { return quad::from_words(0, 0x7fff400000000000); }
  static constexpr quad denorm_min() { return quad::from_words(1, 0); }
};

/** Equal numbers, such as +0 and -0, have the same hash. */
template <>
struct std::hash<zorvac::quad> {
  std::size_t operator()(zorvac::quad q) const noexcept {
    if (q == zorvac::quad()) return 0;
    // The multiplier is 2^64 divided by the golden ratio (Knuth, The Art of Computer Programming,
    // volume 3, 6.4).
    const std::uint64_t mixed = (q.high_word() ^ q.low_word() >> 32) * 0x9e3779b97f4a7c15;
    return static_cast<std::size_t>((mixed ^ mixed >> 32 ^ q.low_word()) * 0x9e3779b97f4a7c15);
  }
};

#include <zorvac/quad_math.hpp>
#include <zorvac/quad_text.hpp>
#endif
