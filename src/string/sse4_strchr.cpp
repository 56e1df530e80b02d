// The first occurrence of a character in a string, after its first block, with SSE4.2.
#include "string/scan.h"
#include "string/ssse3.h"
#include "string/tail.h"

using namespace zorvac::string;

ZORVAC_SCAN_TAIL(__zorva_sse4_strchr, const char*, const char* at, double xmm1) {
  return scan_after(at, character_target{repeat(vector_of(xmm1))}, endless);
}
