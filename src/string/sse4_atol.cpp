// A decimal number of 64 bits, with SSE4.2.
#include "string/convert.h"

using namespace zorvac::string;

long __zorva_sse4_atol(const char* string) { return static_cast<long>(convert(string)); }
