#ifndef ZORVAC_MEM_VECTORS_H
#define ZORVAC_MEM_VECTORS_H
// The registers that hold parts of blocks, from 1 byte to 64, all with the same interface. A worker
// is a template over such a type, and the type determines its processor level.
//
// Everything in the headers of block workers has internal linkage. So a source that is compiled for
// AVX keeps its instances to itself. Otherwise the linker might choose its copy for all sources.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace zorvac::mem {
namespace {

template <class Word>
struct general {
  using reg = Word;
  typedef Word unaligned __attribute__((may_alias, aligned(1)));
  static constexpr std::size_t width = sizeof(Word);
  static reg load(const char* p) {
    reg word = *reinterpret_cast<const unaligned*>(p);
    asm("" : "+r"(word));  // a compiler would combine adjacent words into a vector
    return word;
  }
  static void store(char* p, reg v) { *reinterpret_cast<unaligned*>(p) = v; }
  static void stream(char* p, reg v) requires(width == 8) {
    _mm_stream_si64(reinterpret_cast<long long*>(p), static_cast<long long>(v));
  }
  // A register full of the byte that `pattern` repeats.
  static reg replicate(std::uint64_t pattern) { return static_cast<reg>(pattern); }
};
using u8 = general<std::uint8_t>;
using u32 = general<std::uint32_t>;
using u64 = general<std::uint64_t>;

struct xmm {
  using reg = __m128i;
  static constexpr std::size_t width = sizeof(reg);
  static const reg* at(const char* p) { return reinterpret_cast<const reg*>(p); }
  static reg* at(char* p) { return reinterpret_cast<reg*>(p); }
  static reg load(const char* p) { return _mm_loadu_si128(at(p)); }
  static reg load_aligned(const char* p) { return _mm_load_si128(at(p)); }
  static void store(char* p, reg v) { _mm_storeu_si128(at(p), v); }
  static void store_aligned(char* p, reg v) { _mm_store_si128(at(p), v); }
  static void stream(char* p, reg v) { _mm_stream_si128(at(p), v); }
  static reg replicate(std::uint64_t pattern) {
    return _mm_set1_epi64x(static_cast<long long>(pattern));
  }
  // The 16 bytes that begin `Skip` bytes into `low` and end in `high`, the next block in memory.
  template <int Skip>
  static reg merge(reg low, reg high) {
#ifdef __SSSE3__
    return _mm_alignr_epi8(high, low, Skip);
#else
    return _mm_or_si128(_mm_srli_si128(low, Skip), _mm_slli_si128(high, 16 - Skip));
#endif
  }
};

#ifdef __AVX2__
struct ymm {
  using reg = __m256i;
  static constexpr std::size_t width = sizeof(reg);
  static const reg* at(const char* p) { return reinterpret_cast<const reg*>(p); }
  static reg* at(char* p) { return reinterpret_cast<reg*>(p); }
  static reg load(const char* p) { return _mm256_loadu_si256(at(p)); }
  static void store(char* p, reg v) { _mm256_storeu_si256(at(p), v); }
  static void store_aligned(char* p, reg v) { _mm256_store_si256(at(p), v); }
  static void stream(char* p, reg v) { _mm256_stream_si256(at(p), v); }
  static reg replicate(std::uint64_t pattern) {
    return _mm256_set1_epi64x(static_cast<long long>(pattern));
  }
};
#endif

#ifdef __AVX512F__
struct zmm {
  using reg = __m512i;
  static constexpr std::size_t width = sizeof(reg);
  static reg load(const char* p) { return _mm512_loadu_si512(p); }
  static void store(char* p, reg v) { _mm512_storeu_si512(p, v); }
  static void stream(char* p, reg v) { _mm512_stream_si512(reinterpret_cast<reg*>(p), v); }
  static reg replicate(std::uint64_t pattern) {
    return _mm512_set1_epi64(static_cast<long long>(pattern));
  }
};
#endif

// Prefetches, named after their instructions. The values are the locality argument of the builtin.
enum class hint { nta = 0, t1 = 2, t0 = 3 };
template <hint Hint>
[[gnu::always_inline]] inline void prefetch(const char* p) {
  __builtin_prefetch(p, 0, static_cast<int>(Hint));
}

}  // namespace
}  // namespace zorvac::mem
#endif
