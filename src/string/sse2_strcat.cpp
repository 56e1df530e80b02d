// strcat for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_strcat
#include "string/strcat.inc"
