// First versions of the block workers: string instructions throughout.
#include <cstdint>

#include "zorvac/mem.h"

namespace {
void* copy(void* d, const void* s, std::size_t n) {
  void* const result = d;
  asm volatile("rep movsb" : "+D"(d), "+S"(s), "+c"(n)::"memory");
  return result;
}
void* move(void* d, const void* s, std::size_t n) {
  const auto to = reinterpret_cast<std::uintptr_t>(d), from = reinterpret_cast<std::uintptr_t>(s);
  if (to - from >= n) return copy(d, s, n);
  void* const result = d;
  d = static_cast<char*>(d) + n - 1;
  s = static_cast<const char*>(s) + n - 1;
  asm volatile("std\n\trep movsb\n\tcld" : "+D"(d), "+S"(s), "+c"(n)::"memory");
  return result;
}
void* fill(void* d, int value, std::size_t n) {
  void* const result = d;
  asm volatile("rep stosb" : "+D"(d), "+c"(n) : "a"(value) : "memory");
  return result;
}
}  // namespace

#define COPY(name) \
  void* name(void* d, const void* s, std::size_t n) { return copy(d, s, n); }
#define MOVE(name) \
  void* name(void* d, const void* s, std::size_t n) { return move(d, s, n); }
#define FILL(name) \
  void* name(void* d, int value, std::size_t n) { return fill(d, value, n); }
#define ZERO(name) \
  void* name(void* d, int, std::size_t n) { return fill(d, 0, n); }
extern "C" {
COPY(__zorva_new_memcpy)
COPY(__zorva_memcpy)
COPY(__zorva_ssse3_memcpy)
COPY(__zorva_ssse3_rep_memcpy)
COPY(__zorva_avx_rep_memcpy)
COPY(__zorva_vpx_avx512f_memcpy)
COPY(_VEC_memcpy)
COPY(__zorva_VEC_memcpy)
MOVE(__zorva_new_memmove)
MOVE(__zorva_ssse3_memmove)
MOVE(__zorva_ssse3_rep_memmove)
FILL(__zorva_new_memset)
FILL(__zorva_memset)
FILL(__zorva_avx_rep_memset)
FILL(__zorva_vpx_avx512f_memset)
FILL(_VEC_memset)
FILL(__zorva_VEC_memset)
ZERO(_VEC_memzero)
ZERO(__zorva_VEC_memzero)
int __zorva_new_memcmp(const void* a, const void* b, std::size_t n) {
  return _zorva_fast_memcmp(a, b, n);
}
}
