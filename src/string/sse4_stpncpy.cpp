// stpncpy for the SSE4.2 level.
#define ZORVAC_ROUTINE __zorva_sse4_stpncpy
#include "string/stpncpy.inc"
