// stpncpy for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_stpncpy
#include "string/stpncpy.inc"
