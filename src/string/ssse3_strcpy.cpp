// Copies a string, for the SSSE3 level.
#include "string/copy.h"

using namespace zorvac::string;

char* __zorva_ssse3_strcpy(const char* source, char* destination) {
  copy(destination, source, unlimited);
  return destination;
}
