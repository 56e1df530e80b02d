// a_leq is __leq under a second name.
#include "core/dispatch.inc"

forward a_leq, __leq
