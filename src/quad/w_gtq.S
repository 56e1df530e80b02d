// a_gtq is __gtq under a second name.
#include "core/dispatch.inc"

forward a_gtq, __gtq
