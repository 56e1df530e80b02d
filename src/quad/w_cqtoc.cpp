// A complex quad as two floats.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_cqtoc(void* value, const void* q) { narrow_both(__qtof, value, q); }
