// The copy and the move for SSE4.2 processors. A block that the caches cannot hold is split. The
// part that is copied first is stored past the caches. The part that is copied last goes through
// them, because it is likely to be used next.
//
//     forwards    |--------- streamed ---------|---- through the caches ----|
//     backwards   |---- through the caches ----|--------- streamed ---------|
#include "mem/ssse3_member.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t least_streamed = 4096;  // up to here, streaming is not worth its fence

// Prefetches ahead of the source and of the destination.
template <hint Hint, std::size_t... Distance>
struct prefetch_both {
  template <class Rest>
  [[gnu::always_inline]] static void run(const Rest& rest) {
    prefetch_source<Hint, Distance...>::run(rest);
    (prefetch<Hint>(rest.ahead(rest.to + rest.next(0), Distance)), ...);
  }
};

// The load fence completes all loads of an iteration before its stores.
template <std::size_t... I>
[[gnu::always_inline]] inline void stream_registers(char* to, const char* from,
                                                    std::index_sequence<I...>) {
  const __m128i block[] = {xmm::load(from + I * xmm::width)...};
  _mm_lfence();
  (xmm::stream(to + I * xmm::width, block[I]), ...);
}

template <class Rest>
void stream(Rest& rest, std::size_t count) {
  for (; count >= iteration; count -= iteration) {
    prefetch_source<hint::t0, 512, 768>::run(rest);
    const std::size_t at = rest.next(iteration);
    stream_registers(rest.to + at, rest.from + at, std::make_index_sequence<registers>());
    rest.take(iteration);
  }
  _mm_sfence();
}

// How many bytes of a large block are stored past the caches.
std::size_t part_to_stream(std::size_t count) {
  const std::size_t half = bytes_of(__libvrt_largest_cache_size_half);
  const std::size_t cached = count < half ? count : half, rest = count - cached;
  if (rest <= least_streamed) return 0;
  return rest > 8 * cached ? count : rest;
}

struct member {
  static constexpr std::size_t small = 143;

  // Whether a block is large enough for a split to be considered.
  template <class Rest>
  static bool is_large(const Rest& rest, std::size_t aligned_count) {
    if (Rest::direction == way::backwards)
      return aligned_count > 2 * bytes_of(__libvrt_data_cache_size);
    if (misalignment(rest.source_edge(), xmm::width) != 0)
      return aligned_count >= bytes_of(__libvrt_data_cache_size);
    return aligned_count + aligned_count / 256 >= bytes_of(__libvrt_data_cache_size_half);
  }
  template <class Rest>
  static void copy_large_bulk(Rest& rest) {
    if (const std::size_t streamed = part_to_stream(rest.count)) stream(rest, streamed);
    copy_through_caches<registers, prefetch_both<hint::nta, 448, 640>>(rest);
  }
};

}  // namespace

extern "C" {

void* __zorva_ssse3_rep_memcpy(void* destination, const void* source, std::size_t count) {
  return copy_by_member<member, of_copy>(destination, source, count);
}
void* __zorva_ssse3_rep_memmove(void* destination, const void* source, std::size_t count) {
  return copy_by_member<member, of_move>(destination, source, count);
}
}
