// The copy for AVX2: a loop for blocks within the first-level cache, the string instruction for
// larger ones, and stores past the caches for blocks that these cannot hold.
#include "mem/bulk.h"
#include "mem/string_instructions.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t small = 256;
constexpr std::size_t registers = 8, iteration = registers * ymm::width;
// A streamed iteration leaves at least this many bytes, so its prefetches stay within the block.
constexpr std::size_t prefetched = 768;
using look_ahead = prefetch_source<hint::t0, 512, 576, 640, 704>;

[[gnu::noinline]] void* copy_large(char* to, const char* from, std::size_t count) {
  remainder<way::forwards> rest{to, from, count};
  copy_to_boundary<ymm>(rest, rest.to_next_boundary(ymm::width));
  const std::size_t half = bytes_of(__libvrt_data_cache_size_half);
  if (rest.count >= half - half / 4) {
    if (rest.count < bytes_of(__libvrt_largest_cache_size_half)) {
      rep_move_bytes(rest.to, rest.from, rest.count);
      return to;
    }
    copy_loop<registers, ymm::load, ymm::stream, look_ahead>(rest, iteration + prefetched);
    _mm_sfence();
  }
  copy_loop<registers, ymm::load, ymm::store_aligned, no_prefetch>(rest, iteration);
  copy_last<ymm, registers>(rest);
  return to;
}

}  // namespace

extern "C" void* __zorva_avx_rep_memcpy(void* destination, const void* source, std::size_t count) {
  return copy_block<by_ymm, small, copy_large>(destination, source, count);
}
