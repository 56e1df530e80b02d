// The bodies that the dispatchers choose from.
#include "support/stand_in.inc"

stand_ins __mulq.L, __mulq.A, __divq.L, __divq.A
