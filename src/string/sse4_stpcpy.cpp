// Copies a string and returns the end of the copy, for the SSE4.2 level.
#include "string/copy.h"

using namespace zorvac::string;

char* __zorva_sse4_stpcpy(const char* source, char* destination) {
  return copy(destination, source, unlimited);
}
