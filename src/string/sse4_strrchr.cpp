// The last occurrence of a character in a string, with SSE4.2.
#include "string/scan.h"
#include "string/sse42.h"
#include "zorvac/string.h"

using namespace zorvac::string;

char* __zorva_sse4_strrchr(const char* string, int character) {
  return const_cast<char*>(find_last<sse42>(string, static_cast<char>(character)));
}
