// a_cqtof: the real part as a float. The address of a complex quad is that of its real part.
#include "core/dispatch.inc"

forward a_cqtof, __qtof
