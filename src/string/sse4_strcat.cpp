// Appends a string to another, for the SSE4.2 level.
#include "string/append.h"

using namespace zorvac::string;

char* __zorva_sse4_strcat(const char* source, char* destination) {
  append(destination, source, unlimited);
  return destination;
}
