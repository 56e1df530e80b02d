// a_qtoc is __qtoi for callers that keep 8 bits of the result. The caller narrows it.
#include "core/dispatch.inc"

forward a_qtoc, __qtoi
