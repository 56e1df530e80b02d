// a_ftoq is __ftoq under a second name.
#include "core/dispatch.inc"

forward a_ftoq, __ftoq
