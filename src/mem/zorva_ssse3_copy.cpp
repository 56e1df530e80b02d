// The copy and the move for SSSE3, which has an instruction that merges two neighbouring blocks.
#include "mem/ssse3_member.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

// Streams blocks larger than half the largest cache.
struct member {
  static constexpr std::size_t small = 79;

  template <class Rest>
  static bool is_large(const Rest&, std::size_t aligned_count) {
    return aligned_count > bytes_of(__libvrt_largest_cache_size_half);
  }
  template <class Rest>
  static void copy_large_bulk(Rest& rest) {
    copy_loop<registers, xmm::load, xmm::stream, no_prefetch>(rest, iteration);
    _mm_sfence();
  }
};

}  // namespace

extern "C" {

void* __zorva_ssse3_memcpy(void* destination, const void* source, std::size_t count) {
  return copy_by_member<member, of_copy>(destination, source, count);
}
void* __zorva_ssse3_memmove(void* destination, const void* source, std::size_t count) {
  return copy_by_member<member, of_move>(destination, source, count);
}
}
