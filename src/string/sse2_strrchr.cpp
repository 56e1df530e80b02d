// The last occurrence of a character in a string, with SSE2.
#include "string/scan.h"
#include "string/sse2.h"
#include "zorvac/string.h"

using namespace zorvac::string;

char* __zorva_sse2_strrchr(const char* string, int character) {
  return const_cast<char*>(find_last<sse2>(string, static_cast<char>(character)));
}
