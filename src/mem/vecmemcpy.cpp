// The probing copy.
#include "mem/probing.h"
#include "zorvac/mem.h"

extern "C" void* _VEC_memcpy(void* destination, const void* source, std::size_t count) {
  return zorvac::mem::probing_copy<_VEC_memcpy>(destination, source, count);
}
