// strncat for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_strncat
#include "string/strncat.inc"
