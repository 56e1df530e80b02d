// Functions of the test program that take the place of those that the library's array routines call.
// Each has its name and the arguments noted, and returns.
#include "support/stand_in.inc"

note_call:  // of the function whose name is at R10
  .irp register, %r9, %r8, %rcx, %rdx, %rsi, %rdi, %r10
  push \register
  .endr
  mov %rsp, %rdi
  call zorvac_test_note
  add $56, %rsp
  ret
.macro note_calls names:vararg
  .irp name, \names
function \name
  lea 8f(%rip), %r10
  jmp note_call
8:
  .asciz "\name"
  .endr
.endm

.macro note_products type, storage
note_calls _MATMUL_\type\()_\storage\().A, _MATMUL_\type\()_\storage\()_pst_General
.endm
  .irp storage, n_n, n_t, t_n, t_t
note_products r4, \storage
note_products r8, \storage
note_products c4, \storage
note_products c8, \storage
note_calls _MATMUL_r8_\storage\().J, _MATMUL_r8_\storage\()_XK64w
  .endr
note_calls _MATMUL_r4_n_n_pst_init, _MATMUL_r8_n_n_pst_init
note_calls _MATMUL_c4_n_n_pst_init, _MATMUL_c8_n_n_pst_init
note_calls __zorva_dgcopyan_xk64w, __zorva_dgcopyat_xk64w, __zorva_dgcopybn_psc
note_calls __zorva_dgcopybt_psc, __zorva_dinnerz_roll_xk64w, __zorva_dinner_xk64w
note_calls MATMUL_v_nn_pst, MATMUL_v_nt_pst, MATMUL_v_tn_pst, MATMUL_v_tt_pst
note_calls __addq, __subq, __mulq, __cmulq, __leq, __geq, _zorva_fast_memset
