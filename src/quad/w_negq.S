// a_negq is __negq under a second name.
#include "core/dispatch.inc"

forward a_negq, __negq
