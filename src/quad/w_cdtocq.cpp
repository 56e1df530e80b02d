// A complex quad from two doubles.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_cdtocq(void* q, const void* value) { widen_both(__dtoq, q, value); }
