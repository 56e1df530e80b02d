// The dispatcher of multiplication.
#include "core/dispatch.inc"

dispatch __mulq
  row   ZORVAC_SSE3_LEVEL, __mulq.L
  generic                  __mulq.A
