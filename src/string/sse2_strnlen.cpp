// strnlen for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_strnlen
#include "string/strnlen.inc"
