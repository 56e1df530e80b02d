// strcspn for the SSE2 level.
#include "string/sse2.h"

#define ZORVAC_LEVEL sse2
#define ZORVAC_ROUTINE __zorva_sse2_strcspn
#include "string/strcspn.inc"
