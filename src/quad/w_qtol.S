// a_qtol is __qtol under a second name.
#include "core/dispatch.inc"

forward a_qtol, __qtol
