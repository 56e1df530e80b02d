#ifndef ZORVAC_STRING_SSE42_H
#define ZORVAC_STRING_SSE42_H
// The SSE4.2 level. PCMPISTRI compares two blocks as strings, including their ends, and returns an
// index and flags. PCMPISTRM returns a set of lanes. Compilers combine the intrinsics below that
// have the same operands into one instruction.
#include <nmmintrin.h>

#include "string/ssse3.h"

namespace zorvac::string {
namespace {

// Control bytes (architecture manuals, "Imm8 control byte operation"). For tests of equality it
// does not matter whether the bytes are signed.
inline constexpr int any_of = _SIDD_SBYTE_OPS | _SIDD_CMP_EQUAL_ANY;  // 0x02
inline constexpr int none_of = any_of | _SIDD_NEGATIVE_POLARITY;      // 0x12
inline constexpr int outside_ranges =
    _SIDD_UBYTE_OPS | _SIDD_CMP_RANGES | _SIDD_NEGATIVE_POLARITY;  // 0x14
static_assert(any_of == 0x02 && none_of == 0x12);

template <int Control>
ZORVAC_INLINE unsigned index_in(block wanted, block b) {
  return static_cast<unsigned>(_mm_cmpistri(wanted, b, Control));
}
ZORVAC_INLINE unsigned lanes_of_any(block wanted, block b) {
  return static_cast<unsigned>(_mm_cvtsi128_si32(_mm_cmpistrm(wanted, b, any_of)));
}

struct sse42 {
  // Compares with sixteen characters at a time.
  class set {
   public:
    ZORVAC_INLINE explicit set(const char* characters)
        : start_(load_string(characters)),
          rest_(zero_lanes(start_) != 0 ? nullptr : characters + block_bytes) {}
    ZORVAC_INLINE unsigned in(block b) const {
      unsigned members = lanes_of_any(start_, b);
      for (const char* c = rest_; c != nullptr;) {
        const block more = load_string(c);
        members |= lanes_of_any(more, b);
        c = zero_lanes(more) != 0 ? nullptr : c + block_bytes;
      }
      return members;
    }

   private:
    block start_;
    const char* rest_;
  };
};

}  // namespace
}  // namespace zorvac::string
#endif
