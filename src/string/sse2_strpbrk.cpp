// strpbrk for the SSE2 level.
#include "string/sse2.h"

#define ZORVAC_LEVEL sse2
#define ZORVAC_ROUTINE __zorva_sse2_strpbrk
#include "string/strpbrk.inc"
