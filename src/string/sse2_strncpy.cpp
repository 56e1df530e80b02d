// Copies a string into a field of a given size and fills the rest with zeros, with SSE2.
#include "string/copy.h"

using namespace zorvac::string;

char* __zorva_sse2_strncpy(const char* source, char* destination, std::size_t count) {
  copy_padded(destination, source, count);
  return destination;
}
