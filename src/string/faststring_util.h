#ifndef ZORVAC_STRING_FASTSTRING_UTIL_H
#define ZORVAC_STRING_FASTSTRING_UTIL_H
// What the string routines share in memory: the vectors and tables of the decimal conversions
// (string/convert.h tells how they are used), and strtok's state. None of it is exported.
#include <cstdint>

#pragma GCC visibility push(hidden)  // for the compiler to know where they are
extern "C" {
// White space, as a set; "0" to "9", as a range; the digit zero, to be subtracted.
extern const std::uint8_t __libvrt_spaces_vec[16];
extern const std::uint8_t __libvrt_dig_range_vec[16];
extern const std::uint8_t __libvrt_zero_vec[16];

// Weights that join digits to pairs, pairs to groups of four, fours to groups of eight: for ten
// digits in the first three, for sixteen in the last four, which join groups of eight as well.
extern const std::int8_t __libvrt_byte_factor[16];
extern const std::int16_t __libvrt_word_factor[8];
extern const std::int32_t __libvrt_dword_factor[4];
extern const std::int8_t __libvrt_byte_factor_64[16];
extern const std::int16_t __libvrt_word_factor_64[8];
extern const std::int32_t __libvrt_dword_factor_64[4];
extern const std::uint64_t __libvrt_qword_factor_64[2];

// Entry n - 1, n being the number of digits there are: ten to the power of the number of digits
// that the last group of eight (of two, behind eight of ten) lacks.
extern const std::uint32_t __libvrt_factors[16];
extern const std::uint32_t __libvrt_factors_64[16];

// Entry e clears the last e lanes.
extern const std::uint8_t __libvrt_excess_vecs[16][16];
}

namespace zorvac::string {
// Where the next call of strtok without a string begins; null when there is nothing left.
extern char* rest_of_tokens;
}  // namespace zorvac::string
#pragma GCC visibility pop
#endif
