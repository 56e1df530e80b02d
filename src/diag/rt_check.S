// The entry of the check of a frame's variables, which stands between a result and its return: it
// saves every register that an ordinary routine may change and the check, compiled for general
// registers only, can. (The attribute with that meaning is of no use here: clang does not count
// the argument registers among what it has to save.)
#include <cet.h>  // marks the object fit for shadow stacks, as the compiler marks its own

.section .note.GNU-stack, "", @progbits
.text
  .globl __zorva_rtc_CheckStackVars
  .type __zorva_rtc_CheckStackVars, @function
__zorva_rtc_CheckStackVars:
  .cfi_startproc
  .irp r, rax, rcx, rdx, rsi, rdi, r8, r9, r10, r11  // nine: the stack is aligned for a call then
  push %\r
  .cfi_adjust_cfa_offset 8
  .endr
  mov %rdx, %rdi
  mov %rcx, %rsi
  call zorvac_check_stack_variables
  .irp r, r11, r10, r9, r8, rdi, rsi, rdx, rcx, rax
  pop %\r
  .cfi_adjust_cfa_offset -8
  .endr
  ret
  .cfi_endproc
  .size __zorva_rtc_CheckStackVars, . - __zorva_rtc_CheckStackVars
