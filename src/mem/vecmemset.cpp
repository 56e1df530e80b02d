// The probing fill.
#include "mem/probing.h"
#include "zorvac/mem.h"

extern "C" void* _VEC_memset(void* destination, int value, std::size_t count) {
  return zorvac::mem::probing_fill<_VEC_memset>(destination, value, count);
}
