#ifndef ZORVAC_TESTS_MEM_MEMBERS_H
#define ZORVAC_TESTS_MEM_MEMBERS_H
// The family under test as data: every block routine, what it needs of the processor, and the cache
// values that lead it down each of its paths.
#include <cstddef>
#include <cstdint>
#include <string>

#include "cpu/fast_mem_ops.h"
#include "zorvac/mem.h"

namespace zorvac::test {

enum class kind { copy, move, fill, zero, compare };  // a zero fill ignores its second argument

// All take three words and return one, of which a comparison means the lower half.
using routine = std::uintptr_t(void*, std::uintptr_t, std::size_t);
struct member {
  std::string name;
  routine* entry;
  kind what;
  int runs;           // on this processor
  std::size_t small;  // the largest count of its table; 0: it has none
};
#define MEMBER(name, ...) \
  { #name, reinterpret_cast < routine*>(reinterpret_cast <void*>(name)), kind::__VA_ARGS__ }
inline const int ssse3 = __builtin_cpu_supports("ssse3"), avx2 = __builtin_cpu_supports("avx2"),
                 avx512f = __builtin_cpu_supports("avx512f");
inline const member members[] = {
    MEMBER(__zorva_new_memcpy, copy, 1, 176),
    MEMBER(__zorva_memcpy, copy, 1, 176),  // one routine, two names
    MEMBER(__zorva_ssse3_memcpy, copy, ssse3, 79),
    MEMBER(__zorva_ssse3_rep_memcpy, copy, ssse3, 143),
    MEMBER(__zorva_avx_rep_memcpy, copy, avx2, 256),
    MEMBER(__zorva_vpx_avx512f_memcpy, copy, avx512f, 127),
    MEMBER(_VEC_memcpy, copy, 1, 0),
    MEMBER(__zorva_VEC_memcpy, copy, 1, 0),
    MEMBER(__zorva_new_memmove, move, 1, 176),
    MEMBER(__zorva_ssse3_memmove, move, ssse3, 79),
    MEMBER(__zorva_ssse3_rep_memmove, move, ssse3, 143),
    MEMBER(__zorva_new_memset, fill, 1, 64),
    MEMBER(__zorva_memset, fill, 1, 64),
    MEMBER(__zorva_avx_rep_memset, fill, avx2, 128),
    MEMBER(__zorva_vpx_avx512f_memset, fill, avx512f, 127),
    MEMBER(_VEC_memset, fill, 1, 0),
    MEMBER(__zorva_VEC_memset, fill, 1, 0),
    MEMBER(_VEC_memzero, zero, 1, 0),
    MEMBER(__zorva_VEC_memzero, zero, 1, 0),
    MEMBER(__zorva_new_memcmp, compare, 1, 64),
    MEMBER(_zorva_fast_memcmp, compare, 1, 0),
};
#undef MEMBER

// The values that the library's initialiser leaves for the workers: bytes, and the copy method.
struct cache_values {
  std::int32_t largest, data, method = 2;
};
inline constexpr cache_values ordinary{1 << 20, 32 << 10};
inline void set_caches(const cache_values& v) {
  __libvrt_largest_cache_size = v.largest;
  __libvrt_largest_cache_size_half = v.largest / 2;
  __libvrt_data_cache_size = v.data;
  __libvrt_data_cache_size_half = v.data / 2;
  __libvrt_mem_ops_method = v.method;
}

}  // namespace zorvac::test
#endif
