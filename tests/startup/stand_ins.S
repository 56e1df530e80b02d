// All 40 variants, and a detection that finds what the test says.
#include "support/stand_in.inc"

.irp variant, .H, .A, _B.L, _B.K, _B.J, _B.A, _N.L, _N.K, _N.J, _N.A, _P.L, _P.A, _T.M, _T.A
  stand_ins __zorva_new_proc_init\variant, __zorva_proc_init\variant
.endr
.irp variant, L.O, L.A, S.N, S.A, H.P, H.A, G.R, G.A, I.S, I.A, E.V, E.A
  stand_ins __zorva_new_proc_init_\variant
.endr

.comm zorvac_test_detected, 8, 8
function __zorva_cpu_features_init
  mov zorvac_test_detected(%rip), %r10
  mov __zorva_cpu_feature_indicator@GOTPCREL(%rip), %r11
  mov %r10, (%r11)
  ret
