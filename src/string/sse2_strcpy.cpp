// strcpy for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_strcpy
#include "string/strcpy.inc"
