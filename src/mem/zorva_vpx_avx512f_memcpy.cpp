// The copy for AVX-512. The bulk, from 512 bytes on, is stored past the caches.
#include "mem/bulk.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t small = 127;
constexpr std::size_t registers = 8, iteration = registers * zmm::width;
// How far ahead lines are prefetched: the first ones before the loop, then one with each load.
constexpr std::size_t prefetched = 1536;

template <std::size_t... Line>
[[gnu::always_inline]] inline void prefetch_lines(const char* from, std::index_sequence<Line...>) {
  (prefetch<hint::t1>(from + Line * 64), ...);
}

__m512i load_and_prefetch(const char* from) {
  const __m512i block = zmm::load(from);
  prefetch<hint::t1>(from + prefetched);
  return block;
}

[[gnu::noinline]] void* copy_large(char* to, const char* from, std::size_t count) {
  remainder<way::forwards> rest{to, from, count};
  copy_to_boundary<zmm>(rest, rest.to_boundary(zmm::width));
  if (rest.count >= iteration) {
    prefetch_lines(rest.from, std::make_index_sequence<prefetched / 64>());
    copy_loop<registers, load_and_prefetch, zmm::stream, no_prefetch>(rest, iteration);
    _mm_sfence();
  }
  small_block<by_zmm, iteration - 1>(rest.action(), rest.count);
  return to;
}

}  // namespace

extern "C" void* __zorva_vpx_avx512f_memcpy(void* destination, const void* source,
                                            std::size_t count) {
  return copy_block<by_zmm, small, copy_large>(destination, source, count);
}
