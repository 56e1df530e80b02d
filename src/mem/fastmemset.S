// The dispatcher for fills and its variants. A fill has no misaligned source, so the levels between
// SSE2 and AVX2 would gain nothing.
#include "core/dispatch.inc"

dispatch _zorva_fast_memset
  row   ZORVAC_AVX512_ERPF_LEVEL, _zorva_fast_memset.Z
  row   ZORVAC_AVX2_LEVEL,        _zorva_fast_memset.V
  row   ZORVAC_SSE2_LEVEL,        _zorva_fast_memset.J
  generic                         _zorva_fast_memset.A

forward _zorva_fast_memset.Z, __zorva_vpx_avx512f_memset
forward _zorva_fast_memset.V, __zorva_avx_rep_memset
forward _zorva_fast_memset.J, __zorva_new_memset
forward _zorva_fast_memset.A, memset
