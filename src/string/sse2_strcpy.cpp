// Copies a string in words of four bytes.
#include "string/copy_words.h"
#include "zorvac/string.h"

using namespace zorvac::string;

char* __zorva_sse2_strcpy(const char* source, char* destination) {
  copy_words(destination, source);
  return destination;
}
