// Copies a string, with SSE2.
#include "string/copy.h"

using namespace zorvac::string;

char* __zorva_sse2_strcpy(const char* source, char* destination) {
  copy(destination, source, unlimited);
  return destination;
}
