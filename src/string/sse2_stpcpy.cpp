// stpcpy for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_stpcpy
#include "string/stpcpy.inc"
