// a_divq is __divq under a second name.
#include "core/dispatch.inc"

forward a_divq, __divq
