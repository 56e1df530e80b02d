// Appends at most a given number of characters of a string to another, with SSE2.
#include "string/append.h"

using namespace zorvac::string;

char* __zorva_sse2_strncat(const char* source, char* destination, std::size_t count) {
  append(destination, source, count);
  return destination;
}
