// Copies a string into a field of a given size, fills the rest with zeros and returns the end of
// the copy, for the SSSE3 level.
#include "string/copy.h"

using namespace zorvac::string;

char* __zorva_ssse3_stpncpy(const char* source, char* destination, std::size_t count) {
  return copy_padded(destination, source, count);
}
