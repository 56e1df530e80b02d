// The end of a string, after its first block, for the SSE4.2 level.
#include "string/scan.h"
#include "string/tail.h"

using namespace zorvac::string;

ZORVAC_SCAN_TAIL(__zorva_sse4_strend, const char*, const char* at) {
  return scan_after(at, end_target{}, endless);
}
