// a_qtos is __qtoi for callers that keep 16 bits of the result. The caller narrows it.
#include "core/dispatch.inc"

forward a_qtos, __qtoi
