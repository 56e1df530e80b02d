// The first occurrence of a character in a string, after its first block, with SSE2.
#include "string/scan.h"
#include "string/tail.h"

using namespace zorvac::string;

ZORVAC_SCAN_TAIL(__zorva_sse2_strchr, const char*, const char* at, double xmm1) {
  // XMM1 holds the character sixteen times, so its lower half twice is the whole vector.
  const block half = vector_of(xmm1);
  return scan_after(at, character_target{_mm_unpacklo_epi64(half, half)}, endless);
}
