// The last occurrence of a character in a string, with SSSE3.
#include "string/scan.h"
#include "string/ssse3.h"

using namespace zorvac::string;

char* __zorva_ssse3_strrchr(const char* string, int character) {
  return const_cast<char*>(find_last(string, repeat(_mm_cvtsi32_si128(character))));
}
