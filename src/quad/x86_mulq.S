// The dispatcher of multiplication. The level below SSSE3 is the low byte of the indicator.
#include "core/dispatch.inc"

dispatch __mulq
  row   ZORVAC_SSE3_LEVEL, __mulq.L
  generic                  __mulq.A
