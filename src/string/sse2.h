#ifndef ZORVAC_STRING_SSE2_H
#define ZORVAC_STRING_SSE2_H
// The SSE2 level of the spans: a set of characters, and the lanes of a block that hold one of them.
#include "string/block.h"

namespace zorvac::string {
namespace {

struct sse2 {
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
};

}  // namespace
}  // namespace zorvac::string
#endif
