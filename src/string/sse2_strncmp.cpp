// Compares two strings, up to a given number of characters, with SSE2.
#include "string/compare.h"

using namespace zorvac::string;

int __zorva_sse2_strncmp(const char* a, const char* b, std::size_t count) {
  return compare(a, b, count);
}
