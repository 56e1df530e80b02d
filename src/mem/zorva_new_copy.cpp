// The copy and the move for SSE2 and, where the load-time method says so, for general registers
// alone.
#include "mem/direction.h"
#include "mem/merge.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t tiny = 8, small = 176;
using look_ahead = prefetch_source<hint::nta, 384>;

// Aligns the destination to a word; blocks may overlap, so exactly the bytes that it takes.
template <class Rest>
[[gnu::always_inline]] inline void copy_to_word_boundary(Rest& rest) {
  const std::size_t distance = rest.to_boundary(8) % 8;
  if (distance == 0) return;
  const std::size_t at = rest.next(distance);
  small_block<by_xmm, 7>(copying<Rest::direction>{rest.to + at, rest.from + at}, distance);
  rest.take(distance);
}

// Past the caches. The whole registers that the loop leaves still find the destination aligned.
template <class Rest>
void stream_registers(Rest& rest) {
  copy_loop<4, xmm::load, xmm::stream, look_ahead>(rest, 64);
  _mm_sfence();
  switch (rest.count / xmm::width) {
    case 3:
      return copy_next<3, xmm::load, xmm::store_aligned>(rest);
    case 2:
      return copy_next<2, xmm::load, xmm::store_aligned>(rest);
    case 1:
      return copy_next<1, xmm::load, xmm::store_aligned>(rest);
    default:
      return;
  }
}

template <class Rest>
void copy_by_registers(Rest& rest) {
  if (rest.to_boundary(xmm::width) == 8) copy_next<1, u64::load, u64::store>(rest);
  if (rest.count > bytes_of(__libvrt_largest_cache_size_half)) return stream_registers(rest);
  const std::size_t skip = misalignment(rest.source_edge(), xmm::width);
  if (skip == 0) return copy_loop<8, xmm::load_aligned, xmm::store_aligned, no_prefetch>(rest, 168);
  copy_next<1, xmm::load, xmm::store_aligned>(rest);
  merge<2, no_prefetch>(rest, skip);
}

template <class Rest>
void copy_by_words(Rest& rest) {
  if (rest.count <= bytes_of(__libvrt_largest_cache_size_half))
    return copy_loop<8, u64::load, u64::store, no_prefetch>(rest, 64);
  copy_loop<8, u64::load, u64::stream, look_ahead>(rest, 64);
  _mm_sfence();
}

// From an aligned word on, more than `small` bytes.
template <way Way>
[[gnu::noinline]] void* copy_large(void* destination, char* to, const char* from,
                                   std::size_t count) {
  remainder<Way> rest{to, from, count};
  if (__libvrt_mem_ops_method == 2)
    copy_by_registers(rest);
  else
    copy_by_words(rest);
  small_block<by_xmm, small>(rest.action(), rest.count);
  return destination;
}

template <way Way>
[[gnu::always_inline]] inline void* copy_beyond_tiny(char* to, const char* from,
                                                     std::size_t count) {
  remainder<Way> rest{to, from, count};
  copy_to_word_boundary(rest);
  if (rest.count > small) return copy_large<Way>(to, rest.to, rest.from, rest.count);
  small_block<by_xmm, small>(rest.action(), rest.count);
  return to;
}

[[gnu::always_inline]] inline void* copy_tiny(char* to, const char* from, std::size_t count) {
  if (count == 1)
    *to = *from;
  else
    small_block<by_xmm, tiny>(copying<way::forwards>{to, from}, count);
  return to;
}

}  // namespace

extern "C" {

void* __zorva_new_memcpy(void* destination, const void* source, std::size_t count) {
  auto* const to = static_cast<char*>(destination);
  const auto* const from = static_cast<const char*>(source);
  if (count <= tiny) return copy_tiny(to, from, count);
  return copy_beyond_tiny<way::forwards>(to, from, count);
}
[[gnu::alias("__zorva_new_memcpy")]] void* __zorva_memcpy(void*, const void*, std::size_t);

void* __zorva_new_memmove(void* destination, const void* source, std::size_t count) {
  auto* const to = static_cast<char*>(destination);
  const auto* const from = static_cast<const char*>(source);
  if (count <= tiny) return copy_tiny(to, from, count);
  if (begins_inside(to, from, count)) return copy_beyond_tiny<way::backwards>(to, from, count);
  return copy_beyond_tiny<way::forwards>(to, from, count);
}
}
