#ifndef ZORVAC_STRING_COMPARE_H
#define ZORVAC_STRING_COMPARE_H
// The comparison. It compares aligned blocks of one string with 16 bytes of the other string, which
// are merged from two aligned blocks.
//
// The string whose start has the smaller offset in its block is the aligned one. The comparison
// begins with the blocks that hold the starts. The bytes before the starts are made equal:
//
//   aligned  |--abcdefghijklmn|opqr...             offset 2
//   other    |-----abcdefghijk|lmnopqr...          offset 5: shift 3
//   merged      |--abcdefghijklmn|
#include "string/sse2.h"

namespace zorvac::string {
namespace {

// `other` is `Shift` bytes into its block. `ignored` has ones in the lanes before the start, and
// `count` includes those lanes.
template <class Level, int Shift>
ZORVAC_INLINE int compare_blocks(const char* aligned, const char* other, block ignored,
                                 std::size_t count) {
  constexpr std::size_t rest = block_bytes - Shift;  // of other's first block
  const auto verdict = [&](std::size_t lane) ZORVAC_INLINE_LAMBDA {
    if (lane >= count) return 0;
    return static_cast<unsigned char>(aligned[lane]) - static_cast<unsigned char>(other[lane]);
  };
  block low = load(other - Shift);
  for (;; aligned += block_bytes, other += block_bytes, count -= block_bytes) {
    const block a = _mm_or_si128(load(aligned), ignored);
    block high = low;
    if constexpr (Shift != 0) {
      // The second block is loaded only if the string reaches it.
      const block start = _mm_or_si128(_mm_srli_si128(low, Shift), ignored);
      const unsigned partings = sse2::parting_lanes(a, start) & ((1u << rest) - 1);
      if (partings != 0) return verdict(lowest(partings));
      if (count <= rest) return 0;
      high = load(other + rest);
    }
    const block b = _mm_or_si128(Level::template merge<Shift>(low, high), ignored);
    if (Level::part(a, b)) return verdict(Level::parting(a, b));
    if (count <= block_bytes) return 0;
    low = Shift != 0 ? high : load(other + block_bytes);
    ignored = _mm_setzero_si128();
  }
}

// Compares the first `count` characters. The result is below, equal to or above 0 if `a` comes
// before `b`, is equal to it, or comes after it.
template <class Level>
ZORVAC_INLINE int compare(const char* a, const char* b, std::size_t count) {
  if (count == 0) return 0;
  const bool swapped = offset_in_block(a) > offset_in_block(b);
  const char* const aligned = swapped ? b : a;
  const char* const other = swapped ? a : b;
  const std::size_t skip = offset_in_block(aligned);
  // No string in one address space is longer.
  count = (count < SIZE_MAX / 2 ? count : SIZE_MAX / 2) + skip;
  const int order =
      with_shift(offset_in_block(other) - skip, [&]<int Shift>() ZORVAC_INLINE_LAMBDA {
        return compare_blocks<Level, Shift>(aligned - skip, other - skip, leading_ones(skip),
                                            count);
      });
  return swapped ? -order : order;
}

}  // namespace
}  // namespace zorvac::string
#endif
