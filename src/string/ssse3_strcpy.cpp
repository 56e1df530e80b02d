// Copies a string, with SSSE3.
#include "string/copy.h"
#include "string/ssse3.h"
#include "zorvac/string.h"

using namespace zorvac::string;

char* __zorva_ssse3_strcpy(const char* source, char* destination) {
  copy<ssse3>(destination, source, unlimited);
  return destination;
}
