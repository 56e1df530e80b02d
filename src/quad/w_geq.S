// a_geq is __geq under a second name.
#include "core/dispatch.inc"

forward a_geq, __geq
