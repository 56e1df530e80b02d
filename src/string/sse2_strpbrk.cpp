// The first character of a set in a string, with SSE2.
#include "string/span.h"
#include "string/sse2.h"

using namespace zorvac::string;

char* __zorva_sse2_strpbrk(const char* string, const char* set) {
  return const_cast<char*>(find_any<sse2>(string, set));
}
