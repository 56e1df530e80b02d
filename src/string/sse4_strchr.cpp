// The first occurrence of a character in a string, after its first block, with SSE4.2.
#include "string/scan.h"
#include "string/sse42.h"
#include "string/tail.h"

using namespace zorvac::string;

// Two separate scans, so that each can use all registers.
[[gnu::noinline]] static ZORVAC_STRING_CALL const char* end_after(const char* at) {
  return scan_after(at, sse42::end_target{});
}

ZORVAC_SCAN_TAIL(__zorva_sse4_strchr, const char*, const char* at, double xmm1) {
  const block character = vector_of(xmm1);
  if ((_mm_cvtsi128_si32(character) & 0xff) == 0) return end_after(at);
  return scan_after(at, sse42::character_target(character));
}
