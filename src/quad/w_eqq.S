// a_eqq is __eqq under a second name.
#include "core/dispatch.inc"

forward a_eqq, __eqq
