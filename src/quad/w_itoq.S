// a_itoq is __itoq under a second name.
#include "core/dispatch.inc"

forward a_itoq, __itoq
