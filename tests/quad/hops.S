// Stands in for the exported routines that others call, in the test program and, as the library's
// calls can be replaced, in the library: notes the call and goes on to the library's routine.
.section .note.GNU-stack, "", @progbits

// Names and routines make a table, which the linker puts bounds to.
.macro hop name
  .section .rodata
1:
  .string "\name"
  .section hops, "aw"
2:
  .quad 1b, 0
  .text
  .globl \name
  .type \name, @function
\name:
  lea 2b(%rip), %r11
  jmp note
.endm

.text
note:
  push %rax
  movzbl hop_count(%rip), %eax
  lea hop_log(%rip), %r10
  mov %r11, (%r10, %rax, 8)
  incb hop_count(%rip)
  pop %rax
  jmp *8(%r11)

.irp name, __addq, __subq, __mulq, __mulq.L, __mulq.A, __divq, __divq.L, __divq.A, __negq, \
  __eqq, __neq, __ltq, __leq, __gtq, __geq, __compareq, __itoq, __utoq, __jtoq, __ktoq, \
  __ftoq, __dtoq, __ltoq, __qtoi, __qtoj, __qtou, __qtok, __qtof, __qtod, __qtol, \
  __fton, __ftom, __dton, __dtom, __lton, __ltom, __qton, __qtom, \
  __ntof, __mtof, __ntod, __mtod, __ntol, __mtol, __ntoq, __mtoq, \
  __caddq, __csubq, __cmulq, __cdivq, __cnegq, __ceqq, __cneq
  hop \name
.endr
