// a_qtod is __qtod under a second name.
#include "core/dispatch.inc"

forward a_qtod, __qtod
