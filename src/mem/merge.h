#ifndef ZORVAC_MEM_MERGE_H
#define ZORVAC_MEM_MERGE_H
// Copies from a misaligned source to an aligned destination, with aligned accesses only. The source
// is read in aligned 16-byte blocks, and each block of the destination is merged from two
// neighbouring source blocks.
//
//     source blocks       |.....abcdefghijk|lmnopqrstuvwxyzA|BCD...      skip = 5
//                               '---------+-----'
//     destination blocks  |abcdefghijklmnop|qrstuvwxyzABCDEF|...
//
// The shift is an immediate operand, so each of the 15 misalignments has a loop of its own. The
// block that two iterations share stays in a register. A source block is read only if a byte of it
// is needed. It is aligned, so it lies within a page that holds bytes of the source.
#include "mem/bulk.h"

namespace zorvac::mem {
namespace {

// Merges as many blocks as there are indices. `carried` is the source block that the previous
// iteration loaded; on return, it is the one that the next iteration shares.
template <int Skip, way Way, std::size_t... I>
[[gnu::always_inline]] inline void merge_blocks(char* to, const char* from, __m128i& carried,
                                                std::index_sequence<I...>) {
  constexpr std::size_t count = sizeof...(I), shared = Way == way::forwards ? 0 : count;
  const auto source = [&](std::size_t i) __attribute__((always_inline)) {
    return i == shared ? carried : xmm::load_aligned(from - Skip + i * xmm::width);
  };
  const __m128i block[] = {source(I)..., source(count)};
  (xmm::store_aligned(to + I * xmm::width, xmm::merge<Skip>(block[I], block[I + 1])), ...);
  carried = block[count - shared];
}

template <int Skip, std::size_t Count, class Prefetch, class Rest>
[[gnu::always_inline]] inline void merge_loop(Rest& rest) {
  constexpr std::size_t bytes = Count * xmm::width;
  if (rest.count < bytes) return;
  __m128i carried = xmm::load_aligned(rest.source_edge() - Skip);
  do {
    Prefetch::run(rest);
    const std::size_t at = rest.next(bytes);
    merge_blocks<Skip, Rest::direction>(rest.to + at, rest.from + at, carried,
                                        std::make_index_sequence<Count>());
    rest.take(bytes);
  } while (rest.count >= bytes);
}

// Copies `Count` blocks per iteration while that many remain. The source is misaligned by `skip`, 1
// to 15 bytes.
template <std::size_t Count, class Prefetch, class Rest>
[[gnu::always_inline]] inline void merge(Rest& rest, std::size_t skip) {
  switch (skip) {
#define ZORVAC_SKIP(k) \
  case k:              \
    return merge_loop<k, Count, Prefetch>(rest);
    ZORVAC_SKIP(1)
    ZORVAC_SKIP(2)
    ZORVAC_SKIP(3)
    ZORVAC_SKIP(4)
    ZORVAC_SKIP(5)
    ZORVAC_SKIP(6)
    ZORVAC_SKIP(7)
    ZORVAC_SKIP(8)
    ZORVAC_SKIP(9)
    ZORVAC_SKIP(10)
    ZORVAC_SKIP(11)
    ZORVAC_SKIP(12)
    ZORVAC_SKIP(13)
    ZORVAC_SKIP(14)
    ZORVAC_SKIP(15)
#undef ZORVAC_SKIP
    default:
      __builtin_unreachable();
  }
}

// Copies `Count` blocks per iteration while that many remain, by merging if the source is
// misaligned.
template <std::size_t Count, class Prefetch, class Rest>
void copy_through_caches(Rest& rest) {
  const std::size_t skip = misalignment(rest.source_edge(), xmm::width);
  if (skip != 0) return merge<Count, Prefetch>(rest, skip);
  copy_loop<Count, xmm::load_aligned, xmm::store_aligned, Prefetch>(rest, Count * xmm::width);
}

}  // namespace
}  // namespace zorvac::mem
#endif
