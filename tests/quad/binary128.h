#ifndef ZORVAC_TESTS_QUAD_BINARY128_H
#define ZORVAC_TESTS_QUAD_BINARY128_H
// What the quad tests share: a quad as it lies in memory, the floating-point environment that a
// routine is called in, and all that it leaves behind.
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>
#include <type_traits>

namespace zorvac::test {

using uint128 = unsigned __int128;
using int128 = __int128;

struct bits {
  std::uint64_t low, high;
  bool operator==(const bits&) const = default;
};

constexpr uint128 word_of(bits q) { return uint128{q.high} << 64 | q.low; }
constexpr bits bits_of(uint128 word) {
  return {static_cast<std::uint64_t>(word), static_cast<std::uint64_t>(word >> 64)};
}
constexpr bits negated(bits q) { return {q.low, q.high ^ std::uint64_t{1} << 63}; }

// A number from its fields; the fraction's high part has 48 bits.
constexpr bits quad(bool negative, unsigned biased_exponent, std::uint64_t high_fraction = 0,
                    std::uint64_t low_fraction = 0) {
  return {low_fraction,
          std::uint64_t{negative} << 63 | std::uint64_t{biased_exponent} << 48 | high_fraction};
}
constexpr bits power_of_two(int exponent, bool negative = false) {  // normal ones
  return quad(negative, static_cast<unsigned>(exponent + 0x3fff));
}

constexpr std::uint64_t all_ones = ~std::uint64_t{0};
constexpr std::uint64_t fraction_ones = 0xffff'ffff'ffff;  // the high part
constexpr std::uint64_t quiet_bit = 0x8000'0000'0000;
constexpr bits zero{}, one = quad(false, 0x3fff), infinity = quad(false, 0x7fff);
constexpr bits smallest{1, 0}, smallest_normal = quad(false, 1);
constexpr bits largest = quad(false, 0x7ffe, fraction_ones, all_ones);
constexpr bits indefinite = quad(true, 0x7fff, quiet_bit);
constexpr bits quiet_nan = quad(false, 0x7fff, quiet_bit, 5);
constexpr bits signalling_nan = quad(false, 0x7fff, 1, 7);

inline std::string hex(uint128 word) {
  char text[48];
  std::snprintf(text, sizeof text, "%016llx:%016llx", static_cast<unsigned long long>(word >> 64),
                static_cast<unsigned long long>(word));
  return text;
}
inline std::ostream& operator<<(std::ostream& out, bits q) { return out << hex(word_of(q)); }

// MXCSR: its rounding-control field and its exception flags.
enum rounding : unsigned { to_nearest, down, up, toward_zero };
constexpr rounding roundings[] = {to_nearest, down, up, toward_zero};
constexpr unsigned invalid = 1, denormal = 2, divide_by_zero = 4, overflow = 8, underflow = 16,
                   inexact = 32, all_flags = 63;
constexpr std::uint32_t all_masked = all_flags << 7;

inline std::string flag_names(unsigned flags) {
  static constexpr const char* names[] = {"IE", "DE", "ZE", "OE", "UE", "PE"};
  std::string text;
  for (unsigned i = 0; i < 6; ++i)
    if (flags >> i & 1) (text += names[i]) += ' ';
  return text.empty() ? "no flag" : text;
}

// Runs under a rounding mode (and, if wanted, with other MXCSR bits); gives the caller's MXCSR
// back.
class under_rounding {
 public:
  explicit under_rounding(unsigned mode, std::uint32_t other_bits = all_masked)
      : saved_(__builtin_ia32_stmxcsr()), start_(other_bits | mode << 13) {
    restart();
  }
  ~under_rounding() { __builtin_ia32_ldmxcsr(saved_); }
  under_rounding(const under_rounding&) = delete;
  under_rounding& operator=(const under_rounding&) = delete;

  void restart() const { __builtin_ia32_ldmxcsr(start_); }
  // What changed in MXCSR: flags, or more where a control bit was touched.
  [[nodiscard]] unsigned raised() const { return __builtin_ia32_stmxcsr() ^ start_; }

 private:
  std::uint32_t saved_, start_;
};

struct x87_words {
  std::uint16_t control, status;
};
inline x87_words read_x87() {
  x87_words w;
  asm volatile("fnstcw %0\n\tfnstsw %1" : "=m"(w.control), "=m"(w.status));
  return w;
}
// Runs under an x87 control word, with the x87 flags clear; gives the caller's back.
class under_x87 {
 public:
  explicit under_x87(std::uint16_t control) : saved_(read_x87().control) {
    asm volatile("fnclex\n\tfldcw %0" : : "m"(control));
  }
  ~under_x87() { asm volatile("fnclex\n\tfldcw %0" : : "m"(saved_)); }
  under_x87(const under_x87&) = delete;
  under_x87& operator=(const under_x87&) = delete;

 private:
  std::uint16_t saved_;
};

// What lies where a routine is to store something.
constexpr uint128 filler = uint128{0x5555'5555'5555'5555} << 64 | 0x5555'5555'5555'5555;

// What a routine under test gave, or an oracle expects: its result, or the 32 bytes from the
// address on that it was given for one, and flags.
struct answer {
  uint128 value;
  unsigned flags;
  uint128 beyond = filler;
  bool operator==(const answer&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const answer& a) {
  out << hex(a.value) << " with " << flag_names(a.flags);
  return a.beyond == filler ? out : out << ", then " << hex(a.beyond);
}

// The bytes of a value, right-aligned; of a long double the ten that count.
template <class T>
uint128 image(const T& value) {
  uint128 word = 0;
  std::memcpy(&word, &value, std::is_same_v<T, long double> ? 10 : sizeof value);
  return word;
}
template <class T>
T value_of(uint128 word) {
  T value{};
  std::memcpy(&value, &word, std::is_same_v<T, long double> ? 10 : sizeof value);
  return value;
}

// Calls a routine that returns its result, and one that stores it at the address it is given.
template <class Call>
answer returned(const under_rounding& scope, Call call) {
  scope.restart();
  const auto result = call();
  const unsigned flags = scope.raised();
  return {image(result), flags};
}
template <class Call>
answer stored(const under_rounding& scope, Call call) {
  uint128 result[2] = {filler, filler};
  scope.restart();
  call(result);
  const unsigned flags = scope.raised();
  return {result[0], flags, result[1]};
}

}  // namespace zorvac::test
#endif
