// Copies a string and returns the end of the copy, with SSE4.2.
#include "string/copy.h"
#include "string/sse42.h"
#include "zorvac/string.h"

using namespace zorvac::string;

char* __zorva_sse4_stpcpy(const char* source, char* destination) {
  return copy<sse42>(destination, source, unlimited);
}
