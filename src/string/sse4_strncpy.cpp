// Copies a string into a field of a given size and fills the rest with zeros, for the SSE4.2 level.
#include "string/copy.h"

using namespace zorvac::string;

char* __zorva_sse4_strncpy(const char* source, char* destination, std::size_t count) {
  copy_padded(destination, source, count);
  return destination;
}
