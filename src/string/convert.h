#ifndef ZORVAC_STRING_CONVERT_H
#define ZORVAC_STRING_CONVERT_H
// Decimal conversion of up to sixteen digits at a time. PCMPISTRI counts the digits. Three steps of
// multiply and add then join neighbours, at all positions at once.
//
//   characters   "1 2 3 4 5 6 7 8 9 x ..."           their values, zeros after the last digit
//   PMADDUBSW     12  34  56  78  90  0 ...          by (10, 1)
//   PMADDWD       1234    5678    90  ...            by (100, 1)
//   PMULLD, PHADDD    12345678    90  ...            by (10000, 1)
//
// The digits are at the left of each group of eight. The value of a group with fewer than eight
// digits is too large by a power of ten, and is divisible by it.
#include "string/faststring_util.h"
#include "string/sse42.h"
#include "zorvac/string.h"

namespace zorvac::string {
namespace {

template <class Entry>
ZORVAC_INLINE block vector_at(const Entry* table) {
  return load(reinterpret_cast<const char*>(table));
}

// The three steps. The results are two groups of eight digits, in the first two 32-bit lanes.
ZORVAC_INLINE block eights(block digits, const std::int8_t* bytes, const std::int16_t* words,
                           const std::int32_t* dwords) {
  const block pairs = _mm_maddubs_epi16(digits, vector_at(bytes));
  const block fours = _mm_madd_epi16(pairs, vector_at(words));
  const block scaled = _mm_mullo_epi32(fours, vector_at(dwords));
  return _mm_hadd_epi32(scaled, scaled);
}
ZORVAC_INLINE std::uint32_t first_dword(block b) {
  return static_cast<std::uint32_t>(_mm_cvtsi128_si32(b));
}
ZORVAC_INLINE std::uint32_t second_dword(block b) {
  return static_cast<std::uint32_t>(_mm_extract_epi32(b, 1));
}

// For 32-bit results: up to ten digits at a time, as groups of eight and two.
struct tens {
  using value = std::uint32_t;
  static constexpr unsigned most = 10;
  // `digits` has the values of `count` digits, 1 to `most`.
  ZORVAC_INLINE static value join(block digits, unsigned count) {
    const block groups =
        eights(digits, __libvrt_byte_factor, __libvrt_word_factor, __libvrt_dword_factor);
    const std::uint32_t lacking = __libvrt_factors[count - 1];  // entry 15 - n: ten to the n - 8
    if (count <= 8) return first_dword(groups) / lacking;
    return first_dword(groups) * __libvrt_factors[15 - count] + second_dword(groups) / lacking;
  }
};

// For 64-bit results: up to sixteen digits at a time, as groups of eight and eight.
struct sixteens {
  using value = std::uint64_t;
  static constexpr unsigned most = 16;
  ZORVAC_INLINE static value join(block digits, unsigned count) {
    const block groups =
        eights(digits, __libvrt_byte_factor_64, __libvrt_word_factor_64, __libvrt_dword_factor_64);
    const std::uint32_t lacking = __libvrt_factors_64[count - 1];
    if (count <= 8) return first_dword(groups) / lacking;
    if (count < most)
      return std::uint64_t{first_dword(groups)} * __libvrt_factors_64[15 - count] +
             second_dword(groups) / lacking;
    const block halves =
        _mm_mul_epu32(_mm_cvtepu32_epi64(groups), vector_at(__libvrt_qword_factor_64));
    return static_cast<std::uint64_t>(
        _mm_cvtsi128_si64(_mm_add_epi64(halves, _mm_unpackhi_epi64(halves, halves))));
  }
};

ZORVAC_INLINE bool is_digit(char c) { return static_cast<unsigned char>(c - '0') <= 9; }

// The digits at the start of a string, at most as many as can be joined at once.
template <class Groups>
struct group {
  unsigned count;
  typename Groups::value value;
  bool more;  // more digits may follow
};
template <class Groups>
ZORVAC_INLINE group<Groups> first_group(const char* string) {
  const block window = load_string(string);
  const unsigned run = index_in<outside_ranges>(vector_at(__libvrt_dig_range_vec), window);
  if (run == 0) return {0, 0, false};
  const unsigned count = run < Groups::most ? run : Groups::most;
  const block digits = _mm_and_si128(_mm_sub_epi8(window, vector_at(__libvrt_zero_vec)),
                                     vector_at(__libvrt_excess_vecs[block_bytes - count]));
  constexpr unsigned too_many = Groups::most < block_bytes ? Groups::most + 1 : block_bytes;
  return {count, Groups::join(digits, count), run >= too_many};
}

ZORVAC_INLINE std::uint64_t ten_to(unsigned exponent) {  // 0 to 16
  std::uint64_t power = 1;
  for (; exponent >= 8; exponent -= 8) power *= 100000000;
  return power * __libvrt_factors_64[7 - exponent];
}

ZORVAC_INLINE std::uint64_t signed_value(std::uint64_t value, bool negative) {
  return negative ? 0 - value : value;
}

// Appends further digits to a value and applies the sign. This is a separate function, called last,
// so that numbers of one group do not need its registers.
template <class Groups>
[[gnu::noinline]] ZORVAC_STRING_CALL std::uint64_t append_digits(const char* string,
                                                                 typename Groups::value value,
                                                                 bool negative) {
  for (;;) {
    const group<Groups> next = first_group<Groups>(string);
    value = static_cast<typename Groups::value>(value * ten_to(next.count) + next.value);
    if (!next.more) return signed_value(value, negative);
    string += next.count;
  }
}

ZORVAC_INLINE const char* skip_spaces(const char* string) {
  for (;; string += block_bytes) {
    const unsigned first = index_in<none_of>(vector_at(__libvrt_spaces_vec), load_string(string));
    if (first < block_bytes) return string + first;
  }
}

// White space, a sign, digits. The result is taken modulo 2^32 or 2^64, after the sign is applied.
template <class Groups>
ZORVAC_INLINE std::uint64_t convert(const char* string) {
  bool negative = false;
  if (!is_digit(*string)) {
    string = skip_spaces(string);
    negative = *string == '-';
    if (negative || *string == '+') ++string;
  }
  const group<Groups> first = first_group<Groups>(string);
  if (first.more) return append_digits<Groups>(string + first.count, first.value, negative);
  return signed_value(first.value, negative);
}

}  // namespace
}  // namespace zorvac::string
#endif
