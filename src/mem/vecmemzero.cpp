// The probing fill with zeros. Its second argument stands where a fill has its value.
#include "mem/probing.h"
#include "zorvac/mem.h"

extern "C" void* _VEC_memzero(void* destination, int, std::size_t count) {
  return zorvac::mem::probing_fill<_VEC_memzero>(destination, 0, count);
}
