// The length of a string, after its first block, for the SSE4.2 level.
#include "string/scan.h"
#include "string/tail.h"

using namespace zorvac::string;

ZORVAC_SCAN_TAIL(__zorva_sse4_strlen, std::size_t, const char* at, const char* string) {
  return static_cast<std::size_t>(scan_after(at, end_target{}, endless) - string);
}
