// The workers, the C library's routines and detection as this program has them.
#include "stand_in.inc"
stand_in __zorva_vpx_avx512f_memcpy
stand_in __zorva_avx_rep_memcpy
stand_in __zorva_ssse3_rep_memcpy
stand_in __zorva_ssse3_memcpy
stand_in __zorva_new_memcpy
stand_in __zorva_ssse3_rep_memmove
stand_in __zorva_ssse3_memmove
stand_in __zorva_vpx_avx512f_memset
stand_in __zorva_avx_rep_memset
stand_in __zorva_new_memset

// The whole process uses these, so they have to do their work, and the last one to run counts only
// when it was given the block that the test is about.
.macro begin_working name
  .globl \name
  .type \name, @function
\name:
  cmp %rdi, zorvac_test_block(%rip)
  jne 1f
  movl $(8f - zorvac_test_names), zorvac_test_taken(%rip)
1:
  .section .rodata
8:
  .asciz "\name"
  .text
  mov %rdi, %rax
  mov %rdx, %rcx
.endm

begin_working memcpy
  rep movsb
  ret

begin_working memmove
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

begin_working memset
  mov %rax, %r8
  mov %esi, %eax
  rep stosb
  mov %r8, %rax
  ret

  .globl __zorva_cpu_features_init
  .type __zorva_cpu_features_init, @function
__zorva_cpu_features_init:
  incl zorvac_test_detections(%rip)
  mov zorvac_test_detected(%rip), %r10
  mov __zorva_cpu_feature_indicator@GOTPCREL(%rip), %r11
  mov %r10, (%r11)
  ret

.bss
  .globl zorvac_test_block, zorvac_test_detected, zorvac_test_detections
  .p2align 3
zorvac_test_block:  // a destination
  .zero 8
zorvac_test_detected:  // what detection finds
  .zero 8
zorvac_test_detections:  // how often it ran
  .zero 4
