#ifndef ZORVAC_STRING_SSSE3_H
#define ZORVAC_STRING_SSSE3_H
// The SSSE3 level. PALIGNR takes 16 bytes out of two blocks in one instruction, so copies can load
// and store aligned. PSHUFB repeats a byte, and shifts by a distance known only at run time.
#include <tmmintrin.h>

#include "string/sse2.h"

namespace zorvac::string {
namespace {

struct ssse3 : sse2 {
  ZORVAC_INLINE static block repeat(block character) {
    return _mm_shuffle_epi8(character, _mm_setzero_si128());
  }

  class equal_to {
   public:
    ZORVAC_INLINE explicit equal_to(char character)
        : repeated_(repeat(_mm_cvtsi32_si128(character))) {}
    ZORVAC_INLINE unsigned in(block b) const { return equal_lanes(b, repeated_); }

   private:
    block repeated_;
  };

  static constexpr bool realigns = true;
  template <int Shift>
  ZORVAC_INLINE static block merge(block low, block high) {
    return _mm_alignr_epi8(high, low, Shift);
  }
};

// A PSHUFB control that leaves its operand unchanged, between two that clear it. The 16 bytes from
// offset 16 + n on shift the operand down by n lanes; those from offset n on shift it up by 16 - n
// lanes. Zeros are shifted in.
inline constexpr unsigned char none = 0x80;
alignas(16) inline constexpr unsigned char shift_controls[3 * block_bytes] = {
    none, none, none, none, none, none, none, none, none, none, none, none, none, none, none, none,
    0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,   11,   12,   13,   14,   15,
    none, none, none, none, none, none, none, none, none, none, none, none, none, none, none, none};

// The string's first 16 bytes. The bytes past its end are arbitrary. The second block is loaded
// only if the string reaches it.
ZORVAC_INLINE block load_string(const char* string) {
  const std::size_t skip = offset_in_block(string);
  const char* const controls = reinterpret_cast<const char*>(shift_controls) + skip;
  const block low = load(string - skip);
  const block start = _mm_shuffle_epi8(low, load_anywhere(controls + block_bytes));
  if (zero_lanes(low) >> skip != 0) return start;
  const block high = load(string - skip + block_bytes);
  return _mm_or_si128(start, _mm_shuffle_epi8(high, load_anywhere(controls)));
}

}  // namespace
}  // namespace zorvac::string
#endif
