// Copies a string and returns the end of the copy, with SSSE3.
#include "string/copy.h"
#include "string/ssse3.h"
#include "zorvac/string.h"

using namespace zorvac::string;

char* __zorva_ssse3_stpcpy(const char* source, char* destination) {
  return copy<ssse3>(destination, source, unlimited);
}
