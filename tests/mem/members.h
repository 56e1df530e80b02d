#ifndef ZORVAC_TESTS_MEM_MEMBERS_H
#define ZORVAC_TESTS_MEM_MEMBERS_H
// The family under test as data: every block routine, what it needs of the processor, and the cache
// values that lead it down each of its paths.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "cpu/fast_mem_ops.h"
#include "zorvac/mem.h"

namespace zorvac::test {

enum class needs { baseline, ssse3, avx2, avx512f };

inline bool host_has(needs level) {
  switch (level) {
    case needs::baseline:
      return true;
    case needs::ssse3:
      return __builtin_cpu_supports("ssse3");
    case needs::avx2:
      return __builtin_cpu_supports("avx2");
    case needs::avx512f:
      return __builtin_cpu_supports("avx512f");
  }
  return false;
}

using copy_function = void*(void*, const void*, std::size_t);
using fill_function = void*(void*, int, std::size_t);
using compare_function = int(const void*, const void*, std::size_t);

struct copy_member {
  const char* name;
  copy_function* copy;
  needs level;
  bool moves;  // source and destination may overlap
};
inline constexpr copy_member copy_members[] = {
    {"__zorva_new_memcpy", __zorva_new_memcpy, needs::baseline, false},
    {"__zorva_ssse3_memcpy", __zorva_ssse3_memcpy, needs::ssse3, false},
    {"__zorva_ssse3_rep_memcpy", __zorva_ssse3_rep_memcpy, needs::ssse3, false},
    {"__zorva_avx_rep_memcpy", __zorva_avx_rep_memcpy, needs::avx2, false},
    {"__zorva_vpx_avx512f_memcpy", __zorva_vpx_avx512f_memcpy, needs::avx512f, false},
    {"_VEC_memcpy", _VEC_memcpy, needs::baseline, false},
    {"__zorva_VEC_memcpy", __zorva_VEC_memcpy, needs::baseline, false},
    {"__zorva_new_memmove", __zorva_new_memmove, needs::baseline, true},
    {"__zorva_ssse3_memmove", __zorva_ssse3_memmove, needs::ssse3, true},
    {"__zorva_ssse3_rep_memmove", __zorva_ssse3_rep_memmove, needs::ssse3, true},
};

struct fill_member {
  const char* name;
  fill_function* fill;
  needs level;
  bool only_zero;  // the second argument is ignored
};
inline constexpr fill_member fill_members[] = {
    {"__zorva_new_memset", __zorva_new_memset, needs::baseline, false},
    {"__zorva_avx_rep_memset", __zorva_avx_rep_memset, needs::avx2, false},
    {"__zorva_vpx_avx512f_memset", __zorva_vpx_avx512f_memset, needs::avx512f, false},
    {"_VEC_memset", _VEC_memset, needs::baseline, false},
    {"__zorva_VEC_memset", __zorva_VEC_memset, needs::baseline, false},
    {"_VEC_memzero", _VEC_memzero, needs::baseline, true},
    {"__zorva_VEC_memzero", __zorva_VEC_memzero, needs::baseline, true},
};

// The values that the library's initialiser leaves for the workers: bytes, and the copy method.
struct cache_values {
  const char* name;
  std::int32_t largest, data, method;
};
inline constexpr cache_values ordinary{"Ordinary", 1 << 20, 32 << 10, 2};
inline constexpr cache_values cache_settings[] = {
    ordinary,
    {"Small", 2048, 512, 2},          // streams, splits and repeats with small blocks
    {"Zero", 0, 0, 2},                // unknown caches
    {"ZeroWithoutVectors", 0, 0, 0},  // and only general registers
    {"SecondVendor", 4096, 0, 1},     // only the largest level known, no vectors
    {"Inverted", 1024, 8192, 2},      // nonsense must stay harmless
};

// Sets the values for the life of the object.
class under_caches {
 public:
  explicit under_caches(const cache_values& v) { set(v.largest, v.data, v.method); }
  ~under_caches() { set(old_largest_, old_data_, old_method_); }
  under_caches(const under_caches&) = delete;
  under_caches& operator=(const under_caches&) = delete;

 private:
  static void set(std::int32_t largest, std::int32_t data, std::int32_t method) {
    __libvrt_largest_cache_size = largest;
    __libvrt_largest_cache_size_half = largest / 2;
    __libvrt_data_cache_size = data;
    __libvrt_data_cache_size_half = data / 2;
    __libvrt_mem_ops_method = method;
  }
  std::int32_t old_largest_ = __libvrt_largest_cache_size;
  std::int32_t old_data_ = __libvrt_data_cache_size;
  std::int32_t old_method_ = __libvrt_mem_ops_method;
};

// Counts on both sides of every limit that a member could have under these values, its own size
// classes and those of its cache thresholds, with room for the bytes that alignment takes off.
inline std::vector<std::size_t> counts_around_limits(const cache_values& v) {
  const auto bytes = [](std::int32_t value) { return static_cast<std::size_t>(value); };
  const std::size_t l = bytes(v.largest), d = bytes(v.data), half_d = d / 2;
  std::vector<std::size_t> limits{
      // size classes and iterations
      8, 64, 80, 128, 144, 176, 256, 512, 768, 1024, 1536, 2048, 4096,
      // first-level cache: fill by string instruction, copy by it, prefetch, split streaming
      d - d / 16, half_d - half_d / 4, half_d, half_d - half_d / 256, d, 2 * d,
      // largest cache: streaming, and the bounds of the split
      l, l / 2, l / 2 + 4096, l / 2 * 9,
      // the probing members
      16384, 16384 + 128};
  std::vector<std::size_t> counts;
  for (const std::size_t limit : limits)
    for (const std::size_t delta :
         {0u, 1u, 7u, 8u, 15u, 16u, 17u, 31u, 32u, 33u, 63u, 64u, 65u, 127u, 128u})
      for (const std::size_t count : {limit - delta, limit + delta})
        if (count < (std::size_t{1} << 20)) counts.push_back(count);  // drops those below zero
  return counts;
}

// A reproducible byte that differs from its neighbours near and far, and is never zero: a block
// shifted, swapped or left out by any amount shows, and so does a byte written over zeros.
inline void fill_with_pattern(unsigned char* at, std::size_t bytes) {
  std::uint64_t state = 0x9e3779b97f4a7c15u;
  for (std::size_t i = 0; i < bytes; ++i) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    at[i] = static_cast<unsigned char>(1 + (state >> 33) % 255);
  }
}

inline const auto name_of_row = [](const auto& row) { return std::string(row.param.name); };
inline std::ostream& operator<<(std::ostream& out, const copy_member& m) { return out << m.name; }
inline std::ostream& operator<<(std::ostream& out, const fill_member& m) { return out << m.name; }
inline std::ostream& operator<<(std::ostream& out, const cache_values& v) { return out << v.name; }

// A test over a list of members, skipped where the processor cannot run one.
template <class Member>
class over_members : public testing::TestWithParam<Member> {
 protected:
  void SetUp() override {
    if (!host_has(this->GetParam().level)) GTEST_SKIP() << "this processor cannot run it";
  }
};

// A sanitizer multiplies the time of every step.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif
#else
inline constexpr bool sanitized = false;
#endif

}  // namespace zorvac::test
#endif
