// void zorvac_test_call(void (*routine)(), register_file* file, int bytes)
//
// Loads every register from the file, calls the routine and stores every register to the file. The
// general registers are exchanged with it both times, which gives the caller its own back. `bytes`
// is the size of a vector register. Offsets are those of register_file.
#define VECTOR 128
#define MASK (VECTOR + 32 * 64)
#define ABOVE (MASK + 8 * 8)
#define MXCSR (ABOVE + 4 * 8)
#define X87_CONTROL (MXCSR + 4)
#define FLAGS (MXCSR + 8)
#define TO_7 0, 1, 2, 3, 4, 5, 6, 7
#define TO_15 TO_7, 8, 9, 10, 11, 12, 13, 14, 15
#define TO_31 TO_15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31

.section .note.GNU-stack, "", @progbits
.text

// Applies `op` to registers `prefix`0, 1 and so on and their places in memory, `stride` bytes apart
// from RAX + `at` on: loads them, or stores them.
.macro each store, op, prefix, at, stride, numbers:vararg
  .irp n, \numbers
  .if \store
  \op %\prefix\n, \at + \stride * \n(%rax)
  .else
  \op \at + \stride * \n(%rax), %\prefix\n
  .endif
  .endr
.endm

// All vector registers, the narrow ones and then the wide ones that hold them; R11 has the size of
// the widest, RAX the address of the file.
.macro vectors store
  each \store, movdqu, xmm, VECTOR, 64, TO_15
  cmp $32, %r11d
  jb 1f
  each \store, vmovdqu, ymm, VECTOR, 64, TO_15
  je 1f
  each \store, vmovdqu64, zmm, VECTOR, 64, TO_31
  each \store, kmovq, k, MASK, 8, TO_7
1:
.endm

// All general registers but RAX, which has the address of the file, and RSP.
.macro exchange_generals
  .set place, 0
  .irp r, , rcx, rdx, rbx, , rbp, rsi, rdi, r8, r9, r10, r11, r12, r13, r14, r15
  .ifnb \r
  xchg %\r, 8 * place(%rax)
  .endif
  .set place, place + 1
  .endr
.endm

  .globl zorvac_test_call
zorvac_test_call:
  .cfi_startproc
  push %rsi
  push %rdi
  push %rdx
  .irp word, 3, 2, 1, 0
  push ABOVE + 8 * \word(%rsi)
  .endr
  .cfi_adjust_cfa_offset 7 * 8

  mov %rsi, %rax
  mov %edx, %r11d
  vectors 0
  ldmxcsr MXCSR(%rax)
  fldcw X87_CONTROL(%rax)
  exchange_generals
  mov (%rax), %rax
  call *5 * 8(%rsp)

  xchg %rax, 6 * 8(%rsp)
  exchange_generals
  pushfq
  popq FLAGS(%rax)
  cld
  .irp word, 0, 1, 2, 3
  pop ABOVE + 8 * \word(%rax)
  .endr
  pop %r11
  pop %rcx
  pop (%rax)
  .cfi_adjust_cfa_offset -7 * 8
  stmxcsr MXCSR(%rax)
  fnstcw X87_CONTROL(%rax)
  vectors 1
  ret
  .cfi_endproc
