// strncmp for the SSE4.2 level.
#define ZORVAC_ROUTINE __zorva_sse4_strncmp
#include "string/strncmp.inc"
