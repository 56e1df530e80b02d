// The length of the start of a string that has no character of a set, with SSE4.2.
#include "string/span.h"
#include "string/sse42.h"

using namespace zorvac::string;

std::size_t __zorva_sse4_strcspn(const char* string, const char* set) {
  return span<while_in::complement, sse42>(string, set);
}
