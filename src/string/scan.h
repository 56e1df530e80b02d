#ifndef ZORVAC_STRING_SCAN_H
#define ZORVAC_STRING_SCAN_H
// The scan: looks through a string, block by block, for its end or for a character.
#include "string/block.h"

namespace zorvac::string {
namespace {

inline constexpr std::size_t group_bytes = 4 * block_bytes;

// Continues a scan after the block `at`, which has been looked at already. Up to the next boundary
// of 64 bytes the level looks at each block; from there on four at a time are folded into one, in
// which the least of four bytes stands for all, and the level is asked only where that is zero.
// A group of four is aligned to its size and so lies within one page.
template <class Target>
ZORVAC_INLINE const char* scan_after(const char* at, const Target& target) {
  do {
    at += block_bytes;
    const block b = load(at);
    if (target.stops(b)) return target.result(at, b);
  } while (reinterpret_cast<std::uintptr_t>(at) % group_bytes != group_bytes - block_bytes);
  for (at += block_bytes;; at += group_bytes) {
    const auto nth = [at](std::size_t i)
                         ZORVAC_INLINE_LAMBDA { return load(at + i * block_bytes); };
    block least = target.zero_at_stops(nth(0));  // one after the other: few registers
    least = _mm_min_epu8(least, target.zero_at_stops(nth(1)));
    least = _mm_min_epu8(least, target.zero_at_stops(nth(2)));
    least = _mm_min_epu8(least, target.zero_at_stops(nth(3)));
    if (zero_lanes(least) == 0) continue;
    for (; !target.stops(load(at)); at += block_bytes) {
    }
    return target.result(at, load(at));
  }
}

// The terminating zero of a string.
template <class Level>
ZORVAC_INLINE const char* find_end(const char* string) {
  const std::size_t skip = offset_in_block(string);
  if (const unsigned ends = zero_lanes(load(string - skip)) >> skip) return string + lowest(ends);
  return scan_after(string - skip, typename Level::end_target{});
}

// The length of a string of which no more than `limit` bytes may be looked at.
template <class Level>
ZORVAC_INLINE std::size_t bounded_length(const char* string, std::size_t limit) {
  if (limit == 0) return 0;
  const auto bounded = [limit](std::size_t length) { return length < limit ? length : limit; };
  const std::size_t skip = offset_in_block(string);
  if (const unsigned ends = zero_lanes(load(string - skip)) >> skip) return bounded(lowest(ends));
  for (std::size_t seen = block_bytes - skip; seen < limit; seen += block_bytes) {
    const block b = load(string + seen);
    if (Level::has_end(b)) return bounded(seen + Level::end_of(b));
  }
  return limit;
}

// The last place of a character in a string, its terminating zero included, or a null pointer.
template <class Level>
ZORVAC_INLINE const char* find_last(const char* string, char character) {
  const typename Level::equal_to wanted(character);
  const char* last = nullptr;
  const char* at = block_of(string);
  unsigned in_string = 0xffffu << offset_in_block(string);
  for (block b = first_block(string);; b = load(at)) {
    const unsigned ends = zero_lanes(b);
    if (ends != 0) in_string &= ends ^ (ends - 1);  // up to the first end
    if (const unsigned hits = wanted.in(b)&in_string) last = at + highest(hits);
    if (ends != 0) return last;
    at += block_bytes;
    in_string = 0xffff;
  }
}

}  // namespace
}  // namespace zorvac::string
#endif
