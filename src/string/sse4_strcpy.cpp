// Copies a string, with SSE4.2.
#include "string/copy.h"
#include "string/sse42.h"
#include "zorvac/string.h"

using namespace zorvac::string;

char* __zorva_sse4_strcpy(const char* source, char* destination) {
  copy<sse42>(destination, source, unlimited);
  return destination;
}
