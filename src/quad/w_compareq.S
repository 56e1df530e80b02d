// compareq is __compareq under a second name.
#include "core/dispatch.inc"

forward compareq, __compareq
