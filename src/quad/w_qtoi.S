// a_qtoi is __qtoi under a second name.
#include "core/dispatch.inc"

forward a_qtoi, __qtoi
