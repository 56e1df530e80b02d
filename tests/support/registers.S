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

// Applies `op` to XMM, YMM or ZMM 0..15 and their places in memory at RAX.
.macro each_of_16 op, prefix, store
  .irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
  .if \store
  \op %\prefix\n, VECTOR + 64 * \n(%rax)
  .else
  \op VECTOR + 64 * \n(%rax), %\prefix\n
  .endif
  .endr
.endm
.macro each_of_upper_16 store
  .irp n, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
  .if \store
  vmovdqu64 %zmm\n, VECTOR + 64 * \n(%rax)
  .else
  vmovdqu64 VECTOR + 64 * \n(%rax), %zmm\n
  .endif
  .endr
.endm
.macro each_mask store
  .irp n, 0, 1, 2, 3, 4, 5, 6, 7
  .if \store
  kmovq %k\n, MASK + 8 * \n(%rax)
  .else
  kmovq MASK + 8 * \n(%rax), %k\n
  .endif
  .endr
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
  each_of_upper_16 \store
  each_mask \store
4:
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
  mov GENERAL + 8 * 1(%rax), %rcx
  mov GENERAL + 8 * 2(%rax), %rdx
  mov GENERAL + 8 * 3(%rax), %rbx
  mov GENERAL + 8 * 5(%rax), %rbp
  mov GENERAL + 8 * 6(%rax), %rsi
  mov GENERAL + 8 * 7(%rax), %rdi
  mov GENERAL + 8 * 8(%rax), %r8
  mov GENERAL + 8 * 9(%rax), %r9
  mov GENERAL + 8 * 10(%rax), %r10
  mov GENERAL + 8 * 11(%rax), %r11
  mov GENERAL + 8 * 12(%rax), %r12
  mov GENERAL + 8 * 13(%rax), %r13
  mov GENERAL + 8 * 14(%rax), %r14
  mov GENERAL + 8 * 15(%rax), %r15
  mov GENERAL(%rax), %rax
  call *ROUTINE(%rsp)

  mov %rax, SCRATCH(%rsp)
  mov OUT(%rsp), %rax
  mov %rcx, GENERAL + 8 * 1(%rax)
  mov %rdx, GENERAL + 8 * 2(%rax)
  mov %rbx, GENERAL + 8 * 3(%rax)
  mov %rsp, GENERAL + 8 * 4(%rax)
  mov %rbp, GENERAL + 8 * 5(%rax)
  mov %rsi, GENERAL + 8 * 6(%rax)
  mov %rdi, GENERAL + 8 * 7(%rax)
  mov %r8, GENERAL + 8 * 8(%rax)
  mov %r9, GENERAL + 8 * 9(%rax)
  mov %r10, GENERAL + 8 * 10(%rax)
  mov %r11, GENERAL + 8 * 11(%rax)
  mov %r12, GENERAL + 8 * 12(%rax)
  mov %r13, GENERAL + 8 * 13(%rax)
  mov %r14, GENERAL + 8 * 14(%rax)
  mov %r15, GENERAL + 8 * 15(%rax)
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
