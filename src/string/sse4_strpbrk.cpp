// The first character of a set in a string, with SSE4.2.
#include "string/span.h"
#include "string/sse42.h"

using namespace zorvac::string;

char* __zorva_sse4_strpbrk(const char* string, const char* set) {
  return const_cast<char*>(find_any<sse42>(string, set));
}
