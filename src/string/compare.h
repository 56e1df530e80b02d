#ifndef ZORVAC_STRING_COMPARE_H
#define ZORVAC_STRING_COMPARE_H
// The comparison. It loads 16 bytes of each string, or four times 16, wherever they begin. It does
// so only if these bytes lie within one page, because the strings may end at any of them. Before
// the end of a page of either string it compares at most 15 single bytes.
#include "string/block.h"

namespace zorvac::string {
namespace {

// Compares the first `count` characters. The result is below, equal to or above 0 if `a` comes
// before `b`, is equal to it, or comes after it.
ZORVAC_INLINE int compare(const char* a, const char* b, std::size_t count) {
  if (count == 0) return 0;
  // Holds a zero in the lanes where the strings part: where they differ or both end.
  const auto zero_at_partings = [&](std::size_t n) ZORVAC_INLINE_LAMBDA {
    const block of_a = load_anywhere(a + n * block_bytes);
    return _mm_min_epu8(of_a, _mm_cmpeq_epi8(of_a, load_anywhere(b + n * block_bytes)));
  };
  const auto verdict = [&](std::size_t lane) ZORVAC_INLINE_LAMBDA {
    if (lane >= count) return 0;
    return static_cast<unsigned char>(a[lane]) - static_cast<unsigned char>(b[lane]);
  };
  const auto pages_hold = [&](std::size_t bytes) ZORVAC_INLINE_LAMBDA {
    return page_holds(a, bytes) && page_holds(b, bytes);
  };
  // Many strings differ near their start, so the first step takes one block.
  for (std::size_t most = block_bytes, step;; most = group_bytes) {
    if (most == group_bytes && pages_hold(group_bytes)) {
      step = group_bytes;
      if (const unsigned any = lanes_with_zero(zero_at_partings))
        return verdict(first_zero(any, zero_at_partings));
    } else if (pages_hold(block_bytes)) {
      step = block_bytes;
      if (const unsigned parting = zero_lanes(zero_at_partings(0))) return verdict(lowest(parting));
    } else {
      step = 1;
      if (*a != *b || *a == 0) return verdict(0);
    }
    if (count <= step) return 0;
    a += step, b += step, count -= step;
  }
}

}  // namespace
}  // namespace zorvac::string
#endif
