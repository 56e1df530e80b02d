// The variants, their workers, detection and the C library's routines.
#include "support/stand_in.inc"

.bss
  .globl zorvac_test_detected, zorvac_test_detections
  .p2align 3
zorvac_test_detected:  // what detection finds
  .zero 8
zorvac_test_detections:  // how often it ran
  .zero 4

.text
stand_ins _zorva_fast_memcpy.Z, _zorva_fast_memcpy.V, _zorva_fast_memcpy.P, \
    _zorva_fast_memcpy.M, _zorva_fast_memcpy.J, _zorva_fast_memcpy.A, \
    _zorva_fast_memmove.P, _zorva_fast_memmove.M, _zorva_fast_memmove.A, \
    _zorva_fast_memset.Z, _zorva_fast_memset.V, _zorva_fast_memset.J, _zorva_fast_memset.A, \
    __zorva_vpx_avx512f_memcpy, __zorva_avx_rep_memcpy, __zorva_ssse3_rep_memcpy, \
    __zorva_ssse3_memcpy, __zorva_new_memcpy, __zorva_ssse3_rep_memmove, __zorva_ssse3_memmove, \
    __zorva_vpx_avx512f_memset, __zorva_avx_rep_memset, __zorva_new_memset

function __zorva_cpu_features_init
  incl zorvac_test_detections(%rip)
  mov zorvac_test_detected(%rip), %r10
  mov __zorva_cpu_feature_indicator@GOTPCREL(%rip), %r11
  mov %r10, (%r11)
  ret

// The whole process uses these, so they do their work, by the C library's checked twins, unless the
// destination is no address: then the call is the test's.
.irp name, memcpy, memmove, memset
function \name
  mov %rdi, %r10
  shr $47, %r10
  jnz 1f
  mov $-1, %rcx
  jmp *__\name\()_chk@GOTPCREL(%rip)
1:
  note \name
  ret
.endr
