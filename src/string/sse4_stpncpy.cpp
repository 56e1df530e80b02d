// Copies a string into a field of a given size, fills the rest with zeros and returns the end of
// the copy, for the SSE4.2 level.
#include "string/copy.h"

using namespace zorvac::string;

char* __zorva_sse4_stpncpy(const char* source, char* destination, std::size_t count) {
  return copy_padded(destination, source, count);
}
