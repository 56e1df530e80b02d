// a_jtoq is __jtoq under a second name.
#include "core/dispatch.inc"

forward a_jtoq, __jtoq
