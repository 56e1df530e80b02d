// The dispatcher for moves, whose blocks may overlap, and its variants. Below SSSE3 it uses the C
// library's routine. Processors above SSE4.2 use the SSE4.2 variant.
#include "core/dispatch.inc"

dispatch _zorva_fast_memmove
  row   ZORVAC_SSE4_2_LEVEL, _zorva_fast_memmove.P
  row   ZORVAC_SSSE3_LEVEL,  _zorva_fast_memmove.M
  generic                    _zorva_fast_memmove.A

forward _zorva_fast_memmove.P, __zorva_ssse3_rep_memmove
forward _zorva_fast_memmove.M, __zorva_ssse3_memmove
forward _zorva_fast_memmove.A, memmove
