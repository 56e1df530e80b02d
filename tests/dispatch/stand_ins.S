// Functions of the test program by the names of all that the library exports, and of what it jumps
// to in the C library. Each has its name, behind it, and its arguments noted by the handler of a
// trap, and returns, so that what a caller sees of a call is the library's doing.
.section .note.GNU-stack, "", @progbits
.text
.macro stand_in name, twin
  .globl \name
  .type \name, @function
\name:
  .ifnb \twin
  test %rdi, %rdi
  js 1f
  mov $-1, %rcx
  jmp *\twin@GOTPCREL(%rip)
1:
  .endif
  ud2
  ret
  .asciz "\name"
.endm

.irp name, EXPORTED_FUNCTIONS
  stand_in \name
.endr

// The whole process uses these, so they do their work, by the C library's checked twins, unless the
// destination is no address: then the call is the test's.
.irp name, memcpy, memmove, memset
  stand_in \name, __\name\()_chk
.endr
