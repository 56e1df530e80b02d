#ifndef ZORVAC_QUAD_HPP
#define ZORVAC_QUAD_HPP
/** zorvac::quad: a number type of 113 bits (33 decimal digits) for C++17 and later, over the
 *  routines of <zorvac/quad.h>.
 *
 *    using namespace zorvac::literals;
 *    zorvac::quad x = 1;
 *    x = (x + 2.5_q) / 3;                     // rounds and raises flags by MXCSR, as __divq() does
 *    std::puts(to_string(x).c_str());         // 1.1666666666666666666666666666666667
 *    if (auto y = zorvac::quad::parse(text)) ...
 *
 *  Everything is in this header, works with exceptions on or off, and needs linking with libzorvac
 *  alone. A quad has the representation that the C routines take: `&x` may be passed to them.
 *
 *  Conversions to quad are implicit where they are exact, explicit for 128-bit integers, which
 *  round. All conversions from quad are explicit.
 *
 *  Text is converted exactly: what is read is the quad nearest to the decimal number, however many
 *  digits it has, and what is written is the decimal number of the given length nearest to the
 *  quad; ties go to the even one. Both ignore MXCSR and raise no flag (they compute in integers),
 *  and reading works at compile time, which is how literals are made.
 */
#include <zorvac/quad.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

namespace zorvac {

class quad {
  template <class T>
  using if_integer = std::enable_if_t<std::is_integral_v<T> && sizeof(T) <= 8, int>;

 public:
  /** +0. */
  constexpr quad() = default;

  /** Exactly the number given; a signalling NaN of type long double is quieted. */
  template <class Integer, if_integer<Integer> = 0>
  quad(Integer value) {
    if constexpr (std::is_signed_v<Integer>)
      sizeof value <= 4 ? __itoq(this, static_cast<std::int32_t>(value)) : __jtoq(this, value);
    else
      sizeof value <= 4 ? __utoq(this, static_cast<std::uint32_t>(value)) : __ktoq(this, value);
  }
  quad(float value) { __ftoq(this, value); }
  quad(double value) { __dtoq(this, value); }
  quad(long double value) { __ltoq(this, value); }

  /** Rounded by MXCSR, but without raising the inexact flag. */
  explicit quad(zorvac_int128_t value) { __mtoq(this, value); }
  explicit quad(zorvac_uint128_t value) { __ntoq(this, value); }

  /** The number with these 64-bit words. */
  static constexpr quad from_words(std::uint64_t low, std::uint64_t high) {
    quad q;
    q.low_ = low;
    q.high_ = high;
    return q;
  }
  constexpr std::uint64_t low_word() const { return low_; }
  constexpr std::uint64_t high_word() const { return high_; }

  /** The number that the whole of `text` spells, as from_chars() reads it, or nothing. */
  static constexpr std::optional<quad> parse(std::string_view text);

  /** Rounded by MXCSR. */
  explicit operator float() const { return __qtof(this); }
  explicit operator double() const { return __qtod(this); }
  explicit operator long double() const { return __qtol(this); }

  /** Truncated. What does not fit gives the indefinite of the C routine and raises its flag;
   *  integers of 8 and 16 bits take the low bits of the 32-bit conversion. */
  template <class Integer, if_integer<Integer> = 0>
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

  quad& operator+=(const quad& b) { return __addq(this, this, &b), *this; }
  quad& operator-=(const quad& b) { return __subq(this, this, &b), *this; }
  quad& operator*=(const quad& b) { return __mulq(this, this, &b), *this; }
  quad& operator/=(const quad& b) { return __divq(this, this, &b), *this; }

  friend quad operator+(quad a, const quad& b) { return a += b; }
  friend quad operator-(quad a, const quad& b) { return a -= b; }
  friend quad operator*(quad a, const quad& b) { return a *= b; }
  friend quad operator/(quad a, const quad& b) { return a /= b; }
  friend constexpr quad operator+(const quad& a) { return a; }
  friend constexpr quad operator-(const quad& a) { return from_words(a.low_, a.high_ ^ sign_bit); }

  /** Equality is quiet; the ordering raises the invalid flag when an operand is a NaN. */
  friend bool operator==(const quad& a, const quad& b) { return __eqq(&a, &b) != 0; }
  friend bool operator!=(const quad& a, const quad& b) { return __neq(&a, &b) != 0; }
  friend bool operator<(const quad& a, const quad& b) { return __ltq(&a, &b) != 0; }
  friend bool operator<=(const quad& a, const quad& b) { return __leq(&a, &b) != 0; }
  friend bool operator>(const quad& a, const quad& b) { return __gtq(&a, &b) != 0; }
  friend bool operator>=(const quad& a, const quad& b) { return __geq(&a, &b) != 0; }

  /** Classification and signs, of NaNs too. No flags. */
  friend constexpr bool signbit(const quad& a) { return a.high_ >> 63 != 0; }
  friend constexpr bool isfinite(const quad& a) {
    return (a.high_ & infinity_high) != infinity_high;
  }
  friend constexpr bool isinf(const quad& a) {
    return (a.high_ & ~sign_bit) == infinity_high && a.low_ == 0;
  }
  friend constexpr bool isnan(const quad& a) { return !isfinite(a) && !isinf(a); }
  friend constexpr quad abs(const quad& a) { return from_words(a.low_, a.high_ & ~sign_bit); }
  friend constexpr quad copysign(const quad& a, const quad& sign) {
    return from_words(a.low_, (a.high_ & ~sign_bit) | (sign.high_ & sign_bit));
  }

 private:
  static constexpr std::uint64_t sign_bit = std::uint64_t{1} << 63;
  static constexpr std::uint64_t infinity_high = 0x7fff000000000000;

  std::uint64_t low_ = 0, high_ = 0;
};
static_assert(sizeof(quad) == 16 && std::is_trivially_copyable_v<quad>);

/** Reads a decimal number from the front of [first, last): a sign, digits with or without a point,
 *  an exponent; or "inf", "infinity" or "nan" in either case. White space and hexadecimal are not
 *  read, nor is the payload of a NaN.
 *
 *  returns  where the number ends, and no error; or, leaving `value` alone, `first` and
 *           errc::invalid_argument where there is no number, or the number's end and
 *           errc::result_out_of_range where it rounds to infinity or, without being zero, to zero
 *  Source:  IEEE 754-2019, 5.12.2 (external decimal character sequences), correctly rounded. */
constexpr std::from_chars_result from_chars(const char* first, const char* last, quad& value);

/** Writes `value` into [first, last) as printf's %g would with a precision of `digits`: rounded to
 *  that many significant digits (taken as 1 below, as 11600 above), no trailing zeros, an exponent
 *  where it is below -4 or not below `digits`. Not terminated.
 *
 *  returns  the end of the text, and no error; or `last` and errc::value_too_large where there is
 *           no room, and then what the range holds is unspecified */
inline std::to_chars_result to_chars(char* first, char* last, const quad& value, int digits);

/** The same with the fewest digits, from 33 to 36, that read back as `value`. */
inline std::to_chars_result to_chars(char* first, char* last, const quad& value);

/** The same as a string. */
inline std::string to_string(const quad& value);
inline std::string to_string(const quad& value, int digits);

}  // namespace zorvac

/** What the C++ library knows of a number type. */
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

/* ---- Decimal conversion ---------------------------------------------------------------------- */
/* By exact integers, in the simplest way that is right: the number is written as a fraction of two
 * big integers, and the digits wanted are divided out one by one, bits when reading and decimal
 * digits when writing. What remains then decides the rounding without doubt. */

namespace zorvac::decimal {

// The longest decimal number that matters to rounding is one halfway between two subnormal quads,
// of 11564 digits; what follows in a longer one only tells it from a tie.
inline constexpr int most_digits = 11600;

// An integer from 0 up. The largest are a number of that length and the power of 5 that divides it
// when it is a subnormal: 5^(11600 + 4967) < 2^38500. A shift by some bits is on top.
class big_integer {
 public:
  constexpr explicit big_integer(zorvac_uint128_t value) {
    for (; value != 0; value >>= 64) words_[size_++] = static_cast<std::uint64_t>(value);
  }

  constexpr bool is_zero() const { return size_ == 0; }
  constexpr int bit_length() const {
    return is_zero() ? 0 : 64 * size_ - __builtin_clzll(words_[size_ - 1]);
  }

  constexpr void multiply_add(std::uint64_t factor, std::uint64_t addend) {
    std::uint64_t carry = addend;
    for (int i = 0; i < size_; ++i) {
      const auto product = static_cast<zorvac_uint128_t>(words_[i]) * factor + carry;
      words_[i] = static_cast<std::uint64_t>(product);
      carry = static_cast<std::uint64_t>(product >> 64);
    }
    if (carry != 0) words_[size_++] = carry;
  }

  constexpr void multiply_by_power_of_5(int exponent) {
    constexpr std::uint64_t fifth_power_27 = 7450580596923828125;  // the last below 2^64
    for (; exponent >= 27; exponent -= 27) multiply_add(fifth_power_27, 0);
    for (; exponent > 0; --exponent) multiply_add(5, 0);
  }

  constexpr void shift_left(int bits) {
    if (is_zero()) return;
    const int words = bits / 64, rest = bits % 64;
    if (rest != 0) multiply_add(std::uint64_t{1} << rest, 0);
    if (words == 0) return;
    for (int i = size_ - 1; i >= 0; --i) words_[i + words] = words_[i];
    for (int i = 0; i < words; ++i) words_[i] = 0;
    size_ += words;
  }

  // Takes `b` away if it is not larger than this, and says whether it was.
  constexpr bool subtract_if_it_fits(const big_integer& b) {
    if (compare(b) < 0) return false;
    std::uint64_t borrow = 0;
    for (int i = 0; i < size_; ++i) {
      const std::uint64_t word = i < b.size_ ? b.words_[i] : 0;
      const std::uint64_t difference = words_[i] - word - borrow;
      borrow = words_[i] < word || (words_[i] == word && borrow != 0) ? 1 : 0;
      words_[i] = difference;
    }
    while (size_ > 0 && words_[size_ - 1] == 0) --size_;
    return true;
  }

  // Below, equal or above 0 as this is less than, equal to or greater than `b`.
  constexpr int compare(const big_integer& b) const {
    if (size_ != b.size_) return size_ - b.size_;
    for (int i = size_ - 1; i >= 0; --i)
      if (words_[i] != b.words_[i]) return words_[i] < b.words_[i] ? -1 : 1;
    return 0;
  }

 private:
  std::uint64_t words_[38720 / 64] = {};
  int size_ = 0;  // words in use; the highest of them is not 0
};

constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }

// The end of `word` (in lower case) at the front of [first, last), or null where it is not there.
constexpr const char* skip_word(const char* first, const char* last, std::string_view word) {
  for (const char c : word) {
    if (first == last || (*first | 0x20) != c) return nullptr;
    ++first;
  }
  return first;
}

// A decimal number, digits * 10^exponent, from the front of [first, last).
struct number {
  big_integer digits{0};
  int digit_count = 0;  // without leading zeros; at most most_digits + 1
  std::int64_t exponent = 0;
  const char* end = nullptr;  // null where there is no number

  constexpr number(const char* first, const char* last) {
    const char* const mantissa_end = read_mantissa(first, last);
    if (mantissa_end != nullptr) end = read_exponent(mantissa_end, last);
  }

 private:
  constexpr const char* read_mantissa(const char* at, const char* last) {
    bool any = false, after_point = false, lost = false;
    std::uint64_t chunk = 0, chunk_scale = 1;  // up to 19 digits on their way into `digits`
    for (; at != last && (is_digit(*at) || (*at == '.' && !after_point)); ++at) {
      if (*at == '.') {
        after_point = true;
        continue;
      }
      any = true;
      if (after_point) --exponent;
      if (digit_count == most_digits) {
        ++exponent;
        lost = lost || *at != '0';
        continue;
      }
      if (digit_count == 0 && *at == '0') continue;
      ++digit_count;
      chunk = chunk * 10 + static_cast<std::uint64_t>(*at - '0');
      chunk_scale *= 10;
      if (chunk_scale == 10'000'000'000'000'000'000u) {
        digits.multiply_add(chunk_scale, chunk);
        chunk = 0;
        chunk_scale = 1;
      }
    }
    digits.multiply_add(chunk_scale, chunk);
    if (lost) {  // a digit that stands for all that were not kept
      digits.multiply_add(10, 1);
      ++digit_count;
      --exponent;
    }
    return any ? at : nullptr;
  }

  // An exponent is part of the number only when it has a digit. Its value saturates far beyond what
  // the longest text could make up for.
  constexpr const char* read_exponent(const char* at, const char* last) {
    const char* const without = at;
    if (at == last || (*at | 0x20) != 'e') return without;
    ++at;
    const bool negative = at != last && *at == '-';
    if (at != last && (*at == '-' || *at == '+')) ++at;
    if (at == last || !is_digit(*at)) return without;
    constexpr std::int64_t limit = 100'000'000'000'000'000;
    std::int64_t value = 0;
    for (; at != last && is_digit(*at); ++at)
      if (value < limit) value = value * 10 + (*at - '0');
    exponent += negative ? -value : value;
    return at;
  }
};

// The quad nearest to a number that is not zero, as its bits without a sign; 0 or infinity where it
// is out of range.
constexpr zorvac_uint128_t nearest_quad(number& from) {
  constexpr zorvac_uint128_t infinity = static_cast<zorvac_uint128_t>(0x7fff) << 112;
  // The number has digit_count + exponent digits before its point.
  if (from.exponent > 4933 - from.digit_count) return infinity;
  if (from.exponent < -4966 - from.digit_count) return 0;
  const int exponent = static_cast<int>(from.exponent);

  // numerator / denominator * 2^power with a quotient in [1, 2).
  big_integer& numerator = from.digits;
  big_integer denominator{1};
  if (exponent >= 0)
    numerator.multiply_by_power_of_5(exponent);
  else
    denominator.multiply_by_power_of_5(-exponent);
  int shift = numerator.bit_length() - denominator.bit_length();
  if (shift >= 0)
    denominator.shift_left(shift);
  else
    numerator.shift_left(-shift);
  if (numerator.compare(denominator) < 0) {
    numerator.shift_left(1);
    --shift;
  }
  const int power = shift + exponent;

  constexpr int least_power = -16382;  // of a normal quad
  const int precision = power >= least_power ? 113 : 113 - (least_power - power);
  if (precision < 0) return 0;
  zorvac_uint128_t significand = 0;
  for (int i = 0; i < precision; ++i) {
    significand = significand << 1 | (numerator.subtract_if_it_fits(denominator) ? 1 : 0);
    numerator.shift_left(1);
  }
  const int half = numerator.compare(denominator);
  if (half > 0 || (half == 0 && (significand & 1) != 0)) ++significand;

  // The leading 1 of a normal significand adds the last one to the exponent; so does a carry.
  if (power < least_power) return significand;
  const auto bits = (static_cast<zorvac_uint128_t>(power - least_power) << 112) + significand;
  return power > 16383 || bits > infinity ? infinity : bits;
}

// The significant digits of a number that is finite and not zero: 0.d1 d2 d3 ... * 10^point,
// rounded to `wanted` of them; without trailing zeros.
struct digit_string {
  char text[most_digits];
  int length, point;

  digit_string(const quad& q, int wanted) {
    const int biased = static_cast<int>(q.high_word() >> 48 & 0x7fff);
    const auto fraction =
        static_cast<zorvac_uint128_t>(q.high_word() & 0xffffffffffff) << 64 | q.low_word();
    const int power = (biased == 0 ? 1 : biased) - 16383 - 112;
    big_integer numerator{biased == 0 ? fraction
                                      : fraction | static_cast<zorvac_uint128_t>(1) << 112};
    big_integer denominator{1};

    // 10^point is above the number, and 1233 / 4096 so near the logarithm of 2 that the factor is
    // less than 1000: that costs up to two leading zeros.
    point = ((numerator.bit_length() + power) * 1233 >> 12) + 2;
    scale(power, numerator, denominator);
    scale(-point, numerator, denominator);
    const int fives = point < 0 ? -point : point;
    (point < 0 ? numerator : denominator).multiply_by_power_of_5(fives);
    generate(numerator, denominator, wanted);
  }

 private:
  static void scale(int power, big_integer& numerator, big_integer& denominator) {
    if (power >= 0)
      numerator.shift_left(power);
    else
      denominator.shift_left(-power);
  }

  void generate(big_integer& numerator, big_integer& denominator, int wanted) {
    length = 0;
    while (length < wanted) {
      numerator.multiply_add(10, 0);
      char digit = '0';
      while (numerator.subtract_if_it_fits(denominator)) ++digit;
      if (length == 0 && digit == '0')
        --point;
      else
        text[length++] = digit;
    }
    numerator.shift_left(1);
    const int half = numerator.compare(denominator);
    const bool up = half > 0 || (half == 0 && (text[length - 1] - '0') % 2 != 0);
    while (up && length > 0 && text[length - 1] == '9') --length;
    if (up && length > 0) ++text[length - 1];
    if (up && length == 0) {  // all were nines
      text[length++] = '1';
      ++point;
    }
    while (text[length - 1] == '0') --length;
  }
};

// Appends to a range of characters as long as there is room.
class writer {
 public:
  writer(char* first, char* last) : at_(first), last_(last) {}
  void put(const char* text, int length) {
    if (last_ - at_ < length) fits_ = false;
    if (!fits_) return;
    std::memcpy(at_, text, static_cast<std::size_t>(length));
    at_ += length;
  }
  void put(std::string_view text) { put(text.data(), static_cast<int>(text.size())); }
  void put_zeros(int count) {
    for (; count > 0; --count) put("0", 1);
  }
  std::to_chars_result result() const {
    return fits_ ? std::to_chars_result{at_, std::errc()}
                 : std::to_chars_result{last_, std::errc::value_too_large};
  }

 private:
  char *at_, *last_;
  bool fits_ = true;
};

inline void put_fixed(writer& out, const digit_string& d) {
  if (d.point <= 0) {
    out.put("0.");
    out.put_zeros(-d.point);
    out.put(d.text, d.length);
    return;
  }
  const int whole = d.length < d.point ? d.length : d.point;
  out.put(d.text, whole);
  out.put_zeros(d.point - whole);
  if (d.length > whole) {
    out.put(".");
    out.put(d.text + whole, d.length - whole);
  }
}

inline void put_scientific(writer& out, const digit_string& d) {
  out.put(d.text, 1);
  if (d.length > 1) {
    out.put(".");
    out.put(d.text + 1, d.length - 1);
  }
  const int exponent = d.point - 1, magnitude = exponent < 0 ? -exponent : exponent;
  char text[8];
  const auto end = std::to_chars(text, text + sizeof text, magnitude).ptr;
  out.put(exponent < 0 ? "e-" : "e+");
  if (magnitude < 10) out.put("0");
  out.put(text, static_cast<int>(end - text));
}

// `digits` significant ones; `fixed_digits` says from which exponent on the notation is scientific.
inline std::to_chars_result write(char* first, char* last, const quad& value, int digits,
                                  int fixed_digits) {
  writer out(first, last);
  if (signbit(value)) out.put("-");
  if (!isfinite(value)) {
    out.put(isnan(value) ? "nan" : "inf");
  } else if (abs(value).low_word() == 0 && abs(value).high_word() == 0) {
    out.put("0");
  } else {
    const digit_string d(value, digits);
    const bool fixed = d.point > -4 && d.point <= fixed_digits;
    fixed ? put_fixed(out, d) : put_scientific(out, d);
  }
  return out.result();
}

}  // namespace zorvac::decimal

namespace zorvac {

constexpr std::from_chars_result from_chars(const char* first, const char* last, quad& value) {
  const char* at = first;
  const bool negative = at != last && *at == '-';
  if (at != last && (*at == '-' || *at == '+')) ++at;

  quad magnitude;
  const char* end = nullptr;
  if (const char* inf = decimal::skip_word(at, last, "inf")) {
    const char* infinity = decimal::skip_word(inf, last, "inity");
    end = infinity != nullptr ? infinity : inf;
    magnitude = std::numeric_limits<quad>::infinity();
  } else if (const char* nan = decimal::skip_word(at, last, "nan")) {
    end = nan;
    magnitude = std::numeric_limits<quad>::quiet_NaN();
  } else {
    decimal::number number(at, last);
    if (number.end == nullptr) return {first, std::errc::invalid_argument};
    end = number.end;
    if (!number.digits.is_zero()) {
      const zorvac_uint128_t bits = decimal::nearest_quad(number);
      magnitude = quad::from_words(static_cast<std::uint64_t>(bits),
                                   static_cast<std::uint64_t>(bits >> 64));
      if (bits == 0 || isinf(magnitude)) return {end, std::errc::result_out_of_range};
    }
  }
  value = negative ? -magnitude : magnitude;
  return {end, std::errc()};
}

constexpr std::optional<quad> quad::parse(std::string_view text) {
  quad value;
  const char* const last = text.data() + text.size();
  const auto [end, error] = from_chars(text.data(), last, value);
  if (error != std::errc() || end != last) return std::nullopt;
  return value;
}

inline std::to_chars_result to_chars(char* first, char* last, const quad& value, int digits) {
  digits = digits < 1 ? 1 : digits > decimal::most_digits ? decimal::most_digits : digits;
  return decimal::write(first, last, value, digits, digits);
}

inline std::to_chars_result to_chars(char* first, char* last, const quad& value) {
  using limits = std::numeric_limits<quad>;
  for (int digits = limits::digits10; digits < limits::max_digits10; ++digits) {
    char text[64];  // a sign, the digits, a point and zeros or an exponent
    const auto written =
        decimal::write(text, text + sizeof text, value, digits, limits::max_digits10);
    quad back;
    from_chars(text, written.ptr, back);
    if (back.low_word() == value.low_word() && back.high_word() == value.high_word())
      return decimal::write(first, last, value, digits, limits::max_digits10);
  }
  return decimal::write(first, last, value, limits::max_digits10, limits::max_digits10);
}

inline std::string to_string(const quad& value) {
  char text[64];
  return std::string(text, to_chars(text, text + sizeof text, value).ptr);
}

inline std::string to_string(const quad& value, int digits) {
  std::string text(64, '\0');
  for (;;) {
    const auto [end, error] = to_chars(text.data(), text.data() + text.size(), value, digits);
    if (error == std::errc()) {
      text.resize(static_cast<std::size_t>(end - text.data()));
      return text;
    }
    text.resize(2 * text.size());
  }
}

/** Writes to_string(value, precision of the stream); include <ostream> to use it. */
template <class Traits>
std::basic_ostream<char, Traits>& operator<<(std::basic_ostream<char, Traits>& out,
                                             const quad& value) {
  return out << to_string(value, static_cast<int>(out.precision()));
}

inline namespace literals {

/** 1.5_q, 6.02214076e23_q, 1'000'000_q: the nearest quad, computed by the compiler, which rejects
 *  what from_chars() does not take as a whole (hexadecimal, for one) or finds out of range. */
template <char... Characters>
constexpr quad operator""_q() {
  constexpr auto value = [] {
    char text[sizeof...(Characters)] = {};
    std::size_t length = 0;
    for (const char c : {Characters...})
      if (c != '\'') text[length++] = c;
    return quad::parse(std::string_view(text, length));
  }();
  static_assert(value.has_value(), "not a decimal number in the range of a quad");
  return *value;
}

}  // namespace literals
}  // namespace zorvac
#endif
