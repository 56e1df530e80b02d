// Integers to quads in memory.
#include "quad/from_integer.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

void __itoq(void* q, std::int32_t value) { store(q, from_signed(value)); }
void __jtoq(void* q, std::int64_t value) { store(q, from_signed(value)); }
void __utoq(void* q, std::uint32_t value) { store(q, from_magnitude(false, value)); }
void __ktoq(void* q, uint64_t value) { store(q, from_magnitude(false, value)); }
