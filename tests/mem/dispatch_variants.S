// The variants as this program has them.
#include "stand_in.inc"
stand_in _zorva_fast_memcpy.Z
stand_in _zorva_fast_memcpy.V
stand_in _zorva_fast_memcpy.P
stand_in _zorva_fast_memcpy.M
stand_in _zorva_fast_memcpy.J
stand_in _zorva_fast_memcpy.A
stand_in _zorva_fast_memmove.P
stand_in _zorva_fast_memmove.M
stand_in _zorva_fast_memmove.A
stand_in _zorva_fast_memset.Z
stand_in _zorva_fast_memset.V
stand_in _zorva_fast_memset.J
stand_in _zorva_fast_memset.A
