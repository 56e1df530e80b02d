// Copies a string into memory from malloc, with SSE2.
#include "string/append.h"

using namespace zorvac::string;

char* __zorva_sse2_strdup(const char* string) { return duplicate(string); }
