// The probing fill under its second name.
#include "mem/probing.h"
#include "zorvac/mem.h"

extern "C" void* __zorva_VEC_memset(void* destination, int value, std::size_t count) {
  return zorvac::mem::probing_fill<__zorva_VEC_memset>(destination, value, count);
}
