// The dispatcher of division.
#include "core/dispatch.inc"

dispatch __divq
  row   ZORVAC_SSE3_LEVEL, __divq.L
  generic                  __divq.A
