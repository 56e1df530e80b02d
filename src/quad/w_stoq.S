// a_stoq is __itoq for an argument of 16 bits. Not every caller extends it to the whole register.
#include "core/dispatch.inc"

open a_stoq
  movswl %si, %esi
  jmp *__itoq@GOTPCREL(%rip)
close
