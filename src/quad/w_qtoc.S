// a_qtoc is __qtoi for callers that keep 8 bits of the result; narrowing it is theirs.
#include "core/dispatch.inc"

forward a_qtoc, __qtoi
