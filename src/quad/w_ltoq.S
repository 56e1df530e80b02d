// a_ltoq is __ltoq under a second name, but its argument, which lies on the stack above the return
// address, passes through the x87 on the way. An 80-bit load and store change no value and raise
// no exception, signalling NaNs included.
#include "core/dispatch.inc"

open a_ltoq
  fldt 8(%rsp)
  fstpt 8(%rsp)
  jmp *__ltoq@GOTPCREL(%rip)
close
