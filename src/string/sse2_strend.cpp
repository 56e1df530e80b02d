// strend for the SSE2 level.
#define ZORVAC_ROUTINE __zorva_sse2_strend
#include "string/strend.inc"
