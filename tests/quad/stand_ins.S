// The bodies of the dispatchers, and what the alternate names jump to.
#include "support/stand_in.inc"

stand_ins __mulq.L, __mulq.A, __divq.L, __divq.A, __addq, __subq, __negq, __eqq, __neq, __ltq, \
    __leq, __gtq, __geq, __itoq, __jtoq, __ftoq, __dtoq, __qtoi, __qtoj, __qtof, __qtod, __qtol
