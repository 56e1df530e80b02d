#ifndef ZORVAC_STRING_COPY_H
#define ZORVAC_STRING_COPY_H
// The copy: copies a string, up to a number of bytes, and returns the end of the copy.
//
// The search for the end loads aligned blocks. At the beginning and at the end, bytes that are
// known to belong to the string are moved by unaligned loads, so no loop moves single bytes. In
// between, a level either loads aligned blocks and stores them unaligned, or merges two aligned
// blocks (PALIGNR) and stores them aligned.
#include "core/unaligned.h"
#include "string/block.h"

namespace zorvac::string {
namespace {

template <class Word>
ZORVAC_INLINE void move_two(char* to, const char* from, std::size_t bytes) {
  const auto first = load_unaligned<Word>(from);
  const auto last = load_unaligned<Word>(from + bytes - sizeof(Word));
  store_unaligned(to, first);
  store_unaligned(to + bytes - sizeof(Word), last);
}
// Moves 1 to 32 bytes as a first and a last piece, which may overlap.
ZORVAC_INLINE void move_few(char* to, const char* from, std::size_t bytes) {
  if (bytes >= block_bytes) {
    const block first = load_anywhere(from), last = load_anywhere(from + bytes - block_bytes);
    store_anywhere(to, first);
    store_anywhere(to + bytes - block_bytes, last);
  } else if (bytes >= 8) {
    move_two<std::uint64_t>(to, from, bytes);
  } else if (bytes >= 4) {
    move_two<std::uint32_t>(to, from, bytes);
  } else if (bytes >= 2) {
    move_two<std::uint16_t>(to, from, bytes);
  } else {
    *to = *from;
  }
}

// What a copy does with a block of which it may copy at most `room` bytes; `room` is at least 1.
struct ending {
  bool here;        // the copy ends in this block
  bool terminated;  // it ends with the terminating zero
  std::size_t bytes;
};
template <class Level>
ZORVAC_INLINE ending ending_in(block b, std::size_t room) {
  if (Level::has_end(b)) {
    const std::size_t through_zero = Level::end_of(b) + 1;
    return through_zero <= room ? ending{true, true, through_zero} : ending{true, false, room};
  }
  return {room <= block_bytes, false, room};
}

// Continues a copy at `from`, which is `Shift` bytes into its block. The rest of that block holds
// no end, and `count` is more than that rest. The last move copies the 16 bytes before the end of
// the copy. Some of them may lie before `from`; the caller has copied those already.
//
//   source       |....from......|  next block  |  ...
//   destination  to: 16 bytes: from ... and Shift bytes of the next block
template <class Level, int Shift>
ZORVAC_INLINE char* copy_blocks(char* to, const char* from, std::size_t count) {
  constexpr std::size_t rest = block_bytes - Shift;
  block low = load(from - Shift);
  for (;; to += block_bytes, from += block_bytes, count -= block_bytes) {
    const block high = load(from + rest);
    const ending end = ending_in<Level>(high, count - rest);
    if (end.here) {
      const std::size_t bytes = rest + end.bytes;
      if (bytes > block_bytes) store_anywhere(to, load_anywhere(from));
      store_anywhere(to + bytes - block_bytes, load_anywhere(from + bytes - block_bytes));
      return to + bytes - (end.terminated ? 1 : 0);
    }
    store_anywhere(to, Level::template merge<Shift>(low, high));
    low = high;
  }
}

// Copies the string with its terminating zero, but at most `count` bytes. Returns the address of
// the zero in the copy, or the end of the copy if it has no zero.
template <class Level>
ZORVAC_INLINE char* copy(char* to, const char* from, std::size_t count) {
  if (count == 0) return to;
  const std::size_t skip = offset_in_block(from), rest = block_bytes - skip;
  const unsigned ends = zero_lanes(load(from - skip)) >> skip;
  if (ends != 0 || count <= rest) {
    const std::size_t through_zero = ends != 0 ? lowest(ends) + 1 : unlimited;
    const std::size_t bytes = through_zero < count ? through_zero : count;
    move_few(to, from, bytes);
    return to + bytes - (through_zero <= count ? 1 : 0);
  }
  const ending end = ending_in<Level>(load(from + rest), count - rest);
  if (end.here) {
    move_few(to, from, rest + end.bytes);
    return to + rest + end.bytes - (end.terminated ? 1 : 0);
  }
  // There is no end within rest + 16 bytes. Copy 16 bytes now, and continue from a place in them.
  store_anywhere(to, load_anywhere(from));
  if constexpr (Level::realigns) {
    const std::size_t step = block_bytes - offset_in_block(to);
    return with_shift((skip + step) % block_bytes, [&]<int Shift>() ZORVAC_INLINE_LAMBDA {
      return copy_blocks<Level, Shift>(to + step, from + step, count - step);
    });
  } else {
    return copy_blocks<Level, 0>(to + rest, from + rest, count - rest);
  }
}

// Fills up to `end` with zeros, as the members that pad require.
ZORVAC_INLINE void fill_with_zeros(char* to, const char* end) {
  const block zeros = _mm_setzero_si128();
  for (; end - to >= static_cast<std::ptrdiff_t>(block_bytes); to += block_bytes)
    store_anywhere(to, zeros);
  for (; to != end; ++to) *to = 0;
}

// Writes exactly `count` bytes: the string, and zeros after it. Returns what copy() returns.
template <class Level>
ZORVAC_INLINE char* copy_padded(char* to, const char* from, std::size_t count) {
  char* const end = copy<Level>(to, from, count);
  fill_with_zeros(end, to + count);
  return end;
}

}  // namespace
}  // namespace zorvac::string
#endif
