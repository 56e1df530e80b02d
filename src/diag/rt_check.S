// The entry of the check of a frame's variables. Compiled code calls it when its result is already
// in its registers. The check is compiled for general registers only, so this entry saves the
// general registers that an ordinary routine may change. (The attribute no_caller_saved_registers
// does not help: under it, clang does not save the registers of a routine's own parameters.)
#include <cet.h>  // marks the object as fit for shadow stacks, as the compiler does for its own

.section .note.GNU-stack, "", @progbits
.text
  .globl __zorva_rtc_CheckStackVars
  .type __zorva_rtc_CheckStackVars, @function
__zorva_rtc_CheckStackVars:
  .cfi_startproc
  .irp r, rax, rcx, rdx, rsi, rdi, r8, r9, r10, r11  // nine, which aligns the stack for the call
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
