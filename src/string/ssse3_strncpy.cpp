// strncpy for the SSSE3 level.
#define ZORVAC_ROUTINE __zorva_ssse3_strncpy
#include "string/strncpy.inc"
