// Copies a string into memory from malloc, for the SSE4.2 level.
#include "string/append.h"

using namespace zorvac::string;

char* __zorva_sse4_strdup(const char* string) { return duplicate(string); }
