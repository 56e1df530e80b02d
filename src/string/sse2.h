#ifndef ZORVAC_STRING_SSE2_H
#define ZORVAC_STRING_SSE2_H
// The SSE2 level: PCMPEQB compares blocks, and PMOVMSKB makes the result a set of lanes.
//
// A level provides the algorithms with
//   has_end, end_of     whether and where a block holds a zero
//   part, parting       whether and where two blocks differ or both end
//   end_target          where strlen stops; character_target: where strchr stops
//   equal_to            the lanes that hold one character, valid up to the end of the string
//   set                 a set of characters, and the lanes that hold one of them
//   realigns, merge     whether copies store aligned, and how 16 bytes are merged from two blocks
#include "string/block.h"

namespace zorvac::string {
namespace {

struct sse2 {
  ZORVAC_INLINE static bool has_end(block b) { return zero_lanes(b) != 0; }
  ZORVAC_INLINE static unsigned end_of(block b) { return lowest(zero_lanes(b)); }

  // A zero in `a` is either the end of both or a difference.
  ZORVAC_INLINE static bool part(block a, block b) { return parting_lanes(a, b) != 0; }
  ZORVAC_INLINE static unsigned parting(block a, block b) { return lowest(parting_lanes(a, b)); }
  ZORVAC_INLINE static unsigned parting_lanes(block a, block b) {
    return (equal_lanes(a, b) ^ 0xffff) | zero_lanes(a);
  }

  struct end_target {
    // Holds a zero where the scan stops.
    ZORVAC_INLINE static block zero_at_stops(block b) { return b; }
    ZORVAC_INLINE static const char* result(const char* stop) { return stop; }
    ZORVAC_INLINE static bool stops(block b) { return has_end(b); }
    ZORVAC_INLINE static const char* result(const char* at, block b) { return at + end_of(b); }
  };

  struct character_target {
    block repeated;  // the character, 16 times
    ZORVAC_INLINE explicit character_target(block prepared) : repeated(prepared) {}
    ZORVAC_INLINE block zero_at_stops(block b) const {
      return _mm_min_epu8(b, _mm_xor_si128(b, repeated));
    }
    // The first stop is the character, or the end before it.
    ZORVAC_INLINE const char* result(const char* stop) const {
      return *stop == static_cast<char>(_mm_cvtsi128_si32(repeated)) ? stop : nullptr;
    }
    ZORVAC_INLINE bool stops(block b) const { return has_end(zero_at_stops(b)); }
    ZORVAC_INLINE const char* result(const char* at, block b) const {
      return result(at + end_of(zero_at_stops(b)));
    }
  };

  class equal_to {
   public:
    ZORVAC_INLINE explicit equal_to(char character) : repeated_(_mm_set1_epi8(character)) {}
    ZORVAC_INLINE unsigned in(block b) const { return equal_lanes(b, repeated_); }

   private:
    block repeated_;
  };

  // Compares with the characters one by one.
  class set {
   public:
    ZORVAC_INLINE explicit set(const char* characters) : characters_(characters) {}
    ZORVAC_INLINE unsigned in(block b) const {
      block members = _mm_setzero_si128();
      for (const char* c = characters_; *c != 0; ++c)
        members = _mm_or_si128(members, _mm_cmpeq_epi8(b, _mm_set1_epi8(*c)));
      return lanes(members);
    }

   private:
    const char* characters_;
  };

  static constexpr bool realigns = false;
  // The 16 bytes that begin `Shift` bytes into `low`; `high` is the next block.
  template <int Shift>
  ZORVAC_INLINE static block merge(block low, block high) {
    if constexpr (Shift == 0) return low;
    return _mm_or_si128(_mm_srli_si128(low, Shift), _mm_slli_si128(high, 16 - Shift));
  }
};

}  // namespace
}  // namespace zorvac::string
#endif
