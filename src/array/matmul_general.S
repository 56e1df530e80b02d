// Chooses the form of a matrix kernel. All forms give the same bits, except for complex products
// that are rounded up or down (docs/kernels.md). Only the complex kernels promise to run detection
// if it has not run yet.
#include "core/dispatch.inc"

.macro real_kernel name
dispatch \name
  row ZORVAC_AVX512_DQ_VL_LEVEL, \name\().Z
  row ZORVAC_AVX2_LEVEL,         \name\().V
  otherwise                      \name\().A
.endm

.macro complex_kernel name
dispatch \name
  row ZORVAC_AVX512_DQ_VL_LEVEL, \name\().Z
  row ZORVAC_AVX2_LEVEL,         \name\().V
  row ZORVAC_SSE3_LEVEL,         \name\().L
  generic                        \name\().A
.endm

.irp storage, n_n, n_t, t_n, t_t
real_kernel    _MATMUL_r4_\storage\()_pst_General
real_kernel    _MATMUL_r8_\storage\()_pst_General
complex_kernel _MATMUL_c4_\storage\()_pst_General
complex_kernel _MATMUL_c8_\storage\()_pst_General
.endr
.irp storage, nn, nt, tn, tt
real_kernel MATMUL_v_\storage\()_pst
.endr
real_kernel __zorva_dinnerz_roll_xk64w
real_kernel __zorva_dinner_xk64w
