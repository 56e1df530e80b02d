// Cuts a string into tokens, one per call, with SSE4.2.
#include "string/span.h"
#include "string/sse42.h"

using namespace zorvac::string;

char* __zorva_sse4_strtok(char* string, const char* set) { return next_token<sse42>(string, set); }
