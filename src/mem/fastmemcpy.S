// The dispatcher for block copies and its variants.
#include "core/dispatch.inc"

dispatch _zorva_fast_memcpy
  row   ZORVAC_AVX512_ERPF_LEVEL, _zorva_fast_memcpy.Z
  row   ZORVAC_AVX2_LEVEL,        _zorva_fast_memcpy.V
  row   ZORVAC_SSE4_2_LEVEL,      _zorva_fast_memcpy.P
  row   ZORVAC_SSSE3_LEVEL,       _zorva_fast_memcpy.M
  row   ZORVAC_SSE2_LEVEL,        _zorva_fast_memcpy.J
  generic                         _zorva_fast_memcpy.A

forward _zorva_fast_memcpy.Z, __zorva_vpx_avx512f_memcpy
forward _zorva_fast_memcpy.V, __zorva_avx_rep_memcpy
forward _zorva_fast_memcpy.P, __zorva_ssse3_rep_memcpy
forward _zorva_fast_memcpy.M, __zorva_ssse3_memcpy
forward _zorva_fast_memcpy.J, __zorva_new_memcpy
forward _zorva_fast_memcpy.A, memcpy
