#ifndef ZORVAC_STRING_FASTSTRING_UTIL_H
#define ZORVAC_STRING_FASTSTRING_UTIL_H
// The data of the string routines: the vectors and tables of the decimal conversions
// (string/convert.h says how they are used), and strtok's state. None of it is exported.
#include <cstdint>

#pragma GCC visibility push(hidden)  // so that the compiler addresses them directly
extern "C" {
// White space as a set; "0" to "9" as a range; the digit zero, which is subtracted.
extern const std::uint8_t __libvrt_spaces_vec[16];
extern const std::uint8_t __libvrt_dig_range_vec[16];
extern const std::uint8_t __libvrt_zero_vec[16];

// Weights that join digits to pairs, pairs to groups of four, and these to groups of eight.
extern const std::int8_t __libvrt_byte_factor_64[16];
extern const std::int16_t __libvrt_word_factor_64[8];
extern const std::int16_t __libvrt_dword_factor_64[8];

// Entry 7 - n is ten to the power of n.
extern const std::uint32_t __libvrt_factors_64[8];
}

namespace zorvac::string {
// Where the next call of strtok without a string begins; null if nothing is left.
extern char* rest_of_tokens;
}  // namespace zorvac::string
#pragma GCC visibility pop
#endif
