// A decimal number of 32 bits, with SSE4.2.
#include "string/convert.h"

using namespace zorvac::string;

int __zorva_sse4_atoi(const char* string) { return static_cast<int>(convert(string)); }
