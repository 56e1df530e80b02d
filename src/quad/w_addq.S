// a_addq is __addq under a second name.
#include "core/dispatch.inc"

forward a_addq, __addq
