// a_subq is __subq under a second name.
#include "core/dispatch.inc"

forward a_subq, __subq
