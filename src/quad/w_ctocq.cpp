// A complex quad from two floats.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_ctocq(void* q, const void* value) { widen_both(__ftoq, q, value); }
