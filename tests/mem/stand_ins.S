// The variants, their workers, detection and the C library's routines.
#include "support/stand_in.inc"

.bss
  .globl zorvac_test_block, zorvac_test_detected, zorvac_test_detections
  .globl zorvac_test_library_detection
  .p2align 3
zorvac_test_block:              // a destination
  .zero 8
zorvac_test_detected:           // what detection finds; 0: as the library's does
  .zero 8
zorvac_test_library_detection:  // which lies here
  .zero 8
zorvac_test_detections:         // how often it ran
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
  test %r10, %r10
  jz 1f
  mov __zorva_cpu_feature_indicator@GOTPCREL(%rip), %r11
  mov %r10, (%r11)
  ret
1:
  jmp *zorvac_test_library_detection(%rip)

// The whole process uses these, so they have to do their work, and note themselves only when they
// are given the block that the test is about.
.irp name, memcpy, memmove
function \name
  cmp %rdi, zorvac_test_block(%rip)
  jne 1f
  note \name
1:
  mov %rdi, %rax
  mov %rdx, %rcx
  mov %rdi, %r8
  sub %rsi, %r8
  cmp %rdx, %r8
  jae 2f  // the destination is not within the source
  lea -1(%rsi, %rdx), %rsi
  lea -1(%rdi, %rdx), %rdi
  std
2:
  rep movsb
  cld
  ret
.endr

function memset
  cmp %rdi, zorvac_test_block(%rip)
  jne 1f
  note memset
1:
  mov %rdi, %r8
  mov %rdx, %rcx
  mov %esi, %eax
  rep stosb
  mov %r8, %rax
  ret
