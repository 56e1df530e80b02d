// strcpy for the SSSE3 level.
#define ZORVAC_ROUTINE __zorva_ssse3_strcpy
#include "string/strcpy.inc"
