#ifndef ZORVAC_STRING_SCAN_H
#define ZORVAC_STRING_SCAN_H
// The scan: searches a string, block by block, for its end or for a character.
#include "string/block.h"

namespace zorvac::string {
namespace {

// Four blocks, aligned to 64 bytes. Like a block, a group lies within one page.
inline constexpr std::size_t group_bytes = 4 * block_bytes;
ZORVAC_INLINE std::size_t offset_in_group(const char* p) {
  return reinterpret_cast<std::uintptr_t>(p) % group_bytes;
}
ZORVAC_INLINE bool page_holds_group(const char* p) {
  return reinterpret_cast<std::uintptr_t>(p) % 4096 <= 4096 - group_bytes;
}
ZORVAC_INLINE block nth(const char* group, std::size_t n) { return load(group + n * block_bytes); }

// The lanes of a group where a scan stops, bit i for byte i. One branch on all of them costs less
// than four branches, one of which would be mispredicted.
template <class Target>
ZORVAC_INLINE std::uint64_t stops_in_group(const char* group, const Target& target) {
  const auto stops = [&](std::size_t n) ZORVAC_INLINE_LAMBDA {
    return std::uint64_t{zero_lanes(target.zero_at_stops(nth(group, n)))};
  };
  return (stops(3) << 16 | stops(2)) << 32 | (stops(1) << 16 | stops(0));
}
// Whether a scan stops anywhere in a group. The minimum of four bytes is zero if one of them is.
template <class Target>
ZORVAC_INLINE bool stops_anywhere(const char* group, const Target& target) {
  block least = target.zero_at_stops(nth(group, 0));  // one after the other: few registers
  for (std::size_t i = 1; i != 4; ++i)
    least = _mm_min_epu8(least, target.zero_at_stops(nth(group, i)));
  return zero_lanes(least) != 0;
}

// Continues a scan after the block `at`, which has already been examined. Most strings end soon, so
// the level examines the next two blocks one by one. Then it examines four blocks at once, from the
// current position if these lie within one page, and after them whole groups.
template <class Target>
ZORVAC_INLINE const char* scan_after(const char* at, const Target& target) {
  for (int i = 0; i < 2; ++i) {
    at += block_bytes;
    const block b = load(at);
    if (target.stops(b)) return target.result(at, b);
  }
  at += block_bytes;
  const char* const four = page_holds_group(at) ? at : at - offset_in_group(at);
  if (const std::uint64_t stops = stops_in_group(four, target) >> (at - four))
    return target.result(at + lowest(stops));
  const char* group = four - offset_in_group(four);
  while (!stops_anywhere(group += group_bytes, target) &&
         !stops_anywhere(group += group_bytes, target)) {
  }
  // Loads the group again. Keeping it would need registers that must be saved first.
  __asm__("" : "+r"(group));
  return target.result(group + lowest(stops_in_group(group, target)));
}

// The terminating zero of a string.
template <class Level>
ZORVAC_INLINE const char* find_end(const char* string) {
  const std::size_t skip = offset_in_block(string);
  if (const unsigned ends = zero_lanes(load(string - skip)) >> skip) return string + lowest(ends);
  return scan_after(string - skip, typename Level::end_target{});
}

// The length of a string, or `limit` if none of its first `limit` bytes is the end.
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

// The last occurrence of a character in a string, or a null pointer. The terminating zero counts as
// a character.
template <class Level>
ZORVAC_INLINE const char* find_last(const char* string, char character) {
  const typename Level::equal_to wanted(character);
  const char* last = nullptr;
  const char* at = block_of(string);
  unsigned in_string = 0xffffu << offset_in_block(string);
  for (block b = first_block(string);; b = load(at)) {
    const unsigned ends = zero_lanes(b);
    if (ends != 0) in_string &= ends ^ (ends - 1);  // up to the first end
    const unsigned hits = in_string & wanted.in(b);
    if (hits != 0) last = at + highest(hits);
    if (ends != 0) return last;
    at += block_bytes;
    in_string = 0xffff;
  }
}

}  // namespace
}  // namespace zorvac::string
#endif
