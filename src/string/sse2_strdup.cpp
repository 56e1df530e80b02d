// strdup for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_strdup
#include "string/strdup.inc"
