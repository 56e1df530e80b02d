// The entry points of matrix products and their variants.
//
// The nine arguments: RDI a, RSI b, RDX c, RCX m, R8 k, R9 n, and on the stack lda, ldb, ldc. The
// kernels take n before k.
#include "core/dispatch.inc"

// Defines the variant `name`: exchanges the fifth and the sixth argument and jumps to the kernel.
.macro forward_to_blocked name, kernel
  open \name
  xchg %r8, %r9
  jmp *\kernel@GOTPCREL(%rip)
  close
.endm

// Defines the variant `name`: clears m rows and n columns of c, then does the same.
.macro clear_and_forward name, clearing, kernel
  open \name
  .irp argument, %rdi, %rsi, %rdx, %rcx, %r8, %r9
  push \argument
  .cfi_adjust_cfa_offset 8
  .endr
  sub $8, %rsp  // a call needs the stack aligned to 16 bytes
  .cfi_adjust_cfa_offset 8
  mov %rdx, %rdi
  mov %rcx, %rsi
  mov %r9, %rdx
  mov 80(%rsp), %rcx  // ldc, which is above 7 words, the return address, lda and ldb
  call *\clearing@GOTPCREL(%rip)
  add $8, %rsp
  .cfi_adjust_cfa_offset -8
  .irp argument, %r8, %r9, %rcx, %rdx, %rsi, %rdi  // the first two exchanged
  pop \argument
  .cfi_adjust_cfa_offset -8
  .endr
  jmp *\kernel@GOTPCREL(%rip)
  close
.endm

.macro entry type, storage
dispatch _MATMUL_\type\()_\storage
  .ifc \type, r8
  row ZORVAC_SSE2_LEVEL, _MATMUL_\type\()_\storage\().J
  .endif
  generic                _MATMUL_\type\()_\storage\().A
clear_and_forward _MATMUL_\type\()_\storage\().A, \
  _MATMUL_\type\()_n_n_pst_init, _MATMUL_\type\()_\storage\()_pst_General
.endm

.irp storage, n_n, n_t, t_n, t_t
entry r4, \storage
entry r8, \storage
entry c4, \storage
entry c8, \storage
forward_to_blocked _MATMUL_r8_\storage\().J, _MATMUL_r8_\storage\()_XK64w
.endr
