// Compares two strings, up to a given number of characters, for the SSE4.2 level.
#include "string/compare.h"

using namespace zorvac::string;

int __zorva_sse4_strncmp(const char* a, const char* b, std::size_t count) {
  return compare(a, b, count);
}
