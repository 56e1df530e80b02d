// The length of a string, but at most a limit, for the SSE4.2 level.
#include "string/scan.h"

using namespace zorvac::string;

std::size_t __zorva_sse4_strnlen(const char* string, std::size_t limit) {
  return bounded_length(string, limit);
}
