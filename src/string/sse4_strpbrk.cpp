// strpbrk for the SSE4.2 level.
#include "string/sse42.h"

#define ZORVAC_LEVEL sse42
#define ZORVAC_ROUTINE __zorva_sse4_strpbrk
#include "string/strpbrk.inc"
