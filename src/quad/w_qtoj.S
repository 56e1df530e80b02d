// a_qtoj is __qtoj under a second name.
#include "core/dispatch.inc"

forward a_qtoj, __qtoj
