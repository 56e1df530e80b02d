// a_qtos is __qtoi for callers that keep 16 bits of the result; narrowing it is theirs.
#include "core/dispatch.inc"

forward a_qtos, __qtoi
