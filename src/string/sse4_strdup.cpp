// Copies a string into memory from malloc, with SSE4.2.
#include "string/append.h"
#include "string/sse42.h"
#include "zorvac/string.h"

using namespace zorvac::string;

char* __zorva_sse4_strdup(const char* string) { return duplicate<sse42>(string); }
