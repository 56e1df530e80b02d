// Copies a string and returns the end of the copy, for the SSSE3 level.
#include "string/copy.h"

using namespace zorvac::string;

char* __zorva_ssse3_stpcpy(const char* source, char* destination) {
  return copy(destination, source, unlimited);
}
