// strncpy for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_strncpy
#include "string/strncpy.inc"
