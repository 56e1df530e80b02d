// Appends a string to another, with SSE2.
#include "string/append.h"
#include "string/sse2.h"
#include "zorvac/string.h"

using namespace zorvac::string;

char* __zorva_sse2_strcat(const char* source, char* destination) {
  append<sse2>(destination, source, unlimited);
  return destination;
}
