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
inline constexpr int first_zero =
    _SIDD_SBYTE_OPS | _SIDD_CMP_EQUAL_EACH | _SIDD_MASKED_NEGATIVE_POLARITY;  // 0x3a
inline constexpr int any_of = _SIDD_SBYTE_OPS | _SIDD_CMP_EQUAL_ANY;          // 0x02
inline constexpr int none_of = any_of | _SIDD_NEGATIVE_POLARITY;              // 0x12
inline constexpr int first_difference =
    _SIDD_SBYTE_OPS | _SIDD_CMP_EQUAL_EACH | _SIDD_NEGATIVE_POLARITY;  // 0x1a
inline constexpr int outside_ranges =
    _SIDD_UBYTE_OPS | _SIDD_CMP_RANGES | _SIDD_NEGATIVE_POLARITY;  // 0x14
static_assert(first_zero == 0x3a && any_of == 0x02 && none_of == 0x12);

template <int Control>
ZORVAC_INLINE unsigned index_in(block wanted, block b) {
  return static_cast<unsigned>(_mm_cmpistri(wanted, b, Control));
}
ZORVAC_INLINE unsigned lanes_of_any(block wanted, block b) {
  return static_cast<unsigned>(_mm_cvtsi128_si32(_mm_cmpistrm(wanted, b, any_of)));
}

struct sse42 : ssse3 {
  ZORVAC_INLINE static bool has_end(block b) { return _mm_cmpistrc(b, b, first_zero) != 0; }
  ZORVAC_INLINE static unsigned end_of(block b) { return index_in<first_zero>(b, b); }

  // "Above" (CF = ZF = 0) means: no difference (CF), and no end in b (ZF). If b ends and there is
  // no difference, a ends in the same lane.
  ZORVAC_INLINE static bool part(block a, block b) {
    return _mm_cmpistra(a, b, first_difference) == 0;
  }
  ZORVAC_INLINE static unsigned parting(block a, block b) {
    return _mm_cmpistrc(a, b, first_difference) != 0 ? index_in<first_difference>(a, b) : end_of(b);
  }

  struct end_target : sse2::end_target {
    using sse2::end_target::result;
    ZORVAC_INLINE static bool stops(block b) { return has_end(b); }
    ZORVAC_INLINE static const char* result(const char* at, block b) { return at + end_of(b); }
  };

  struct character_target : sse2::character_target {
    block alone;  // a set that holds one character, which is not zero
    ZORVAC_INLINE explicit character_target(block prepared)
        : sse2::character_target(repeat(prepared)), alone(prepared) {}
    using sse2::character_target::result;
    // "Above" (CF = ZF = 0) means: neither a match nor the end.
    ZORVAC_INLINE bool stops(block b) const { return _mm_cmpistra(alone, b, any_of) == 0; }
    ZORVAC_INLINE const char* result(const char* at, block b) const {
      return _mm_cmpistrc(alone, b, any_of) != 0 ? at + index_in<any_of>(alone, b) : nullptr;
    }
  };

  class equal_to {
   public:
    ZORVAC_INLINE explicit equal_to(char character)
        : alone_(_mm_cvtsi32_si128(static_cast<unsigned char>(character))), zero_(character == 0) {}
    ZORVAC_INLINE unsigned in(block b) const {
      return zero_ ? zero_lanes(b) : lanes_of_any(alone_, b);  // a set cannot hold a zero
    }

   private:
    block alone_;
    bool zero_;
  };

  // Compares with sixteen characters at a time.
  class set {
   public:
    ZORVAC_INLINE explicit set(const char* characters)
        : start_(load_string(characters)),
          rest_(sse2::has_end(start_) ? nullptr : characters + block_bytes) {}
    ZORVAC_INLINE unsigned in(block b) const {
      unsigned members = lanes_of_any(start_, b);
      for (const char* c = rest_; c != nullptr;) {
        const block more = load_string(c);
        members |= lanes_of_any(more, b);
        c = sse2::has_end(more) ? nullptr : c + block_bytes;
      }
      return members;
    }

   private:
    block start_;
    const char* rest_;
  };

  static constexpr bool realigns = false;
};

}  // namespace
}  // namespace zorvac::string
#endif
