// Copies a string, for the SSE4.2 level.
#include "string/copy.h"

using namespace zorvac::string;

char* __zorva_sse4_strcpy(const char* source, char* destination) {
  copy(destination, source, unlimited);
  return destination;
}
