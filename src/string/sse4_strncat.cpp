// Appends at most a given number of characters of a string to another, for the SSE4.2 level.
#include "string/append.h"

using namespace zorvac::string;

char* __zorva_sse4_strncat(const char* source, char* destination, std::size_t count) {
  append(destination, source, count);
  return destination;
}
