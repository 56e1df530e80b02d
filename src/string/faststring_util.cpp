// The vectors and tables of the decimal conversions, and strtok's state.
#include "string/faststring_util.h"

alignas(16) const std::uint8_t __libvrt_spaces_vec[16] = {'\t', '\n', '\v', '\f', '\r', ' '};
alignas(16) const std::uint8_t __libvrt_dig_range_vec[16] = {
    '0', '9', '0', '9', '0', '9', '0', '9', '0', '9', '0', '9', '0', '9', '0', '9'};
alignas(16) const std::uint8_t __libvrt_zero_vec[16] = {'0', '0', '0', '0', '0', '0', '0', '0',
                                                        '0', '0', '0', '0', '0', '0', '0', '0'};

alignas(16) const std::int8_t __libvrt_byte_factor_64[16] = {10, 1, 10, 1, 10, 1, 10, 1,
                                                             10, 1, 10, 1, 10, 1, 10, 1};
alignas(16) const std::int16_t __libvrt_word_factor_64[8] = {100, 1, 100, 1, 100, 1, 100, 1};
alignas(16) const std::int16_t __libvrt_dword_factor_64[8] = {10000, 1, 10000, 1,
                                                              10000, 1, 10000, 1};

const std::uint32_t __libvrt_factors_64[8] = {10000000, 1000000, 100000, 10000, 1000, 100, 10, 1};

char* zorvac::string::rest_of_tokens = nullptr;
