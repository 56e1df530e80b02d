// The fill for AVX-512. The bulk, from 512 bytes on, is stored past the caches.
#include "mem/bulk.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t small = 127;
constexpr std::size_t registers = 8, iteration = registers * zmm::width;

[[gnu::noinline]] void* fill_large(char* const destination, std::uint64_t pattern,
                                   std::size_t count) {
  char* to = destination;
  fill_to_boundary<zmm>(to, count, pattern);
  if (count >= iteration) {
    fill_loop<registers, zmm, zmm::stream>(to, count, pattern);
    _mm_sfence();
  }
  small_block<by_zmm, iteration - 1>(filling{to, pattern}, count);
  return destination;
}

}  // namespace

extern "C" void* __zorva_vpx_avx512f_memset(void* destination, int value, std::size_t count) {
  return fill_block<by_zmm, small, fill_large>(destination, value, count);
}
