// Functions of the test program with the names of all routines that the library exports, and of
// those that it jumps to in the C library. Each one executes a trap, whose handler records its
// name, which follows its code, and its arguments; then it returns. So whatever else a caller sees
// of a call was done by the library.
.section .note.GNU-stack, "", @progbits
.text
.macro stand_in name, twin
  .globl \name
  .type \name, @function
\name:
  .cfi_startproc
  .ifnb \twin
  test %rdi, %rdi
  js 1f
  mov $-1, %rcx
  jmp *\twin@GOTPCREL(%rip)
1:
  .endif
  ud2
  ret
  .cfi_endproc
  .asciz "\name"
.endm

.irp name, EXPORTED_FUNCTIONS
  stand_in \name
.endr

// The whole process uses these, so they do their work, with the C library's checked variants. Where
// the destination is not an address, the call comes from the test.
.irp name, memcpy, memmove, memset
  stand_in \name, __\name\()_chk
.endr
