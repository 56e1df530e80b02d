// Assembler code without debug information: a routine, and a label that does not say what it is.
    .text
    .globl bare
    .type bare, @function
bare:
    lea 1(%rdi), %eax
    ret
    .size bare, . - bare
    .globl label
label:
    lea 2(%rdi), %eax
    ret
    .section .note.GNU-stack, "", @progbits
