// The last occurrence of a character in a string, with SSE4.2.
#include "string/scan.h"
#include "string/ssse3.h"

using namespace zorvac::string;

char* __zorva_sse4_strrchr(const char* string, int character) {
  return const_cast<char*>(find_last(string, repeat(_mm_cvtsi32_si128(character))));
}
