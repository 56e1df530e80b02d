#ifndef ZORVAC_TESTS_MEM_MEMBERS_H
#define ZORVAC_TESTS_MEM_MEMBERS_H
// The family under test as data: every block routine, what it needs of the processor, and the cache
// values that lead it down each of its paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <variant>
#include <vector>

#include "cpu/fast_mem_ops.h"
#include "support/name_of_row.h"
#include "support/sanitized.h"
#include "zorvac/mem.h"

namespace zorvac::test {

using copy_function = void*(void*, const void*, std::size_t);
using fill_function = void*(void*, int, std::size_t);
using compare_function = int(const void*, const void*, std::size_t);
using routine = std::variant<copy_function*, fill_function*, compare_function*>;

// What a member needs of the processor.
inline bool baseline() { return true; }
inline bool ssse3() { return __builtin_cpu_supports("ssse3") != 0; }
inline bool avx2() { return __builtin_cpu_supports("avx2") != 0; }
inline bool avx512f() { return __builtin_cpu_supports("avx512f") != 0; }

enum class kind { copy, move, fill, zero, compare };  // a zero fill ignores its second argument

struct member {
  const char* name;
  routine call;
  kind what;
  bool (*runs)();     // on this processor
  std::size_t small;  // the largest count of its table; 0: it has none
};
#define MEMBER(name, ...) \
  { #name, name, kind::__VA_ARGS__ }
inline const member members[] = {
    MEMBER(__zorva_new_memcpy, copy, baseline, 176),
    MEMBER(__zorva_ssse3_memcpy, copy, ssse3, 79),
    MEMBER(__zorva_ssse3_rep_memcpy, copy, ssse3, 143),
    MEMBER(__zorva_avx_rep_memcpy, copy, avx2, 256),
    MEMBER(__zorva_vpx_avx512f_memcpy, copy, avx512f, 127),
    MEMBER(_VEC_memcpy, copy, baseline, 0),
    MEMBER(__zorva_VEC_memcpy, copy, baseline, 0),
    MEMBER(__zorva_new_memmove, move, baseline, 176),
    MEMBER(__zorva_ssse3_memmove, move, ssse3, 79),
    MEMBER(__zorva_ssse3_rep_memmove, move, ssse3, 143),
    MEMBER(__zorva_new_memset, fill, baseline, 64),
    MEMBER(__zorva_avx_rep_memset, fill, avx2, 128),
    MEMBER(__zorva_vpx_avx512f_memset, fill, avx512f, 127),
    MEMBER(_VEC_memset, fill, baseline, 0),
    MEMBER(__zorva_VEC_memset, fill, baseline, 0),
    MEMBER(_VEC_memzero, zero, baseline, 0),
    MEMBER(__zorva_VEC_memzero, zero, baseline, 0),
    MEMBER(__zorva_new_memcmp, compare, baseline, 64),
    MEMBER(_zorva_fast_memcmp, compare, baseline, 0),
};
#undef MEMBER
inline std::ostream& operator<<(std::ostream& out, const member& m) { return out << m.name; }

inline std::vector<member> members_of(std::initializer_list<kind> kinds) {
  std::vector<member> chosen;
  for (const member& m : members)
    if (std::count(kinds.begin(), kinds.end(), m.what) != 0) chosen.push_back(m);
  return chosen;
}
inline void* entry_of(routine r) {
  return std::visit([](auto* f) { return reinterpret_cast<void*>(f); }, r);
}

// A test over some of the members, skipped where the processor cannot run one.
class over_members : public testing::TestWithParam<member> {
 protected:
  void SetUp() override {
    if (!GetParam().runs()) GTEST_SKIP() << "this processor cannot run it";
  }
};

// The values that the library's initialiser leaves for the workers: bytes, and the copy method.
struct cache_values {
  std::int32_t largest, data, method = 2;
};
inline std::ostream& operator<<(std::ostream& out, const cache_values& v) {
  return out << "caches " << v.largest << ' ' << v.data << ", method " << v.method;
}
inline constexpr cache_values ordinary{1 << 20, 32 << 10};
inline constexpr cache_values cache_settings[] = {
    ordinary,     {2048, 512},  // streams, splits and repeats with small blocks
    {0, 0},                     // unknown caches
    {0, 0, 0},                  // and only general registers
    {4096, 0, 1},               // only the largest level known, no vectors
    {1024, 8192},               // nonsense must stay harmless
};

// Sets the values for the life of the object.
class under_caches {
 public:
  explicit under_caches(const cache_values& v) { set(v); }
  ~under_caches() { set(old_); }
  under_caches(const under_caches&) = delete;
  under_caches& operator=(const under_caches&) = delete;

 private:
  static void set(const cache_values& v) {
    __libvrt_largest_cache_size = v.largest;
    __libvrt_largest_cache_size_half = v.largest / 2;
    __libvrt_data_cache_size = v.data;
    __libvrt_data_cache_size_half = v.data / 2;
    __libvrt_mem_ops_method = v.method;
  }
  cache_values old_{__libvrt_largest_cache_size, __libvrt_data_cache_size, __libvrt_mem_ops_method};
};

// Never in the pattern below, nor the value of a fill: what lies around a block.
inline constexpr unsigned char ground_byte = 0xa7;

// A reproducible byte that differs from its neighbours near and far, and is neither 0 nor the
// ground's: a block shifted, swapped or left out by any amount shows.
inline void fill_with_pattern(unsigned char* at, std::size_t bytes) {
  std::uint64_t state = 0x9e3779b97f4a7c15u;
  for (std::size_t i = 0; i < bytes; ++i) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    at[i] = static_cast<unsigned char>(1 + (state >> 33) % 255);
    if (at[i] == ground_byte) at[i] = ground_byte + 1;
  }
}

}  // namespace zorvac::test
#endif
