// strlen for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_strlen
#include "string/strlen.inc"
