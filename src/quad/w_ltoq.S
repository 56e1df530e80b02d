// a_ltoq is __ltoq under a second name, but its argument passes through the x87 first. It is on the
// stack above the return address. An 80-bit load and store change no value and raise no exception,
// not even for signalling NaNs.
#include "core/dispatch.inc"

open a_ltoq
  fldt 8(%rsp)
  fstpt 8(%rsp)
  jmp *__ltoq@GOTPCREL(%rip)
close
