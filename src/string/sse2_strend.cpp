// The end of a string, after its first block, with SSE2.
#include "string/scan.h"
#include "string/tail.h"

using namespace zorvac::string;

ZORVAC_SCAN_TAIL(__zorva_sse2_strend, const char*, const char* at) {
  return scan_after(at, end_target{}, endless);
}
