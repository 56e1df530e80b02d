// stpncpy for the SSSE3 level.
#define ZORVAC_ROUTINE __zorva_ssse3_stpncpy
#include "string/stpncpy.inc"
