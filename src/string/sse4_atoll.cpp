// A decimal number of 64 bits, with SSE4.2.
#include "string/convert.h"

using namespace zorvac::string;

long long __zorva_sse4_atoll(const char* string) { return static_cast<long long>(convert(string)); }
