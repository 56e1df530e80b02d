#ifndef ZORVAC_QUAD_TEXT_HPP
#define ZORVAC_QUAD_TEXT_HPP
/** Decimal and hexadecimal text for zorvac::quad: from_chars() and to_chars(), strings, streams,
 *  std::format and literals.
 *
 *  Conversions are correctly rounded. Reading gives the quad nearest to the number, however many
 *  digits it has. Writing gives the number of the given length nearest to the quad. Ties go to the
 *  even one. Both compute in integers: they ignore MXCSR and raise no flag. Reading also works at
 *  compile time, for literals. The locale is ignored.
 *
 *  Source: IEEE 754-2019, 5.12 (external character sequences), correctly rounded; C++20,
 *          [charconv], and printf of C17, 7.21.6.1, for the notations.
 */
#include <charconv>
#include <cstring>
#include <iosfwd>
#include <string>
#include <system_error>
#include <zorvac/quad.hpp>
#ifdef __has_include
#if __has_include(<format>) && __cplusplus >= 202002L
#include <format>
#endif
#endif

namespace zorvac {

/** Reads a number from the front of [first, last): an optional sign, digits with or without a
 *  point, an exponent; or "inf", "infinity" or "nan" in upper or lower case. White space and the
 *  payload of a NaN are not read.
 *
 *  format   general     the exponent is optional
 *           scientific  the exponent is required
 *           fixed       the exponent is not read
 *           hex         hexadecimal digits, without "0x"; an optional exponent of 2 after p
 *  returns  the end of the number, and no error. If there is no number: `first` and
 *           errc::invalid_argument. If it rounds to infinity, or is not zero and rounds to zero:
 *           its end and errc::result_out_of_range. On an error `value` does not change. */
constexpr std::from_chars_result from_chars(const char* first, const char* last, quad& value,
                                            std::chars_format format = std::chars_format::general);

/** Writes `value` into [first, last) as printf's %g would with a precision of `digits`: rounded to
 *  that many significant digits (1 at least, 11600 at most), without trailing zeros, with an
 *  exponent if it is below -4 or not below `digits`. Not terminated.
 *
 *  returns  the end of the text, and no error; or `last` and errc::value_too_large if there is no
 *           room, and the content of the range is then unspecified */
inline std::to_chars_result to_chars(char* first, char* last, quad value, int digits);

/** The same with the fewest digits, from 33 to 36, from which `value` is read back. */
inline std::to_chars_result to_chars(char* first, char* last, quad value);

/** The same as printf would by %f (fixed), %e (scientific), %g (general) or %a (hex, without its
 *  "0x"), with the same meaning of `precision`; a negative one is 6. Without a precision, with the
 *  fewest digits from which `value` is read back, and all digits of a hexadecimal number. */
inline std::to_chars_result to_chars(char* first, char* last, quad value, std::chars_format format,
                                     int precision);
inline std::to_chars_result to_chars(char* first, char* last, quad value, std::chars_format format);

/** The text that the first two write, as a string. */
inline std::string to_string(quad value);
inline std::string to_string(quad value, int digits);

/* ---- Integers of any length ------------------------------------------------------------------ */
/* A number is converted as an exact fraction of two integers. Divisions give the wanted bits or
 * digits, a whole word at a time. The remainder then decides the rounding exactly. */

namespace decimal {

using detail::uint128;

inline constexpr std::uint64_t chunk_scale = 10'000'000'000'000'000'000u;  // 10^19
inline constexpr int chunk_digits = 19;

// The longest decimal number that is halfway between two quads has 11564 digits; the quads are
// subnormal. Further digits of a longer number only show that it is no tie.
inline constexpr int most_digits = 11600;

// (high * 2^64 + low) / by, where `by` is above `high`: one instruction. Compilers would make the
// division below a call.
inline std::uint64_t divide_by_processor(std::uint64_t high, std::uint64_t low, std::uint64_t by) {
  __asm__("divq %2" : "+a"(low), "+d"(high) : "rm"(by) : "cc");
  return low;
}
constexpr std::uint64_t divide(std::uint64_t high, std::uint64_t low, std::uint64_t by) {
  if (!__builtin_is_constant_evaluated()) return divide_by_processor(high, low, by);
  return static_cast<std::uint64_t>((static_cast<uint128>(high) << 64 | low) / by);
}

// The largest integers are a number of most_digits and the power of 5 that divides it if it is
// subnormal, 5^(11600 + 4967) < 2^38500, shifted left by up to three words. Integers from at most
// 100 digits have a small array, with a power up to 5^220 or a longer one cut to six words.
constexpr int most_words = 38784 / 64, few_words = 20, kept_words = 6;
constexpr int short_power = 220, few_digits = 100;

// An integer that is not negative.
template <int Words>
class big_integer {
 public:
  constexpr explicit big_integer(uint128 value) {
    for (; value != 0; value >>= 64) words_[size_++] = static_cast<std::uint64_t>(value);
  }

  constexpr bool is_zero() const { return size_ == 0; }
  constexpr int bit_length() const {
    return is_zero() ? 0 : 64 * size_ - __builtin_clzll(words_[size_ - 1]);
  }

  constexpr void multiply_add(std::uint64_t factor, std::uint64_t addend) {
    std::uint64_t carry = addend;
    for (int i = 0; i < size_; ++i) {
      const auto product = static_cast<uint128>(words_[i]) * factor + carry;
      words_[i] = static_cast<std::uint64_t>(product);
      carry = static_cast<std::uint64_t>(product >> 64);
    }
    if (carry != 0) words_[size_++] = carry;
  }

  friend constexpr big_integer operator*(const big_integer& a, const big_integer& b) {
    big_integer product{0};
    for (int i = 0; i < a.size_; ++i) {
      std::uint64_t carry = 0;
      for (int j = 0; j < b.size_; ++j) {
        const auto sum =
            static_cast<uint128>(a.words_[i]) * b.words_[j] + product.words_[i + j] + carry;
        product.words_[i + j] = static_cast<std::uint64_t>(sum);
        carry = static_cast<std::uint64_t>(sum >> 64);
      }
      product.words_[i + b.size_] = carry;
    }
    product.size_ = a.size_ + b.size_;
    product.trim();
    return product;
  }

  constexpr void shift_left(int bits) {
    if (is_zero() || bits == 0) return;
    const int words = bits / 64, rest = bits % 64;
    for (int i = size_; i >= 0; --i) {
      const std::uint64_t below = i == 0 || rest == 0 ? 0 : words_[i - 1] >> (64 - rest);
      words_[i + words] = words_[i] << rest | below;
    }
    for (int i = 0; i < words; ++i) words_[i] = 0;
    size_ += words;
    if (words_[size_] != 0) ++size_;
  }

  // Shifts left by at least `at_least` bits, until its top bit is a word's top bit. Returns the
  // shift.
  constexpr int align(int at_least) {
    int shift = (64 - bit_length() % 64) % 64;
    if (at_least > shift) shift += (at_least - shift + 63) / 64 * 64;
    shift_left(shift);
    return shift;
  }

  // Keeps only the `most` highest words. Returns how many words it dropped.
  constexpr int cut(int most) {
    const int lost = size_ > most ? size_ - most : 0;
    if (lost == 0) return 0;
    for (int i = 0; i < size_; ++i) words_[i] = i < most ? words_[i + lost] : 0;
    size_ = most;
    return lost;
  }

  // Of an aligned integer: the highest two words, and whether a lower one is not 0.
  constexpr uint128 head() const {
    return static_cast<uint128>(words_[size_ - 1]) << 64 | (size_ > 1 ? words_[size_ - 2] : 0);
  }
  constexpr bool has_tail() const {
    int i = size_ - 3;
    while (i >= 0 && words_[i] == 0) --i;
    return i >= 0;
  }
  constexpr int size() const { return size_; }

  // Leaves the remainder and returns the quotient, which must be below 2^64. The divisor must be
  // aligned: then the quotient of the top words is at most 2 too large (Knuth, The Art of Computer
  // Programming, volume 2, 4.3.1, D).
  constexpr std::uint64_t divide_by(const big_integer& b) {
    const int n = b.size_;
    if (size_ < n) return 0;
    const std::uint64_t top = b.words_[n - 1];
    std::uint64_t quotient = ~std::uint64_t{0};
    if (words_[n] < top) quotient = divide(words_[n], words_[n - 1], top);
    std::uint64_t carry = 0;
    bool borrow = false;
    for (int i = 0; i < n; ++i) {
      const auto product = static_cast<uint128>(b.words_[i]) * quotient + carry;
      carry = static_cast<std::uint64_t>(product >> 64);
      const auto difference =
          static_cast<uint128>(words_[i]) - static_cast<std::uint64_t>(product) - (borrow ? 1 : 0);
      words_[i] = static_cast<std::uint64_t>(difference);
      borrow = difference >> 64 != 0;
    }
    bool negative = words_[n] < carry || (words_[n] == carry && borrow);
    words_[n] -= carry + (borrow ? 1 : 0);
    while (negative) {
      --quotient;
      negative = !add_words(b, n + 1);
    }
    size_ = n + 1;
    trim();
    return quotient;
  }

  constexpr void add(const big_integer& b) {
    const int n = (size_ > b.size_ ? size_ : b.size_) + 1;
    add_words(b, n);
    size_ = n;
    trim();
  }

  // Becomes b - this, which must not be negative.
  constexpr void subtract_from(const big_integer& b) {
    bool borrow = false;
    for (int i = 0; i < b.size_; ++i) {
      const auto difference = static_cast<uint128>(b.words_[i]) - words_[i] - (borrow ? 1 : 0);
      words_[i] = static_cast<std::uint64_t>(difference);
      borrow = difference >> 64 != 0;
    }
    size_ = b.size_;
    trim();
  }

  // Below 0 if this is less than `b`, 0 if equal, above 0 if greater.
  constexpr int compare(const big_integer& b) const {
    if (size_ != b.size_) return size_ - b.size_;
    for (int i = size_ - 1; i >= 0; --i)
      if (words_[i] != b.words_[i]) return words_[i] < b.words_[i] ? -1 : 1;
    return 0;
  }

 private:
  // Adds `count` words of `b`. Returns the carry.
  constexpr bool add_words(const big_integer& b, int count) {
    bool carry = false;
    for (int i = 0; i < count; ++i) {
      const auto sum = static_cast<uint128>(words_[i]) + b.words_[i] + (carry ? 1 : 0);
      words_[i] = static_cast<std::uint64_t>(sum);
      carry = sum >> 64 != 0;
    }
    return carry;
  }
  constexpr void trim() {
    while (size_ > 0 && words_[size_ - 1] == 0) --size_;
  }

  std::uint64_t words_[Words] = {};  // zeros above those in use
  int size_ = 0;                     // words in use; the highest of them is not 0
};

// value * 2^(64 * cut) is 5^exponent, or a little less if it has more than `kept` words.
template <int Words>
struct power_of_5 {
  big_integer<Words> value{1};
  int cut = 0;

  constexpr power_of_5(int exponent, int kept) {
    constexpr std::uint64_t power_27 = 7450580596923828125;  // the last below 2^64
    const int count = exponent / 27;
    int bit = 1;
    while (bit <= count / 2) bit *= 2;
    for (; bit != 0; bit >>= 1) {
      if (count >= 2 * bit) {
        value = value * value;
        cut = 2 * cut + value.cut(kept);
      }
      if ((count & bit) != 0) {
        value.multiply_add(power_27, 0);
        cut += value.cut(kept);
      }
    }
    std::uint64_t rest = 1;
    for (int i = exponent % 27; i > 0; --i) rest *= 5;
    value.multiply_add(rest, 0);
    cut += value.cut(kept);
  }

  // Turns a value that is too small into one that is too large. A cut takes less than 2^-320 of the
  // value. For a power up to 5^5100, the cuts and the squarings after them take at most 2^-312.
  constexpr void raise() { value.add(big_integer<Words>(static_cast<uint128>(256) << 64)); }
};

/* ---- Reading --------------------------------------------------------------------------------- */

// The value of a digit in bases up to 16; 16 for any other character.
constexpr unsigned digit_value(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? static_cast<unsigned>(lower - 'a' + 10) : 16;
}

// The end of `word` (in lower case) at the front of [first, last), or null if it is not there.
constexpr const char* skip_word(const char* first, const char* last, std::string_view word) {
  for (const char c : word) {
    // A null range is empty.  NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
    if (first == last || (*first | 0x20) != c) return nullptr;
    ++first;
  }
  return first;
}

// A number at the front of [first, last): digits * 10^exponent, or hexadecimal digits * 2^exponent.
struct number {
  std::int64_t digit_count = 0;  // without leading zeros
  std::int64_t exponent = 0;     // of 10 or of 2
  const char* end = nullptr;     // null if there is no number

  constexpr number(const char* first, const char* last, std::chars_format format)
      : base_(format == std::chars_format::hex ? 16 : 10) {
    const char* const mantissa_end = read_mantissa(first, last);
    if (base_ == 16) exponent *= 4;
    if (mantissa_end == nullptr) return;
    end = mantissa_end;
    if (format == std::chars_format::fixed) return;
    const char* const whole = read_exponent(mantissa_end, last, base_ == 16 ? 'p' : 'e');
    if (whole != nullptr)
      end = whole;
    else if (format == std::chars_format::scientific)
      end = nullptr;
  }

  constexpr bool hexadecimal() const { return base_ == 16; }

  // Whether head() has all digits: at most 38, like most numbers in programs.
  constexpr bool is_head() const { return digit_count == head_digits_; }
  constexpr uint128 head() const { return head_; }

  // The digits as an integer. If there are too many, one digit replaces those that are dropped: 0
  // if these are all zeros, else 1.
  template <int Words>
  constexpr big_integer<Words> value() {
    big_integer<Words> value{head_};
    const char* at = tail_;
    std::int64_t left = digit_count - head_digits_;
    // In hexadecimal, ties are short.
    const std::int64_t most = base_ == 16 ? few_digits : most_digits;
    const std::int64_t dropped = digit_count > most ? digit_count - most : 0;
    std::uint64_t chunk = 0, scale = 1;
    for (; left > dropped; ++at) {
      if (*at == '.') continue;
      --left;
      chunk = chunk * base_ + digit_value(*at);
      scale *= base_;
      if (scale >= chunk_scale / 16 || left == dropped) {
        value.multiply_add(scale, chunk);
        chunk = 0;
        scale = 1;
      }
    }
    if (dropped == 0) return value;
    bool zeros = true;
    for (; left > 0; ++at) {
      if (*at == '.') continue;
      --left;
      zeros = zeros && *at == '0';
    }
    value.multiply_add(base_, zeros ? 0 : 1);
    exponent += (dropped - 1) * (base_ == 16 ? 4 : 1);
    digit_count = most + 1;
    return value;
  }

 private:
  constexpr const char* read_mantissa(const char* at, const char* last) {
    const char* const first = at;
    const char* point = nullptr;
    // Skips the point, and digits as long as `takes` accepts them.
    const auto pass = [&](auto takes) {
      for (; at != last; ++at) {
        const unsigned digit = digit_value(*at);
        if (digit < base_) {
          if (!takes(digit)) return;
        } else if (*at == '.' && point == nullptr) {
          point = at;
        } else {
          return;
        }
      }
    };
    pass([](unsigned digit) { return digit == 0; });
    const int most_in_head = base_ == 16 ? 32 : 38;
    pass([&](unsigned digit) {
      if (head_digits_ == most_in_head) return false;
      head_ = head_ * base_ + digit;
      ++head_digits_;
      return true;
    });
    tail_ = at;
    pass([](unsigned) { return true; });
    digit_count = head_digits_ + (at - tail_) - (point != nullptr && point >= tail_ ? 1 : 0);
    if (point != nullptr) exponent = -(at - point - 1);
    return at - first > (point != nullptr ? 1 : 0) ? at : nullptr;
  }

  // An exponent is part of the number only if it has a digit. Its value saturates at a limit that
  // no number of digits can make up for.
  constexpr const char* read_exponent(const char* at, const char* last, char letter) {
    if (at == last || (*at | 0x20) != letter) return nullptr;
    ++at;
    const bool negative = at != last && *at == '-';
    if (at != last && (*at == '-' || *at == '+')) ++at;
    if (at == last || digit_value(*at) >= 10) return nullptr;
    constexpr std::int64_t limit = 100'000'000'000'000'000;
    std::int64_t value = 0;
    for (; at != last && digit_value(*at) < 10; ++at)
      if (value < limit) value = value * 10 + digit_value(*at);
    exponent += negative ? -value : value;
    return at;
  }

  unsigned base_;
  uint128 head_ = 0;  // the first digits, for which a big integer would be slow
  int head_digits_ = 0;
  const char* tail_ = nullptr;  // the digits after these, maybe with the point
};

// The bits of the quad nearest to significand * 2^exponent, or 0 or infinity if that is out of
// range. With `sticky`, the exact significand is larger by less than 1, and `significand` has at
// least 120 bits.
constexpr uint128 nearest(uint128 significand, bool sticky, int exponent) {
  const int zeros = detail::leading_zeros(significand);
  significand <<= zeros;
  const int power = exponent + 127 - zeros;  // of the leading one
  constexpr int least_power = -16382;        // of a normal quad
  const bool normal = power >= least_power;
  const int precision = normal ? 113 : 113 - (least_power - power);
  if (precision < 0) return 0;
  if (power > 16383) return detail::infinity_bits;
  constexpr uint128 half = static_cast<uint128>(1) << 127;
  const uint128 rest = significand << precision;
  uint128 bits = precision == 0 ? 0 : significand >> (128 - precision);
  if (rest > half || (rest == half && (sticky || (bits & 1) != 0))) ++bits;
  // The leading one of a normal significand adds the last 1 to the exponent; so does a carry, which
  // may lead to infinity.
  return normal ? bits + (static_cast<uint128>(power - least_power) << 112) : bits;
}

// The same for a fraction of two integers.
template <int Words>
constexpr uint128 nearest(big_integer<Words> numerator, big_integer<Words> denominator,
                          int exponent) {
  // Shifts so that the numerator has one bit less. The quotient is then between 1/4 and 1, and two
  // words of it have at least 126 bits.
  const int excess = numerator.bit_length() - denominator.bit_length() + 1;
  numerator.shift_left(denominator.align(excess) - excess + 64);
  const uint128 high = numerator.divide_by(denominator);
  numerator.shift_left(64);
  const std::uint64_t low = numerator.divide_by(denominator);
  return nearest(high << 64 | low, !numerator.is_zero(), exponent + excess - 128);
}

// The same for digits / 10^power, for digits from 1 to 10^38 and a power from 1 to 27: that power
// of 5 is one word. A division of two words by one, and another of its rest, give 126 bits and
// more.
constexpr uint128 nearest_to_quotient(uint128 digits, int power) {
  std::uint64_t divisor = 5;
  for (int i = 1; i < power; ++i) divisor *= 5;
  const int divisor_zeros = detail::leading_zeros(divisor) - 64;
  const int digits_zeros = detail::leading_zeros(digits) - 1;  // the quotient fits two words
  divisor <<= divisor_zeros;
  digits <<= digits_zeros;
  const uint128 high = digits / divisor;
  const uint128 rest = (digits - high * divisor) << 64;
  const uint128 low = rest / divisor;
  return nearest(high << 64 | low, rest != low * divisor,
                 divisor_zeros - digits_zeros - 64 - power);
}

// The same for digits * 10^exponent, with the power of 5 for it.
template <int Words>
constexpr uint128 nearest(const big_integer<Words>& digits, int exponent,
                          const power_of_5<Words>& power) {
  if (exponent < 0) return nearest(digits, power.value, exponent - 64 * power.cut);
  big_integer<Words> product = digits * power.value;
  const int shift = product.align(0);
  return nearest(product.head(), product.has_tail(),
                 exponent + 64 * (power.cut + product.size() - 2) - shift);
}

// The same for a number that is not zero. If the power is cut, a value that is too small and one
// that is too large must give the same quad: then the exact power gives it, too. Otherwise returns
// nothing.
template <int Words>
constexpr std::optional<uint128> nearest_quad(number from, int kept) {
  const big_integer<Words> digits = from.value<Words>();
  const int exponent = static_cast<int>(from.exponent);
  if (from.hexadecimal()) {
    big_integer<Words> aligned = digits;
    const int shift = aligned.align(0);
    return nearest(aligned.head(), aligned.has_tail(),
                   exponent + 64 * (aligned.size() - 2) - shift);
  }
  power_of_5<Words> power(exponent < 0 ? -exponent : exponent, kept);
  const uint128 size = nearest(digits, exponent, power);
  if (power.cut == 0) return size;
  power.raise();
  if (size != nearest(digits, exponent, power)) return std::nullopt;
  return size;
}
constexpr uint128 nearest_quad(const number& from) {
  if (from.is_head() && from.exponent == 0) return nearest(from.head(), false, 0);
  if (from.is_head() && !from.hexadecimal() && from.exponent < 0 && from.exponent >= -27)
    return nearest_to_quotient(from.head(), static_cast<int>(-from.exponent));
  // The number of digits before the point, or of bits, which may be 3 too many.
  const std::int64_t size = from.exponent + from.digit_count * (from.hexadecimal() ? 4 : 1);
  if (size > (from.hexadecimal() ? 16389 : 4933)) return detail::infinity_bits;
  if (size < (from.hexadecimal() ? -16500 : -4966)) return 0;
  if (from.digit_count <= few_digits) {
    const bool is_short = from.exponent >= -short_power && from.exponent <= short_power;
    const auto bits = nearest_quad<few_words>(from, is_short ? few_words : kept_words);
    if (bits.has_value()) return *bits;
  }
  return *nearest_quad<most_words>(from, most_words);
}

// As from_chars(), but a number out of range gives a value, too: infinity or zero.
constexpr std::from_chars_result read(const char* first, const char* last, quad& value,
                                      std::chars_format format) {
  const char* at = first;
  const bool negative = at != last && *at == '-';
  if (at != last && (*at == '-' || *at == '+')) ++at;

  auto error = std::errc();
  const char* end = nullptr;
  uint128 size = 0;
  if (const char* inf = skip_word(at, last, "inf")) {
    const char* infinity = skip_word(inf, last, "inity");
    end = infinity != nullptr ? infinity : inf;
    size = detail::infinity_bits;
  } else if (const char* nan = skip_word(at, last, "nan")) {
    end = nan;
    size = detail::infinity_bits | detail::quiet_bit;
  } else {
    number digits(at, last, format);
    if (digits.end == nullptr) return {first, std::errc::invalid_argument};
    end = digits.end;
    if (digits.digit_count != 0) {
      size = nearest_quad(digits);
      if (size == 0 || size == detail::infinity_bits) error = std::errc::result_out_of_range;
    }
  }
  value = detail::with_sign(negative, size);
  return {end, error};
}

/* ---- Digits ---------------------------------------------------------------------------------- */

constexpr int shortest = -1;  // instead of a number of digits: the fewest that read back

// The significant digits of a finite number: 0.d1 d2 d3 ... * 10^point, without trailing zeros.
// Zero has none.
struct digit_string {
  char text[most_digits + 2 * chunk_digits];
  int length = 0, point = 1;

  // Rounded to `wanted` digits or, with `behind_point`, to `wanted` places behind the point; or, if
  // `wanted` is `shortest`, to the fewest digits, from 33 to 36, that read back.
  inline digit_string(quad q, int wanted, bool behind_point = false);

 private:
  digit_string() {}
  bool operator==(const digit_string& b) const {
    return length == b.length && point == b.point &&
           std::memcmp(text, b.text, static_cast<std::size_t>(length)) == 0;
  }
};

// Computes the digits by divisions.
template <int Words>
class digit_generator {
 public:
  // The number is significand * 2^power, and below 10^point. `five` is the power of 5 for that.
  digit_generator(digit_string& out, uint128 significand, int power, const power_of_5<Words>& five)
      : text_(out.text), length_(out.length), point_(out.point), significand_(significand) {
    // ulp / denominator is 2^power / 10^point. `twos` has the powers of 2, also those of the cut.
    const int cut = point_ < 0 ? 64 * five.cut : -64 * five.cut;
    const int twos = power - point_ + cut;
    (point_ < 0 ? ulp_ : denominator_) = five.value;
    ulp_.shift_left(denominator_.align(-twos) + twos);
    rest_ = ulp_ * big_integer<Words>(significand);
  }

  // `narrow_below`: the next number below is only half an ulp away, as below a power of 2.
  void generate(int wanted, bool behind_point, bool narrow_below) {
    generate_chunk();
    if (wanted == shortest) {
      generate_chunk();
      for (int chunk = 0; chunk < 2; ++chunk) ulp_.multiply_add(chunk_scale, 0);
      wanted = fewest_digits(narrow_below);
    } else if (behind_point) {
      wanted += point_;
    }
    if (wanted > most_digits) wanted = most_digits;
    while (length_ <= wanted && !rest_.is_zero()) generate_chunk();
    round(wanted);
  }

 private:
  // Appends 19 digits, the first time without leading zeros.
  void generate_chunk() {
    rest_.multiply_add(chunk_scale, 0);
    std::uint64_t chunk = rest_.divide_by(denominator_);
    char* const digits = text_ + length_;
    for (int i = chunk_digits; i > 0; chunk /= 10)
      digits[--i] = static_cast<char>('0' + chunk % 10);
    int zeros = 0;
    if (length_ == 0)
      while (digits[zeros] == '0') ++zeros;
    std::memmove(digits, digits + zeros, static_cast<std::size_t>(chunk_digits - zeros));
    length_ += chunk_digits - zeros;
    point_ -= zeros;
  }

  // Whether the nearest number of `count` digits is above. A tie goes to the even one.
  bool rounds_up(int count) const {
    if (text_[count] != '5') return text_[count] > '5';
    bool above_half = !rest_.is_zero();
    for (int i = count + 1; i < length_; ++i) above_half = above_half || text_[i] != '0';
    return above_half || (count > 0 && (text_[count - 1] - '0') % 2 != 0);
  }

  // A number reads back if it is less than half an ulp away, or exactly half if the significand is
  // even. In units of the last digit, the part that is not in the text is rest / denominator.
  int fewest_digits(bool narrow_below) const {
    using limits = std::numeric_limits<quad>;
    for (int count = limits::digits10; count < limits::max_digits10 && count < length_; ++count) {
      std::uint64_t cut = 0, unit = 1;
      for (int i = count; i < length_; ++i, unit *= 10)
        cut = cut * 10 + static_cast<std::uint64_t>(text_[i] - '0');
      const bool up = rounds_up(count);
      big_integer<Words> distance = denominator_;
      distance.multiply_add(up ? unit - cut : cut, 0);
      if (up) {
        const big_integer<Words> above = distance;
        distance = rest_;
        distance.subtract_from(above);
      } else {
        distance.add(rest_);
      }
      distance.shift_left(!up && narrow_below ? 2 : 1);
      const int order = distance.compare(ulp_);
      if (order < 0 || (order == 0 && (significand_ & 1) == 0)) return count;
    }
    return limits::max_digits10;
  }

  void round(int count) {
    if (count < length_) {
      const bool up = count >= 0 && rounds_up(count);
      length_ = count < 0 ? 0 : count;
      while (up && length_ > 0 && text_[length_ - 1] == '9') --length_;
      if (up && length_ > 0) ++text_[length_ - 1];
      if (up && length_ == 0) {  // all were nines
        text_[length_++] = '1';
        ++point_;
      }
    }
    while (length_ > 0 && text_[length_ - 1] == '0') --length_;
  }

  char* const text_;
  int &length_, &point_;
  const uint128 significand_;
  big_integer<Words> ulp_{1}, denominator_{1}, rest_{0};
};

inline digit_string::digit_string(quad q, int wanted, bool behind_point) {
  uint128 significand = abs(q).bits();
  if (significand == 0) return;
  if (wanted > 2 * most_digits) wanted = 2 * most_digits;  // all further digits are zeros
  const int biased = static_cast<int>(significand >> 112);
  if (biased != 0) significand = (significand & (detail::leading_one - 1)) | detail::leading_one;
  const bool narrow_below = significand == detail::leading_one && biased > 1;
  const int power = (biased == 0 ? 1 : biased) - detail::bias - 112;
  // 10^point is above the number. 1233 / 4096 is so close to the logarithm of 2 that the factor is
  // less than 1000: there are at most two leading zeros.
  point = ((128 - detail::leading_zeros(significand) + power) * 1233 >> 12) + 2;
  const auto generate = [&](digit_string& out, const auto& five) {
    digit_generator(out, significand, power, five).generate(wanted, behind_point, narrow_below);
  };
  const int start = point, fives = point < 0 ? -point : point;
  if (fives <= short_power) {
    generate(*this, power_of_5<few_words>(fives, few_words));
    return;
  }
  // If a power that is too small gives the same digits as one that is too large, the exact power
  // gives them, too.
  constexpr int certain_digits = 40;
  if (wanted + (behind_point ? point : 0) <= certain_digits) {
    power_of_5<few_words> five(fives, kept_words);
    generate(*this, five);
    digit_string other;
    other.point = start;
    five.raise();
    generate(other, five);
    if (other == *this) return;
    point = start;
    length = 0;
  }
  generate(*this, power_of_5<most_words>(fives, most_words));
}

/* ---- Writing --------------------------------------------------------------------------------- */

// How to write a number. The members correspond to printf's flags.
struct style {
  std::chars_format format = std::chars_format::general;
  int precision = shortest;
  bool uppercase = false;
  bool always_point = false;  // %#
  bool prefix = false;        // 0x before hexadecimal digits
  char plus = 0;              // the sign of numbers without a minus, or 0
};

// Appends to a range of characters while there is room.
class writer {
 public:
  writer(char* first, char* last) : at_(first), last_(last) {}
  void put(const char* text, int length) {
    if (has_room(length)) std::memcpy(take(length), text, static_cast<std::size_t>(length));
  }
  void put(char c) { put(&c, 1); }
  void put_zeros(int count) {
    if (has_room(count)) std::memset(take(count), '0', static_cast<std::size_t>(count));
  }
  std::to_chars_result result() const {
    return fits_ ? std::to_chars_result{at_, std::errc()}
                 : std::to_chars_result{last_, std::errc::value_too_large};
  }

 private:
  bool has_room(int count) {
    fits_ = fits_ && last_ - at_ >= count;
    return fits_ && count > 0;
  }
  char* take(int count) {
    at_ += count;
    return at_ - count;
  }

  char *at_, *last_;
  bool fits_ = true;
};

inline void put_exponent(writer& out, char letter, int exponent, int least_digits) {
  out.put(letter);
  out.put(exponent < 0 ? '-' : '+');
  char text[8];
  int length = 0;
  for (unsigned rest = static_cast<unsigned>(exponent < 0 ? -exponent : exponent);
       rest != 0 || length < least_digits; rest /= 10)
    text[++length] = static_cast<char>('0' + rest % 10);
  for (; length > 0; --length) out.put(text[length]);
}

// A point and `count` digits behind it: `zeros` zeros, the `there` digits, zeros. If `count` is
// negative, without zeros at the end.
inline void put_fraction(writer& out, const style& how, int zeros, const char* digits, int there,
                         int count) {
  if (there < 0) there = 0;
  if (count < 0) count = there > 0 ? zeros + there : 0;
  if (count > 0 || how.always_point) out.put('.');
  if (zeros > count) zeros = count;
  if (there > count - zeros) there = count - zeros;
  out.put_zeros(zeros);
  out.put(digits, there);
  out.put_zeros(count - zeros - there);
}

inline void put_fixed(writer& out, const style& how, const digit_string& d, int fraction) {
  const int before_point = d.point > 0 ? d.point : 0;
  const int whole = d.length < before_point ? d.length : before_point;
  out.put(d.text, whole);
  out.put_zeros(before_point == 0 ? 1 : before_point - whole);
  put_fraction(out, how, before_point - d.point, d.text + whole, d.length - whole, fraction);
}

inline void put_scientific(writer& out, const style& how, const digit_string& d, int fraction) {
  out.put(d.length == 0 ? '0' : d.text[0]);
  put_fraction(out, how, 0, d.text + 1, d.length - 1, fraction);
  put_exponent(out, how.uppercase ? 'E' : 'e', d.point - 1, 2);
}

// Scientific notation if the exponent is below -4, or not below the precision.
inline void put_general(writer& out, const style& how, quad value) {
  const bool all = how.precision == shortest;
  const int wanted = how.precision == 0 ? 1 : how.precision;
  const int precision = all ? std::numeric_limits<quad>::max_digits10 : wanted;
  const digit_string d(value, wanted);
  const bool fixed = d.point > -4 && d.point <= precision;
  const bool padded = how.always_point && !all;
  if (fixed)
    put_fixed(out, how, d, padded ? precision - d.point : -1);
  else
    put_scientific(out, how, d, padded ? precision - 1 : -1);
}

// One digit before the point: 1, or 0 for subnormal numbers and zero. Rounding may add 1 to it.
inline void put_hexadecimal(writer& out, const style& how, quad value) {
  uint128 significand = abs(value).bits();
  const int biased = static_cast<int>(significand >> 112);
  if (biased != 0) significand = (significand & (detail::leading_one - 1)) | detail::leading_one;
  constexpr int all_digits = 112 / 4;
  if (how.precision >= 0 && how.precision < all_digits) {
    const int lost = 4 * (all_digits - how.precision);
    const uint128 unit = static_cast<uint128>(1) << lost, rest = significand & (unit - 1);
    significand -= rest;
    if (rest > unit / 2 || (rest == unit / 2 && (significand & unit) != 0)) significand += unit;
  }
  const char* const symbols = how.uppercase ? "0123456789ABCDEF" : "0123456789abcdef";
  char digits[1 + all_digits];
  for (int i = all_digits; i >= 0; --i, significand >>= 4)
    digits[i] = symbols[static_cast<unsigned>(significand & 15)];
  int length = 1 + all_digits;
  while (length > 1 && digits[length - 1] == '0') --length;

  if (how.prefix) out.put(how.uppercase ? "0X" : "0x", 2);
  out.put(digits[0]);
  put_fraction(out, how, 0, digits + 1, length - 1, how.precision);
  const int exponent = detail::is_zero(value) ? 0 : (biased == 0 ? 1 : biased) - detail::bias;
  put_exponent(out, how.uppercase ? 'P' : 'p', exponent, 1);
}

inline std::to_chars_result write(char* first, char* last, quad value, const style& how) {
  writer out(first, last);
  if (signbit(value))
    out.put('-');
  else if (how.plus != 0)
    out.put(how.plus);
  if (isnan(value)) {
    out.put(how.uppercase ? "NAN" : "nan", 3);
  } else if (isinf(value)) {
    out.put(how.uppercase ? "INF" : "inf", 3);
  } else if (how.format == std::chars_format::hex) {
    put_hexadecimal(out, how, value);
  } else if (how.format == std::chars_format::fixed) {
    put_fixed(out, how, digit_string(value, how.precision, how.precision != shortest),
              how.precision);
  } else if (how.format == std::chars_format::scientific) {
    const int digits = how.precision < most_digits ? how.precision + 1 : most_digits;
    put_scientific(out, how, digit_string(value, how.precision == shortest ? shortest : digits),
                   how.precision);
  } else {
    put_general(out, how, value);
  }
  return out.result();
}

inline std::string to_text(quad value, const style& how) {
  // Room for sign, prefix, exponent and the digits that are always there; for the digits of the
  // precision; and for the digits before the point, or the zeros behind it.
  std::size_t size = 64;
  if (how.precision > 0) size += static_cast<std::size_t>(how.precision);
  if (how.format == std::chars_format::fixed) {
    const int power = static_cast<int>(abs(value).bits() >> 112) - detail::bias;
    size += static_cast<std::size_t>((power < 0 ? -power : power) / 3);
  }
  std::string text(size, '\0');
  const char* const end = write(text.data(), text.data() + size, value, how).ptr;
  text.resize(static_cast<std::size_t>(end - text.data()));
  return text;
}

// Fills `text` up to `width`: behind it, before it, on both sides, or (internal) behind the sign
// or, without a sign, behind the prefix.
enum class adjustment { left, right, center, internal };
inline void pad(std::string& text, std::size_t width, char fill, adjustment where) {
  if (text.size() >= width) return;
  const std::size_t count = width - text.size();
  std::size_t before = where == adjustment::right    ? count
                       : where == adjustment::center ? count / 2
                                                     : 0;
  std::size_t at = 0;
  if (where == adjustment::internal) {
    before = count;
    if (text[0] == '-' || text[0] == '+' || text[0] == ' ')
      at = 1;
    else if (text.size() > 1 && (text[1] | 0x20) == 'x')
      at = 2;
  }
  text.append(count - before, fill);
  text.insert(at, before, fill);
}

constexpr int checked_digits(int digits) {
  return digits < 1 ? 1 : digits > most_digits ? most_digits : digits;
}

}  // namespace decimal

/* ---- The functions declared above ------------------------------------------------------------ */

constexpr std::from_chars_result from_chars(const char* first, const char* last, quad& value,
                                            std::chars_format format) {
  quad read;
  const std::from_chars_result result = decimal::read(first, last, read, format);
  if (result.ec == std::errc()) value = read;
  return result;
}

constexpr std::optional<quad> quad::parse(std::string_view text) {
  quad value;
  const char* const last = text.data() + text.size();
  const auto [end, error] = from_chars(text.data(), last, value);
  if (error != std::errc() || end != last) return std::nullopt;
  return value;
}

inline std::to_chars_result to_chars(char* first, char* last, quad value, int digits) {
  decimal::style how;
  how.precision = decimal::checked_digits(digits);
  return decimal::write(first, last, value, how);
}
inline std::to_chars_result to_chars(char* first, char* last, quad value) {
  return decimal::write(first, last, value, decimal::style());
}
inline std::to_chars_result to_chars(char* first, char* last, quad value, std::chars_format format,
                                     int precision) {
  decimal::style how;
  how.format = format;
  how.precision = precision < 0 ? 6 : precision;
  return decimal::write(first, last, value, how);
}
inline std::to_chars_result to_chars(char* first, char* last, quad value,
                                     std::chars_format format) {
  decimal::style how;
  how.format = format;
  return decimal::write(first, last, value, how);
}

inline std::string to_string(quad value) { return decimal::to_text(value, decimal::style()); }
inline std::string to_string(quad value, int digits) {
  decimal::style how;
  how.precision = decimal::checked_digits(digits);
  return decimal::to_text(value, how);
}

/* ---- Streams --------------------------------------------------------------------------------- */

/** Writes `value` as a double is written: by precision, fixed, scientific, both (which is
 *  hexadecimal), showpos, showpoint, uppercase, width, fill, left and internal. Include <ostream>
 *  to use it. */
template <class Traits>
std::basic_ostream<char, Traits>& operator<<(std::basic_ostream<char, Traits>& out, quad value) {
  using stream = std::basic_ostream<char, Traits>;
  const auto flags = out.flags();
  const auto notation = flags & stream::floatfield, side = flags & stream::adjustfield;
  decimal::style how;
  how.precision = out.precision() < 0 ? 6 : static_cast<int>(out.precision());
  if (notation == stream::fixed) {
    how.format = std::chars_format::fixed;
  } else if (notation == stream::scientific) {
    how.format = std::chars_format::scientific;
  } else if (notation == (stream::fixed | stream::scientific)) {
    how.format = std::chars_format::hex;
    how.precision = decimal::shortest;
    how.prefix = true;
  }
  how.uppercase = (flags & stream::uppercase) != 0;
  how.always_point = (flags & stream::showpoint) != 0;
  how.plus = (flags & stream::showpos) != 0 ? '+' : '\0';
  std::string text = decimal::to_text(value, how);
  decimal::pad(text, out.width() < 0 ? 0 : static_cast<std::size_t>(out.width()), out.fill(),
               side == stream::left       ? decimal::adjustment::left
               : side == stream::internal ? decimal::adjustment::internal
                                          : decimal::adjustment::right);
  out.width(0);
  return out << text;
}

/** Reads the longest text that can begin a decimal number, or a word. If from_chars() does not read
 *  all of it as a number, failbit is set and `value` is 0. If the number is out of range, failbit
 *  is set and `value` is the largest number or 0, with the sign. Include <istream> to use it. */
template <class Traits>
std::basic_istream<char, Traits>& operator>>(std::basic_istream<char, Traits>& in, quad& value) {
  using stream = std::basic_istream<char, Traits>;
  const typename stream::sentry ready(in);
  if (!ready) return in;
  std::string text;
  auto state = stream::goodbit;
  const auto next_is = [&](auto accepted) {
    const auto c = in.rdbuf()->sgetc();
    if (Traits::eq_int_type(c, Traits::eof())) {
      state |= stream::eofbit;
      return false;
    }
    return accepted(Traits::to_char_type(c));
  };
  const auto take_while = [&](auto accepted, std::size_t most) {
    const std::size_t before = text.size();
    for (; most > 0 && next_is(accepted); --most) {
      text += Traits::to_char_type(in.rdbuf()->sgetc());
      in.rdbuf()->sbumpc();
    }
    return text.size() != before;
  };
  const auto is_sign = [](char c) { return c == '-' || c == '+'; };
  const auto is_point = [](char c) { return c == '.'; };
  const auto is_exponent = [](char c) { return (c | 0x20) == 'e'; };
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  const auto is_letter = [](char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; };
  constexpr auto all = static_cast<std::size_t>(-1);
  take_while(is_sign, 1);
  if (!take_while(is_letter, all)) {
    bool digits = take_while(is_digit, all);
    if (take_while(is_point, 1)) digits |= take_while(is_digit, all);
    if (digits && take_while(is_exponent, 1)) {
      take_while(is_sign, 1);
      take_while(is_digit, all);
    }
  }
  quad read;
  const char* const last = text.data() + text.size();
  const auto [end, error] = decimal::read(text.data(), last, read, std::chars_format::general);
  if (error != std::errc() || end != last) state |= stream::failbit;
  if (error == std::errc::result_out_of_range && isinf(read))
    read = copysign(std::numeric_limits<quad>::max(), read);
  value = end == last ? read : quad();
  if (state != stream::goodbit) in.setstate(state);
  return in;
}

/* ---- Literals -------------------------------------------------------------------------------- */

inline namespace literals {

/** 1.5_q, 6.02214076e23_q, 1'000'000_q: the nearest quad, computed by the compiler. A literal does
 *  not compile if it is out of range, or hexadecimal: from_chars() does not read all of that. */
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

/* ---- std::format ----------------------------------------------------------------------------- */

#ifdef __cpp_lib_format
namespace zorvac::decimal {

[[noreturn]] inline void refuse_format(const char* why) {
#ifdef __cpp_exceptions
  throw std::format_error(why);
#else
  (void)why;
  __builtin_abort();
#endif
}

// A width or a precision, from the format or from an argument.
class format_count {
 public:
  using iterator = std::format_parse_context::iterator;

  constexpr bool given() const { return number_ >= 0 || argument_ >= 0; }

  constexpr void parse(iterator& at, iterator end, std::format_parse_context& context) {
    if (at == end) return;
    if (*at != '{') {
      number_ = digits(at, end);
      return;
    }
    ++at;
    const int id = digits(at, end);
    argument_ = id < 0 ? static_cast<int>(context.next_arg_id()) : id;
    if (id >= 0) context.check_arg_id(static_cast<std::size_t>(id));
    if (at == end || *at != '}') refuse_format("a replacement field is not closed");
    ++at;
  }

  template <class Context>
  int value(Context& context) const {
    if (argument_ < 0) return number_;
    return std::visit_format_arg(
        [](auto value) {
          using type = decltype(value);
          if constexpr (std::is_integral_v<type> && !std::is_same_v<type, bool> &&
                        !std::is_same_v<type, char>)
            if (value >= 0 && static_cast<unsigned long long>(value) <= most)
              return static_cast<int>(value);
          refuse_format("a width or a precision is no number, or out of range");
          return 0;
        },
        context.arg(static_cast<std::size_t>(argument_)));
  }

 private:
  static constexpr int most = 1'000'000'000;

  static constexpr int digits(iterator& at, iterator end) {
    int value = -1;
    for (; at != end && *at >= '0' && *at <= '9'; ++at) {
      value = (value < 0 ? 0 : value) * 10 + (*at - '0');
      if (value > most / 10) refuse_format("a width or a precision is out of range");
    }
    return value;
  }

  int number_ = -1, argument_ = -1;
};

}  // namespace zorvac::decimal

/** As for a double. {} gives the fewest digits, from 33 to 36, that read back. L is ignored. */
template <>
struct std::formatter<zorvac::quad, char> {
  constexpr auto parse(std::format_parse_context& context) {
    auto at = context.begin();
    const auto end = context.end();
    const auto take = [&](char c) { return at != end && *at == c ? (++at, true) : false; };
    const auto side = [](char c) { return c == '<' || c == '>' || c == '^'; };

    if (end - at >= 2 && side(at[1])) {
      fill_ = at[0];
      ++at;
    }
    if (at != end && side(*at)) align_ = *at++;
    if (take('+'))
      style_.plus = '+';
    else if (take(' '))
      style_.plus = ' ';
    else
      take('-');
    style_.always_point = take('#');
    zeros_ = take('0');
    width_.parse(at, end, context);
    if (take('.')) {
      precision_.parse(at, end, context);
      if (!precision_.given()) zorvac::decimal::refuse_format("a precision is missing");
      style_.precision = 6;
    }
    take('L');
    if (at != end && *at != '}') parse_type(*at++);
    if (at != end && *at != '}') zorvac::decimal::refuse_format("this is no format of a number");
    return at;
  }

  template <class Context>
  auto format(zorvac::quad value, Context& context) const {
    auto how = style_;
    if (precision_.given()) how.precision = precision_.value(context);
    std::string text = zorvac::decimal::to_text(value, how);
    using zorvac::decimal::adjustment;
    const bool zeros = zeros_ && align_ == 0 && isfinite(value);
    const adjustment where = zeros           ? adjustment::internal
                             : align_ == '<' ? adjustment::left
                             : align_ == '^' ? adjustment::center
                                             : adjustment::right;
    const int width = width_.given() ? width_.value(context) : 0;
    zorvac::decimal::pad(text, static_cast<std::size_t>(width), zeros ? '0' : fill_, where);
    auto out = context.out();
    for (const char c : text) *out++ = c;
    return out;
  }

 private:
  constexpr void parse_type(char type) {
    const char lower = static_cast<char>(type | 0x20);
    style_.uppercase = type != lower;
    switch (lower) {
      case 'a':
        style_.format = std::chars_format::hex;
        return;
      case 'e':
        style_.format = std::chars_format::scientific;
        break;
      case 'f':
        style_.format = std::chars_format::fixed;
        break;
      case 'g':
        break;
      default:
        zorvac::decimal::refuse_format("this is no format of a number");
    }
    style_.precision = 6;
  }

  zorvac::decimal::style style_;
  char fill_ = ' ', align_ = 0;
  bool zeros_ = false;
  zorvac::decimal::format_count width_, precision_;
};
#endif
#endif
