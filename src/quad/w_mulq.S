// a_mulq is __mulq under a second name.
#include "core/dispatch.inc"

forward a_mulq, __mulq
