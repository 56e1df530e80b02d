// A complex quad as two doubles.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_cqtocd(void* value, const void* q) { narrow_both(__qtod, value, q); }
