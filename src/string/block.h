#ifndef ZORVAC_STRING_BLOCK_H
#define ZORVAC_STRING_BLOCK_H
// The 16-byte block, which is the unit in which the string routines read memory, the group of four
// blocks, and the operations on them that every x86-64 processor has. A search for the end of a
// string loads whole aligned blocks, or groups that lie within one page. So no load leaves a page
// that holds a byte of the string, and reading before the start or past the end cannot fault.
//
// Everything is inlined into every routine. These headers are compiled at several instruction-set
// levels, and a routine that preserves vector registers must not call one that does not.
#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

#include "core/inline.h"
#include "zorvac/string.h"  // so that a source includes only what its routine is made of

namespace zorvac::string {
namespace {

using block = __m128i;
inline constexpr std::size_t block_bytes = sizeof(block);
inline constexpr std::size_t unlimited = SIZE_MAX;

ZORVAC_INLINE std::size_t offset_in_block(const char* p) {
  return reinterpret_cast<std::uintptr_t>(p) % block_bytes;
}
ZORVAC_INLINE const char* block_of(const char* p) { return p - offset_in_block(p); }

ZORVAC_INLINE block load(const char* aligned) {
  return _mm_load_si128(reinterpret_cast<const block*>(aligned));
}
// For bytes that are known to belong to a string or a table.
ZORVAC_INLINE block load_anywhere(const char* p) {
  return _mm_loadu_si128(reinterpret_cast<const block*>(p));
}
ZORVAC_INLINE void store_anywhere(char* p, block b) {
  _mm_storeu_si128(reinterpret_cast<block*>(p), b);
}

// Sets of lanes are numbers: bit i is byte i of the block.
ZORVAC_INLINE unsigned lanes(block b) { return static_cast<unsigned>(_mm_movemask_epi8(b)); }
ZORVAC_INLINE unsigned equal_lanes(block a, block b) { return lanes(_mm_cmpeq_epi8(a, b)); }
ZORVAC_INLINE unsigned zero_lanes(block b) { return equal_lanes(b, _mm_setzero_si128()); }
ZORVAC_INLINE unsigned lowest(std::uint64_t set) {  // of a set that is not empty
  return static_cast<unsigned>(__builtin_ctzll(set));
}
ZORVAC_INLINE unsigned highest(std::uint64_t set) {
  return 63 - static_cast<unsigned>(__builtin_clzll(set));
}

// Ones in the first `count` lanes, 0 to 15. They are ORed into the first block of a string, so that
// a zero before the start of the string does not look like its end.
alignas(16) inline constexpr unsigned char ones_then_zeros[2 * block_bytes] = {
    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
ZORVAC_INLINE block leading_ones(std::size_t count) {
  return load_anywhere(reinterpret_cast<const char*>(ones_then_zeros) + block_bytes - count);
}
ZORVAC_INLINE block first_block(const char* string) {
  return _mm_or_si128(load(block_of(string)), leading_ones(offset_in_block(string)));
}

inline constexpr std::size_t page_bytes = 4096;
ZORVAC_INLINE bool page_holds(const char* p, std::size_t bytes) {
  return reinterpret_cast<std::uintptr_t>(p) % page_bytes <= page_bytes - bytes;
}

// Four blocks. In the functions below, `of(n)` computes a block from block n.
inline constexpr std::size_t group_bytes = 4 * block_bytes;
ZORVAC_INLINE std::size_t offset_in_group(const char* p) {
  return reinterpret_cast<std::uintptr_t>(p) % group_bytes;
}
ZORVAC_INLINE block nth(const char* group, std::size_t n) { return load(group + n * block_bytes); }

// Sixty-four lanes, made of four sets of sixteen: bit i is byte i of a group.
ZORVAC_INLINE std::uint64_t join(unsigned s3, unsigned s2, unsigned s1, unsigned s0) {
  return (std::uint64_t{s3} << 16 | s2) << 32 | (std::uint64_t{s1} << 16 | s0);
}
// The lanes of four blocks that hold a zero.
template <class Of>
ZORVAC_INLINE std::uint64_t zero_lanes_of_four(Of of) {
  unsigned s0 = zero_lanes(of(0)), s1 = zero_lanes(of(1));
  __asm__("" : "+r"(s0), "+r"(s1));  // before the others, so that six vector registers suffice
  return join(zero_lanes(of(3)), zero_lanes(of(2)), s1, s0);
}
// The lanes in which any of four blocks holds a zero: the minimum of four bytes is zero if one of
// them is. One branch on it costs less than four, one of which would be mispredicted.
template <class Of>
ZORVAC_INLINE unsigned lanes_with_zero(Of of) {
  block least = of(0);  // one after the other: few registers
#pragma GCC unroll 3
  for (std::size_t n = 1; n != 4; ++n) least = _mm_min_epu8(least, of(n));
  return zero_lanes(least);
}
// The place of the first zero in four blocks, of which `any` is the result of lanes_with_zero(). If
// it is in the last block, the others hold none, and `any` is the set of that block.
template <class Of>
ZORVAC_INLINE unsigned first_zero(unsigned any, Of of) {
  return lowest(join(any, zero_lanes(of(2)), zero_lanes(of(1)), zero_lanes(of(0))));
}

}  // namespace
}  // namespace zorvac::string
#endif
