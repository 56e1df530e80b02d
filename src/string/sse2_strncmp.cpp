// strncmp for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_strncmp
#include "string/strncmp.inc"
