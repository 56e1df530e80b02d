#ifndef ZORVAC_STRING_SCAN_H
#define ZORVAC_STRING_SCAN_H
// The scan: searches a string for its end or for a character, four blocks at a time.
#include "string/block.h"

namespace zorvac::string {
namespace {

// What a scan searches for. `zero_at_stops` holds a zero where the scan stops, `result` is the
// result of a scan that stops there first, and `singles` is how many blocks are examined one by one
// before four at once. With a character to compare, four blocks take longer than one. A second one
// was faster for some lengths that repeat (32 and 100 bytes, not 64 and 256), and takes a third
// more time where lengths cannot be predicted.
struct end_target {
  static constexpr int singles = 0;
  ZORVAC_INLINE static block zero_at_stops(block b) { return b; }
  ZORVAC_INLINE static const char* result(const char* stop) { return stop; }
};
struct character_target {
  static constexpr int singles = 1;
  block repeated;  // the character, 16 times
  ZORVAC_INLINE block zero_at_stops(block b) const {
    return _mm_min_epu8(b, _mm_xor_si128(b, repeated));
  }
  // The first stop is the character, or the end before it.
  ZORVAC_INLINE const char* result(const char* stop) const {
    return *stop == static_cast<char>(_mm_cvtsi128_si32(repeated)) ? stop : nullptr;
  }
};

// The blocks of a group, with a zero where a scan stops.
template <class Target>
ZORVAC_INLINE auto stops_of(const Target& target, const char* group) {
  return [&target, group](std::size_t n)
             ZORVAC_INLINE_LAMBDA { return target.zero_at_stops(nth(group, n)); };
}

// A scan without a limit.
inline constexpr auto endless = [](const char*) { return false; };

// Continues a scan after the block `at`, which has already been examined. It searches the four
// blocks from the current position for the place of a stop at once, if they lie within one page:
// then the number of bytes searched depends little on where the string lies. Otherwise it searches
// the rest of the group. The groups after that take one branch each. The scan also ends at the
// first address that it reaches and that is `over`.
template <class Target, class Over>
ZORVAC_INLINE const char* scan_after(const char* at, const Target& target, Over over) {
  at += block_bytes;
  for (int i = 0; i < Target::singles; ++i, at += block_bytes) {
    if (over(at)) return at;
    if (const unsigned stops = zero_lanes(target.zero_at_stops(load(at))))
      return target.result(at + lowest(stops));
  }
  if (over(at)) return at;
  const char* group = at - offset_in_group(at);
  if (page_holds(at, group_bytes)) {
    if (const std::uint64_t stops = zero_lanes_of_four(stops_of(target, at)))
      return target.result(at + lowest(stops));
  } else if (const std::uint64_t stops =
                 zero_lanes_of_four(stops_of(target, group)) >> (at - group)) {
    return target.result(at + lowest(stops));
  }
  unsigned any;
  do {
    if (over(group += group_bytes)) return group;
    if ((any = lanes_with_zero(stops_of(target, group))) != 0) break;
    if (over(group += group_bytes)) return group;
  } while ((any = lanes_with_zero(stops_of(target, group))) == 0);
  // Loads the group again. Keeping it would need registers that must be saved first.
  __asm__("" : "+r"(group));
  return target.result(group + first_zero(any, stops_of(target, group)));
}

// The terminating zero of a string.
ZORVAC_INLINE const char* find_end(const char* string) {
  const std::size_t skip = offset_in_block(string);
  if (const unsigned ends = zero_lanes(load(string - skip)) >> skip) return string + lowest(ends);
  return scan_after(string - skip, end_target{}, endless);
}

// The length of a string, or `limit` if none of its first `limit` bytes is the end.
ZORVAC_INLINE std::size_t bounded_length(const char* string, std::size_t limit) {
  if (limit == 0) return 0;
  const auto bounded = [limit](std::size_t length) { return length < limit ? length : limit; };
  const std::size_t skip = offset_in_block(string);
  if (const unsigned ends = zero_lanes(load(string - skip)) >> skip) return bounded(lowest(ends));
  const auto over = [=](const char* at) ZORVAC_INLINE_LAMBDA {
    return static_cast<std::size_t>(at - string) >= limit;
  };
  const char* const end = scan_after(string - skip, end_target{}, over);
  return bounded(static_cast<std::size_t>(end - string));
}

// The last occurrence of a character in a string, or a null pointer. The terminating zero counts as
// a character.
ZORVAC_INLINE const char* find_last(const char* string, block repeated) {
  const char* at = block_of(string);
  const char* last = nullptr;
  // Notes the last of the hits up to the first end. Returns whether there is an end.
  const auto ends_here = [&](std::uint64_t ends, std::uint64_t hits) ZORVAC_INLINE_LAMBDA {
    if (ends != 0) hits &= ends ^ (ends - 1);
    if (hits != 0) last = at + highest(hits);
    return ends != 0;
  };
  const block first = first_block(string);
  const unsigned in_string = 0xffffu << offset_in_block(string);
  if (ends_here(zero_lanes(first), equal_lanes(first, repeated) & in_string)) return last;
  at += block_bytes;
  for (;;) {
    if (!page_holds(at, group_bytes)) {
      const block b = load(at);
      if (ends_here(zero_lanes(b), equal_lanes(b, repeated))) return last;
      at += block_bytes;
      continue;
    }
    const std::uint64_t ends = zero_lanes_of_four(stops_of(end_target{}, at));
    __asm__("" : "+r"(at));  // loads the group again, or six vector registers would not suffice
    const auto hits_in = [&](std::size_t n)
                             ZORVAC_INLINE_LAMBDA { return equal_lanes(nth(at, n), repeated); };
    const std::uint64_t hits = join(hits_in(3), hits_in(2), hits_in(1), hits_in(0));
    if (ends_here(ends, hits)) return last;
    do at += group_bytes;
    while (page_holds(at, group_bytes) &&
           lanes_with_zero(stops_of(character_target{repeated}, at)) == 0);
  }
}

}  // namespace
}  // namespace zorvac::string
#endif
