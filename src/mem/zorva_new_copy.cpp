// The copy and the move for SSE2. If the load-time method is not 2 (SSE2), the bulk goes through
// general registers.
#include "mem/direction.h"
#include "mem/merge.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t small = 176;
using look_ahead = prefetch_source<hint::nta, 384>;

// Copies past the caches. After the loop the destination is still aligned, so the remaining whole
// registers are stored aligned.
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
  if (rest.count > bytes_of(__libvrt_largest_cache_size_half)) return stream_registers(rest);
  const std::size_t skip = misalignment(rest.source_edge(), xmm::width);
  if (skip == 0) return copy_loop<8, xmm::load_aligned, xmm::store_aligned, no_prefetch>(rest, 168);
  copy_next<1, xmm::load, xmm::store_aligned>(rest);
  merge<2, no_prefetch>(rest, skip);
}

template <class Rest>
void copy_by_words(Rest& rest) {
  if (rest.count <= bytes_of(__libvrt_largest_cache_size_half))
    return copy_loop<8, u64::load, u64::store, look_ahead>(rest, 64);
  copy_loop<8, u64::load, u64::stream, look_ahead>(rest, 64);
  _mm_sfence();
}

// Copies a block. The bytes up to the destination's next boundary are part of a register that is
// loaded first and stored last. In between, the bulk is copied from the boundary on, and the rest
// through the table. The same code serves every distance to the boundary, including 0, and is exact
// for blocks that overlap.
template <class V, auto Bulk, class Rest>
[[gnu::always_inline]] inline void copy_from_boundary(Rest& rest) {
  const std::size_t first = rest.next(V::width);
  char* const to = rest.to + first;
  const auto saved = V::load(rest.from + first);
  rest.take(rest.to_boundary(V::width));
  Bulk(rest);
  small_block<rest_by_xmm, small>(rest.action(), rest.count);
  V::store(to, saved);
}

// A block counts as large by its bytes from the destination's word boundary on.
template <way Way>
[[gnu::noinline]] void* copy_large(char* to, const char* from, std::size_t count) {
  remainder<Way> rest{to, from, count};
  if (count - rest.to_boundary(8) <= small)
    small_block<by_xmm, small + 7>(rest.action(), count);
  else if (__libvrt_mem_ops_method == 2)
    copy_from_boundary<xmm, copy_by_registers<remainder<Way>>>(rest);
  else
    copy_from_boundary<u64, copy_by_words<remainder<Way>>>(rest);
  return to;
}

void* move_large(char* to, const char* from, std::size_t count) {
  if (begins_inside(to, from, count)) return copy_large<way::backwards>(to, from, count);
  return copy_large<way::forwards>(to, from, count);
}

}  // namespace

extern "C" {

void* __zorva_new_memcpy(void* destination, const void* source, std::size_t count) {
  return copy_block<by_xmm, small, copy_large<way::forwards>>(destination, source, count);
}
[[gnu::alias("__zorva_new_memcpy")]] void* __zorva_memcpy(void*, const void*, std::size_t);

void* __zorva_new_memmove(void* destination, const void* source, std::size_t count) {
  return copy_block<by_xmm, small, move_large>(destination, source, count);
}
}
