// a_dtoq is __dtoq under a second name.
#include "core/dispatch.inc"

forward a_dtoq, __dtoq
