#ifndef ZORVAC_STRING_COPY_H
#define ZORVAC_STRING_COPY_H
// The copy: copies a string, up to a number of bytes, and returns the end of the copy.
//
// The search for the end loads aligned blocks, four at a time if they lie within one page, and
// stores them unaligned. At the beginning and at the end, bytes that are known to belong to the
// string are moved by unaligned loads. They may be moved twice, so no loop moves single bytes.
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

template <class Word>
ZORVAC_INLINE void clear_two(char* to, std::size_t bytes) {
  store_unaligned(to, Word{0});
  store_unaligned(to + bytes - sizeof(Word), Word{0});
}
// Clears 0 to 15 bytes in the same way.
ZORVAC_INLINE void clear_few(char* to, std::size_t bytes) {
  if (bytes >= 8) {
    clear_two<std::uint64_t>(to, bytes);
  } else if (bytes >= 4) {
    clear_two<std::uint32_t>(to, bytes);
  } else if (bytes >= 2) {
    clear_two<std::uint16_t>(to, bytes);
  } else if (bytes != 0) {
    *to = 0;
  }
}

// The end of a copy of at most `room` bytes. The room is at least 1.
struct ending {
  bool terminated;  // by the terminating zero
  std::size_t bytes;
};
ZORVAC_INLINE ending ending_after(std::size_t through_zero, std::size_t room) {
  return through_zero <= room ? ending{true, through_zero} : ending{false, room};
}
// The same, where the zeros of the next bytes are `ends`.
ZORVAC_INLINE ending ending_at(std::uint64_t ends, std::size_t room) {
  return ending_after(ends != 0 ? lowest(ends) + 1 : unlimited, room);
}
// The address of the zero in the copy, or the end of the copy if it has no zero.
ZORVAC_INLINE char* end_of_copy(char* to, ending end) {
  return to + end.bytes - (end.terminated ? 1 : 0);
}

// Finishes a copy by at most `Blocks` blocks. A block that would exceed the end becomes the last 16
// bytes of the copy instead, so that no branch depends on the number of bytes. Some of these may
// lie before `from`; the caller has copied those already.
template <std::ptrdiff_t Blocks>
ZORVAC_INLINE char* finish(char* to, const char* from, ending end) {
  constexpr auto width = static_cast<std::ptrdiff_t>(block_bytes);
  const std::ptrdiff_t last = static_cast<std::ptrdiff_t>(end.bytes) - width;
#pragma GCC unroll 4
  for (std::ptrdiff_t place = 0; place != Blocks * width; place += width) {
    const std::ptrdiff_t here = place < last ? place : last;
    store_anywhere(to + here, load_anywhere(from + here));
  }
  return end_of_copy(to, end);
}

// Four blocks of the source.
struct four_blocks {
  block blocks[4];
  ZORVAC_INLINE explicit four_blocks(const char* p)
      : blocks{nth(p, 0), nth(p, 1), nth(p, 2), nth(p, 3)} {}
  ZORVAC_INLINE block operator()(std::size_t n) const { return blocks[n]; }
  ZORVAC_INLINE void store(char* p) const {
#pragma GCC unroll 4
    for (std::size_t n = 0; n != 4; ++n) store_anywhere(p + n * block_bytes, blocks[n]);
  }
};

// Moves a number of bytes, at least 1.
ZORVAC_INLINE void move(char* to, const char* from, std::size_t bytes) {
  if (bytes <= 2 * block_bytes) return move_few(to, from, bytes);
  for (; bytes > group_bytes; from += group_bytes, to += group_bytes, bytes -= group_bytes) {
#pragma GCC unroll 4
    for (std::size_t at = 0; at != group_bytes; at += block_bytes)
      store_anywhere(to + at, load_anywhere(from + at));
  }
  finish<4>(to, from, {false, bytes});
}

// Continues a copy at an aligned block, after at least 15 bytes. Most strings end soon, so the
// first four blocks are searched for the place of the end at once; later ones take one branch. Near
// the end of a page it goes on by single blocks.
ZORVAC_INLINE char* copy_on(char* to, const char* from, std::size_t count) {
  const auto advance = [&](std::size_t bytes)
                           ZORVAC_INLINE_LAMBDA { from += bytes, to += bytes, count -= bytes; };
  if (page_holds(from, group_bytes)) {
    const std::uint64_t ends = zero_lanes_of_four(four_blocks(from));
    if (ends != 0 || count <= group_bytes) {
      const ending end = ending_at(ends, count);
      return end.bytes <= 2 * block_bytes ? finish<2>(to, from, end) : finish<4>(to, from, end);
    }
    __asm__("" : "+r"(from));  // loads them again, or six vector registers would not suffice
    four_blocks(from).store(to);
    advance(group_bytes);
  }
  for (;;) {
    if (page_holds(from, group_bytes)) {
      const four_blocks four(from);
      const unsigned any = lanes_with_zero(four);
      if (any != 0 || count <= group_bytes) {
        const std::size_t bytes = any != 0 ? first_zero(any, four) + 1 : unlimited;
        return finish<4>(to, from, ending_after(bytes, count));
      }
      four.store(to);
      advance(group_bytes);
    } else {
      const block b = load(from);
      const unsigned ends = zero_lanes(b);
      if (ends != 0 || count <= block_bytes) return finish<1>(to, from, ending_at(ends, count));
      store_anywhere(to, b);
      advance(block_bytes);
    }
  }
}

// Copies the string with its terminating zero, but at most `count` bytes. Returns the address of
// the zero in the copy, or the end of the copy if it has no zero.
ZORVAC_INLINE char* copy(char* to, const char* from, std::size_t count) {
  if (count == 0) return to;
  const std::size_t skip = offset_in_block(from), rest = block_bytes - skip;
  unsigned ends = zero_lanes(load(from - skip)) >> skip;
  if (ends == 0 && count > rest) {
    const block next = load(from + rest);
    ends = zero_lanes(next);
    if (ends == 0 && count > rest + block_bytes) {
      store_anywhere(to, load_anywhere(from));
      store_anywhere(to + rest, next);
      const std::size_t done = rest + block_bytes;
      return copy_on(to + done, from + done, count - done);
    }
    ends <<= rest % 32;  // at most 16, which an analyser cannot know
  }
  const ending end = ending_at(ends, count);
  move_few(to, from, end.bytes);
  return end_of_copy(to, end);
}

// Fills up to `end` with zeros, as the members that pad require.
ZORVAC_INLINE void fill_with_zeros(char* to, char* end) {
  const auto bytes = static_cast<std::size_t>(end - to);
  if (bytes < block_bytes) return clear_few(to, bytes);
  for (; end - to > static_cast<std::ptrdiff_t>(block_bytes); to += block_bytes)
    store_anywhere(to, _mm_setzero_si128());
  store_anywhere(end - block_bytes, _mm_setzero_si128());
}

// Writes exactly `count` bytes: the string, and zeros after it. Returns what copy() returns.
ZORVAC_INLINE char* copy_padded(char* to, const char* from, std::size_t count) {
  char* const end = copy(to, from, count);
  fill_with_zeros(end, to + count);
  return end;
}

}  // namespace
}  // namespace zorvac::string
#endif
