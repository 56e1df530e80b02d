// stpcpy for the SSSE3 level.
#define ZORVAC_ROUTINE __zorva_ssse3_stpcpy
#include "string/stpcpy.inc"
