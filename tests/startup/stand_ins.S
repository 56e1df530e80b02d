// All 40 variants.
#include "support/stand_in.inc"

.irp variant, .H, .A, _B.L, _B.K, _B.J, _B.A, _N.L, _N.K, _N.J, _N.A, _P.L, _P.A, _T.M, _T.A
  stand_ins __zorva_new_proc_init\variant, __zorva_proc_init\variant
.endr
.irp variant, L.O, L.A, S.N, S.A, H.P, H.A, G.R, G.A, I.S, I.A, E.V, E.A
  stand_ins __zorva_new_proc_init_\variant
.endr
