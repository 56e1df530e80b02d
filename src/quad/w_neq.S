// a_neq is __neq under a second name.
#include "core/dispatch.inc"

forward a_neq, __neq
