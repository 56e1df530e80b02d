// The length of the start of a string that has only characters of a set, with SSE2.
#include "string/span.h"
#include "string/sse2.h"

using namespace zorvac::string;

std::size_t __zorva_sse2_strspn(const char* string, const char* set) {
  return span<while_in::set, sse2>(string, set);
}
