// a_ltq is __ltq under a second name.
#include "core/dispatch.inc"

forward a_ltq, __ltq
