// void zorvac_test_call(void (*routine)(), const register_file* in, register_file* out, int bytes)
//
// Loads every register from *in, calls the routine and stores every register to *out. `bytes` is
// the size of a vector register. The stack is the caller's, aligned for a call; what is needed
// after the call is kept there. Offsets are those of register_file.
#define GENERAL 0
#define VECTOR 128
#define MASK (VECTOR + 32 * 64)
#define MXCSR (MASK + 8 * 8)
#define X87_CONTROL (MXCSR + 4)
#define FLAGS (MXCSR + 8)

// Frame, from RSP up: routine, out, bytes, scratch, the caller's MXCSR and x87 control word.
#define ROUTINE 0
#define OUT 8
#define BYTES 16
#define SCRATCH 24
#define OLD_MXCSR 32
#define OLD_X87 36
#define FRAME 40

.section .note.GNU-stack, "", @progbits
.text

// Applies `op` to registers `prefix`0, 1 and so on and their places in memory, `stride` bytes apart
// from RAX + `at` on: loads them, or stores them.
.macro each op, prefix, at, stride, store, numbers:vararg
  .irp n, \numbers
  .if \store
  \op %\prefix\n, \at + \stride * \n(%rax)
  .else
  \op \at + \stride * \n(%rax), %\prefix\n
  .endif
  .endr
.endm
.macro each_of_16 op, prefix, store
  each \op, \prefix, VECTOR, 64, \store, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
.endm

// Moves all vector registers; R11 has their size, RAX the address of the file.
.macro vectors store
  cmp $32, %r11d
  je 2f
  ja 3f
  each_of_16 movdqu, xmm, \store
  jmp 4f
2:
  each_of_16 vmovdqu, ymm, \store
  jmp 4f
3:
  each_of_16 vmovdqu64, zmm, \store
  each vmovdqu64, zmm, VECTOR, 64, \store, 16, 17, 18, 19, 20, 21, 22, 23
  each vmovdqu64, zmm, VECTOR, 64, \store, 24, 25, 26, 27, 28, 29, 30, 31
  each kmovq, k, MASK, 8, \store, 0, 1, 2, 3, 4, 5, 6, 7
4:
.endm

// Moves all general registers but RAX, which has the address of the file, and RSP.
.macro generals store
  .set place, 1
  .irp r, rcx, rdx, rbx, , rbp, rsi, rdi, r8, r9, r10, r11, r12, r13, r14, r15
  .ifnb \r
  .if \store
  mov %\r, GENERAL + 8 * place(%rax)
  .else
  mov GENERAL + 8 * place(%rax), %\r
  .endif
  .endif
  .set place, place + 1
  .endr
.endm

  .globl zorvac_test_call
  .type zorvac_test_call, @function
zorvac_test_call:
  .cfi_startproc
  .irp r, rbx, rbp, r12, r13, r14, r15
  push %\r
  .cfi_adjust_cfa_offset 8
  .cfi_rel_offset \r, 0
  .endr
  sub $FRAME, %rsp
  .cfi_adjust_cfa_offset FRAME
  mov %rdi, ROUTINE(%rsp)
  mov %rdx, OUT(%rsp)
  mov %rcx, BYTES(%rsp)
  stmxcsr OLD_MXCSR(%rsp)
  fnstcw OLD_X87(%rsp)

  mov %rsi, %rax
  mov %ecx, %r11d
  vectors 0
  ldmxcsr MXCSR(%rax)
  fldcw X87_CONTROL(%rax)
  generals 0
  mov GENERAL(%rax), %rax
  call *ROUTINE(%rsp)

  mov %rax, SCRATCH(%rsp)
  mov OUT(%rsp), %rax
  generals 1
  mov %rsp, GENERAL + 8 * 4(%rax)
  mov SCRATCH(%rsp), %rcx
  mov %rcx, GENERAL(%rax)
  pushfq
  .cfi_adjust_cfa_offset 8
  popq FLAGS(%rax)
  .cfi_adjust_cfa_offset -8
  cld
  stmxcsr MXCSR(%rax)
  fnstcw X87_CONTROL(%rax)
  mov BYTES(%rsp), %r11d
  vectors 1
  cmpl $16, BYTES(%rsp)
  je 5f
  vzeroupper
5:
  ldmxcsr OLD_MXCSR(%rsp)
  fldcw OLD_X87(%rsp)
  add $FRAME, %rsp
  .cfi_adjust_cfa_offset -FRAME
  .irp r, r15, r14, r13, r12, rbp, rbx
  pop %\r
  .cfi_adjust_cfa_offset -8
  .cfi_restore \r
  .endr
  ret
  .cfi_endproc
  .size zorvac_test_call, . - zorvac_test_call
