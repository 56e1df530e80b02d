#ifndef ZORVAC_STRING_CONVERT_H
#define ZORVAC_STRING_CONVERT_H
// Decimal conversion of up to sixteen digits at a time. PCMPISTRI counts the digits. PSHUFB moves
// them to the right, with zeros before them, so that each digit has its weight by its lane. Three
// steps of multiply and add then join neighbours, at all positions at once.
//
//   characters   "1 2 3 4 5 6 7 8 9 x ..."
//   digits         0 0 0 0 0 0 0 1 2 3 4 5 6 7 8 9
//   PMADDUBSW        0   0   0   1  23  45  67  89     by (10, 1)
//   PMADDWD              0       1    2345    6789     by (100, 1)
//   PACKUSDW, PMADDWD            1        23456789     by (10000, 1)
#include "string/faststring_util.h"
#include "string/sse42.h"

namespace zorvac::string {
namespace {

template <class Entry>
ZORVAC_INLINE block vector_at(const Entry* table) {
  return load(reinterpret_cast<const char*>(table));
}

// The number that sixteen digits make.
ZORVAC_INLINE std::uint64_t number_of(block digits) {
  const block pairs = _mm_maddubs_epi16(digits, vector_at(__libvrt_byte_factor_64));
  const block fours = _mm_madd_epi16(pairs, vector_at(__libvrt_word_factor_64));
  const block eights =
      _mm_madd_epi16(_mm_packus_epi32(fours, fours), vector_at(__libvrt_dword_factor_64));
  const auto both = static_cast<std::uint64_t>(_mm_cvtsi128_si64(eights));
  return (both & UINT32_MAX) * 100000000 + (both >> 32);
}

ZORVAC_INLINE bool is_digit(char c) { return static_cast<unsigned char>(c - '0') <= 9; }

// The digits at the start of a string, at most sixteen.
struct group {
  unsigned count;
  std::uint64_t value;
};
ZORVAC_INLINE group first_group(const char* string) {
  const block window = load_string(string);
  const unsigned count = index_in<outside_ranges>(vector_at(__libvrt_dig_range_vec), window);
  const block values = _mm_sub_epi8(window, vector_at(__libvrt_zero_vec));
  return {count, number_of(last_lanes(values, count))};
}

ZORVAC_INLINE std::uint64_t ten_to(unsigned exponent) {  // 0 to 16
  std::uint64_t power = 1;
  for (; exponent >= 8; exponent -= 8) power *= 100000000;
  return power * __libvrt_factors_64[7 - exponent];
}

ZORVAC_INLINE std::uint64_t signed_value(std::uint64_t value, bool negative) {
  return negative ? 0 - value : value;
}

// Appends the digits that follow a first group of sixteen, and applies the sign. This is a separate
// function, called last, so that numbers of one group do not need its registers.
[[gnu::noinline]] ZORVAC_STRING_CALL std::uint64_t append_digits(const char* string,
                                                                 std::uint64_t value,
                                                                 bool negative) {
  for (;;) {
    const group next = first_group(string);
    value = value * ten_to(next.count) + next.value;
    if (next.count < block_bytes) return signed_value(value, negative);
    string += block_bytes;
  }
}

ZORVAC_INLINE const char* skip_spaces(const char* string) {
  for (;; string += block_bytes) {
    const unsigned first = index_in<none_of>(vector_at(__libvrt_spaces_vec), load_string(string));
    if (first < block_bytes) return string + first;
  }
}

// White space, a sign, digits. The result is taken modulo 2^64, after the sign is applied. Its
// lower half is the number modulo 2^32.
ZORVAC_INLINE std::uint64_t convert(const char* string) {
  bool negative = false;
  if (!is_digit(*string)) {
    string = skip_spaces(string);
    negative = *string == '-';
    if (negative || *string == '+') ++string;
  }
  const group first = first_group(string);
  if (first.count == block_bytes) return append_digits(string + block_bytes, first.value, negative);
  return signed_value(first.value, negative);
}

}  // namespace
}  // namespace zorvac::string
#endif
