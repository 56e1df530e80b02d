// a_cqtod: the real part as a double. The address of a complex quad is that of its real part.
#include "core/dispatch.inc"

forward a_cqtod, __qtod
