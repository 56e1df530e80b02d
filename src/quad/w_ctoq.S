// a_ctoq is __itoq for an argument of 8 bits. Not every caller extends it to the whole register.
#include "core/dispatch.inc"

open a_ctoq
  movsbl %sil, %esi
  jmp *__itoq@GOTPCREL(%rip)
close
