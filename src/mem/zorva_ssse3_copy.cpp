// The copy and the move for SSSE3, which merges two neighbouring blocks in one instruction.
#include "mem/direction.h"
#include "mem/merge.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t small = 79;
constexpr std::size_t registers = 8;  // an iteration copies 128 bytes
constexpr std::size_t iteration = registers * xmm::width;

template <way Way>
[[gnu::noinline]] void* copy_large(char* to, const char* from, std::size_t count) {
  remainder<Way> rest{to, from, count};
  const std::size_t aligned_count = count - rest.to_boundary(xmm::width);
  copy_past_boundary<xmm>(rest);
  if (aligned_count > bytes_of(__libvrt_largest_cache_size_half)) {
    copy_loop<registers, xmm::load, xmm::stream, no_prefetch>(rest, iteration);
    _mm_sfence();
  } else if (aligned_count >= bytes_of(__libvrt_data_cache_size_half)) {
    copy_through_caches<registers, prefetch_source<hint::t0, 448, 640>>(rest);
  } else {
    copy_through_caches<registers, no_prefetch>(rest);
  }
  small_block<by_xmm, iteration - 1>(rest.action(), rest.count);
  return to;
}

[[gnu::always_inline]] inline void* copy_small(char* to, const char* from, std::size_t count) {
  small_block<by_xmm, small>(copying{to, from}, count);
  return to;
}

void* copy(way direction, char* to, const char* from, std::size_t count) {
  return direction == way::forwards ? copy_large<way::forwards>(to, from, count)
                                    : copy_large<way::backwards>(to, from, count);
}

}  // namespace

extern "C" {

void* __zorva_ssse3_memcpy(void* destination, const void* source, std::size_t count) {
  auto* const to = static_cast<char*>(destination);
  const auto* const from = static_cast<const char*>(source);
  if (count <= small) return copy_small(to, from, count);
  return copy(by_low_bytes(to, from), to, from, count);
}

void* __zorva_ssse3_memmove(void* destination, const void* source, std::size_t count) {
  auto* const to = static_cast<char*>(destination);
  const auto* const from = static_cast<const char*>(source);
  if (count <= small) return copy_small(to, from, count);
  return copy(of_move(to, from, count), to, from, count);
}
}
