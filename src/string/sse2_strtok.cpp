// Cuts a string into tokens, one per call, with SSE2.
#include "string/span.h"
#include "string/sse2.h"

using namespace zorvac::string;

char* __zorva_sse2_strtok(char* string, const char* set) { return next_token<sse2>(string, set); }
