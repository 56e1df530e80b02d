// The last occurrence of a character in a string, with SSE2.
#include "string/scan.h"

using namespace zorvac::string;

char* __zorva_sse2_strrchr(const char* string, int character) {
  return const_cast<char*>(find_last(string, _mm_set1_epi8(static_cast<char>(character))));
}
