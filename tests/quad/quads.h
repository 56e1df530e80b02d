#ifndef ZORVAC_TESTS_QUAD_QUADS_H
#define ZORVAC_TESTS_QUAD_QUADS_H
// What the quad tests and the fuzzer share: quads as words of 128 bits, the registers of the
// floating-point environment, the table of all routines with their oracles, and the check of a
// call.
#include <array>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/campaign.h"
#include "support/masks.h"

namespace zorvac::test {

__extension__ using word = unsigned __int128;
__extension__ using int128 = __int128;

constexpr word sign = word{1} << 127, infinity = word{0x7fff} << 112, one = word{0x3fff} << 112,
               quiet_bit = word{1} << 111;
constexpr word indefinite = sign | infinity | quiet_bit;  // of invalid operations
constexpr word magnitude(word q) { return q & ~sign; }
constexpr bool is_nan(word q) { return magnitude(q) > infinity; }
constexpr bool is_signalling(word q) { return is_nan(q) && (q & quiet_bit) == 0; }
constexpr bool is_subnormal(word q) { return magnitude(q) != 0 && magnitude(q) >> 112 == 0; }

// A long double has ten bytes without its padding.
template <class T>
constexpr std::size_t size_of = std::is_same_v<T, long double> ? 10 : sizeof(T);
template <class T>
T load(const void* from) {
  T value{};
  std::memcpy(&value, from, size_of<T>);
  return value;
}
template <class T>
void store(void* to, const T& value) {
  std::memcpy(to, &value, size_of<T>);
}
template <class T>
word bits(const T& value) {
  word w = 0;
  store(&w, value);
  return w;
}

// The exception flags, in the order of both registers, and MXCSR's other fields.
constexpr unsigned invalid = 1, denormal = 2, division_by_zero = 4, overflow = 8, underflow = 16,
                   inexact = 32, all_flags = 63;
constexpr int mask_shift = 7, rounding_shift = 13;  // to nearest, down, up, toward zero
constexpr std::uint32_t all_masked = all_flags << mask_shift;
enum rounding_mode : unsigned { to_nearest, down, up, toward_zero };

struct registers {
  std::uint32_t mxcsr;
  std::uint16_t control, status;  // x87; of the status word the exception flags
  bool operator==(const registers&) const = default;
};
constexpr registers initial{all_masked, 0x037f, 0};
void set(const registers& r);
registers current();

// A call of a routine with any signature. The operands or values are every 16 bytes from `in` on.
// If the routine returns its result, the call stores it.
using call = void(unsigned char* result, const unsigned char* in);

// Such a call, from the routine's signature.
template <class T>
T argument(unsigned char* result, const unsigned char*& in) {
  if constexpr (std::is_same_v<T, void*>)
    return result;
  else if constexpr (std::is_pointer_v<T>)
    return std::exchange(in, in + 16);
  else
    return load<T>(std::exchange(in, in + 16));
}
template <class R, class... T>
void call_as(R (*routine)(T...), unsigned char* result, const unsigned char* in) {
  const std::tuple<T...> arguments{argument<T>(result, in)...};
  if constexpr (std::is_void_v<R>)
    std::apply(routine, arguments);
  else
    store(result, std::apply(routine, arguments));
}

// Stores the expected result and returns the expected flags: those of MXCSR, those of the x87 from
// bit 6 on, and the bit below. It runs in the rounding mode of the call, with all flags clear.
using oracle = unsigned(unsigned char* result, const unsigned char* in);
constexpr int x87_flags_shift = 6;
constexpr unsigned exact_underflow = 1 << 12;  // no flag, but it traps if underflow is unmasked

// What a routine takes: one, two or four quads, a quad and a rounding argument, or a value.
enum class kind { quad, pair, with_mode, four, binary32, binary64, extended, integer };
constexpr unsigned operand_count(kind takes) {
  if (takes == kind::four) return 4;
  return takes == kind::pair || takes == kind::with_mode ? 2 : 1;
}

struct routine {
  const char* name;
  kind takes;
  std::vector<call*> entries;
  oracle* expected;
  long cases = 40'000;
};
inline std::ostream& operator<<(std::ostream& out, const routine& r) { return out << r.name; }
extern const std::vector<routine> routines;
using operands = std::array<word, 4>;

// Calls every entry and compares everything that it could change with the oracle: the memory around
// operands and result, both registers, and the trap if an exception is unmasked. The seed chooses
// circumstances that must not matter. Returns the first difference.
std::string check(const routine& r, const operands& in, unsigned rounding, std::uint64_t seed);

// For messages. The difference of equal registers is empty.
std::string names_of(unsigned flags);
std::string hex(word value, std::size_t bytes = sizeof(word));
std::string difference(const registers& expected, const registers& seen);

// Random operands for which arithmetic and conversion are difficult, as in the classical test
// suites: boundary exponents with sparse significands, ties and their neighbours, pairs that are a
// difficult case of an operation.
operands random_operands(kind takes, std::uint64_t seed);

}  // namespace zorvac::test
#endif
