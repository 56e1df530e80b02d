#ifndef ZORVAC_STRING_SSSE3_H
#define ZORVAC_STRING_SSSE3_H
// What the SSSE3 level adds: PSHUFB repeats a byte, and shifts by a distance known only at run
// time.
#include <tmmintrin.h>

#include "string/block.h"

namespace zorvac::string {
namespace {

// Sixteen times the first byte.
ZORVAC_INLINE block repeat(block character) {
  return _mm_shuffle_epi8(character, _mm_setzero_si128());
}

// A PSHUFB control that leaves its operand unchanged, between two that clear it. The 16 bytes from
// offset 16 + n on shift the operand down by n lanes; those from offset n on shift it up by 16 - n
// lanes. Zeros are shifted in.
inline constexpr unsigned char none = 0x80;
alignas(16) inline constexpr unsigned char shift_controls[3 * block_bytes] = {
    none, none, none, none, none, none, none, none, none, none, none, none, none, none, none, none,
    0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,   11,   12,   13,   14,   15,
    none, none, none, none, none, none, none, none, none, none, none, none, none, none, none, none};

// The first `count` lanes, moved to the end; zeros before them.
ZORVAC_INLINE block last_lanes(block b, std::size_t count) {
  return _mm_shuffle_epi8(b, load_anywhere(reinterpret_cast<const char*>(shift_controls) + count));
}

// The string's first 16 bytes. The bytes past its end are arbitrary. The second block is loaded
// only if the string reaches it.
ZORVAC_INLINE block load_string(const char* string) {
  const std::size_t skip = offset_in_block(string);
  const char* const controls = reinterpret_cast<const char*>(shift_controls) + skip;
  const block low = load(string - skip);
  const block start = _mm_shuffle_epi8(low, load_anywhere(controls + block_bytes));
  if (zero_lanes(low) >> skip != 0) return start;
  const block high = load(string - skip + block_bytes);
  return _mm_or_si128(start, last_lanes(high, skip));
}

}  // namespace
}  // namespace zorvac::string
#endif
