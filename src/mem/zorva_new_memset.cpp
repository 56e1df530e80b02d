// The fill for SSE2. If the load-time method is below 2 (SSE2), the bulk goes through general
// registers.
#include "mem/bulk.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t small = 64;
constexpr std::size_t registers = 8;

void fill_by_registers(char*& to, std::size_t& count, std::uint64_t pattern) {
  fill_to_boundary<xmm>(to, count, pattern);
  if (count <= bytes_of(__libvrt_largest_cache_size))
    return fill_loop<registers, xmm, xmm::store_aligned>(to, count, pattern);
  fill_loop<registers, xmm, xmm::stream>(to, count, pattern);
  _mm_sfence();
}

// Here an unknown cache size, 0, means that nothing is streamed.
void fill_by_words(char*& to, std::size_t& count, std::uint64_t pattern) {
  fill_to_boundary<u64>(to, count, pattern);
  const std::size_t cache = bytes_of(__libvrt_largest_cache_size);
  if (cache == 0 || count <= cache)
    return fill_loop<registers, u64, u64::store>(to, count, pattern);
  fill_loop<registers, u64, u64::stream>(to, count, pattern);
  _mm_sfence();
}

[[gnu::noinline]] void* fill_large(char* const destination, std::uint64_t pattern,
                                   std::size_t count) {
  char* to = destination;
  if (__libvrt_mem_ops_method >= 2)
    fill_by_registers(to, count, pattern);
  else
    fill_by_words(to, count, pattern);
  if (count != 0) fill_last<xmm, registers / 2>(to, count, pattern);
  return destination;
}

}  // namespace

extern "C" {

void* __zorva_new_memset(void* destination, int value, std::size_t count) {
  return fill_block<by_xmm, small, fill_large>(destination, value, count);
}
[[gnu::alias("__zorva_new_memset")]] void* __zorva_memset(void*, int, std::size_t);
}
