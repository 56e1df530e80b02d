// A complex quad as two floats.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void a_cqtoc(void* value, const void* q) { narrow(__qtof, value, q); }
