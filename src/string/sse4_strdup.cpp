// strdup for the SSE4.2 level.
#define ZORVAC_ROUTINE __zorva_sse4_strdup
#include "string/strdup.inc"
