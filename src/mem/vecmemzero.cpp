// The probing fill with zeros. It ignores its second argument, which is in the place of a fill's
// value.
#include "mem/probing.h"
#include "zorvac/mem.h"

extern "C" void* _VEC_memzero(void* destination, int, std::size_t count) {
  return zorvac::mem::probing_fill<_VEC_memzero>(destination, 0, count);
}
