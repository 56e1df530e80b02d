#ifndef ZORVAC_STRING_BLOCK_H
#define ZORVAC_STRING_BLOCK_H
// The 16-byte block, which is the unit in which the string routines read memory, and the operations
// on it that every x86-64 processor has. A search for the end of a string loads whole aligned
// blocks. Such a load stays within one page, so reading before the start or past the end cannot
// fault.
//
// Everything is inlined into every routine. These headers are compiled at several instruction-set
// levels, and a routine that preserves vector registers must not call one that does not.
#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

#define ZORVAC_INLINE [[gnu::always_inline]] inline
#define ZORVAC_INLINE_LAMBDA __attribute__((always_inline))

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

// Sets of lanes are numbers: bit i stands for byte i of the block.
ZORVAC_INLINE unsigned lanes(block b) { return static_cast<unsigned>(_mm_movemask_epi8(b)); }
ZORVAC_INLINE unsigned equal_lanes(block a, block b) { return lanes(_mm_cmpeq_epi8(a, b)); }
ZORVAC_INLINE unsigned zero_lanes(block b) { return equal_lanes(b, _mm_setzero_si128()); }
ZORVAC_INLINE unsigned lowest(std::uint64_t set) {  // of a set that is not empty
  return static_cast<unsigned>(__builtin_ctzll(set));
}
ZORVAC_INLINE unsigned highest(unsigned set) {
  return 31 - static_cast<unsigned>(__builtin_clz(set));
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

// Calls the instance of `f` for one of 16 distances. The shift instructions take the distance as an
// immediate operand, so each distance needs an instance of its own.
template <class F>
ZORVAC_INLINE auto with_shift(std::size_t shift, F f) {
  switch (shift) {
#define ZORVAC_SHIFT(n) \
  case n:               \
    return f.template operator()<n>();
    ZORVAC_SHIFT(1)
    ZORVAC_SHIFT(2)
    ZORVAC_SHIFT(3)
    ZORVAC_SHIFT(4)
    ZORVAC_SHIFT(5)
    ZORVAC_SHIFT(6)
    ZORVAC_SHIFT(7)
    ZORVAC_SHIFT(8)
    ZORVAC_SHIFT(9)
    ZORVAC_SHIFT(10)
    ZORVAC_SHIFT(11)
    ZORVAC_SHIFT(12)
    ZORVAC_SHIFT(13)
    ZORVAC_SHIFT(14)
    ZORVAC_SHIFT(15)
#undef ZORVAC_SHIFT
    default:
      return f.template operator()<0>();
  }
}

}  // namespace
}  // namespace zorvac::string
#endif
