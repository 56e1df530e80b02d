// The length of the start of a string that has no character of a set, with SSE2.
#include "string/span.h"
#include "string/sse2.h"

using namespace zorvac::string;

std::size_t __zorva_sse2_strcspn(const char* string, const char* set) {
  return span<while_in::complement, sse2>(string, set);
}
