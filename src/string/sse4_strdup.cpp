// Copies a string into memory from malloc, with SSE4.2.
#include "string/append.h"

using namespace zorvac::string;

char* __zorva_sse4_strdup(const char* string) { return duplicate(string); }
