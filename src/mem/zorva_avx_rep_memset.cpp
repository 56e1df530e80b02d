// The fill for AVX2: a loop for blocks within the first-level cache, the string instruction for
// larger ones.
#include "mem/bulk.h"
#include "mem/string_instructions.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t small = 256;
constexpr std::size_t registers = 8;

[[gnu::noinline]] void* fill_large(char* const destination, std::uint64_t pattern,
                                   std::size_t count) {
  char* to = destination;
  fill_to_boundary<ymm>(to, count, pattern);
  const std::size_t cache = bytes_of(__libvrt_data_cache_size);
  if (count >= cache - cache / 16) {
    rep_store_bytes(to, pattern, count);
    return destination;
  }
  fill_loop<registers, ymm, ymm::store_aligned>(to, count, pattern);
  if (count != 0) fill_last<ymm, registers / 2>(to, count, pattern);
  return destination;
}

}  // namespace

extern "C" void* __zorva_avx_rep_memset(void* destination, int value, std::size_t count) {
  return fill_block<by_few_ymm, small, fill_large>(destination, value, count);
}
