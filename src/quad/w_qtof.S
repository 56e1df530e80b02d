// a_qtof is __qtof under a second name.
#include "core/dispatch.inc"

forward a_qtof, __qtof
