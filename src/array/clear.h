#ifndef ZORVAC_ARRAY_CLEAR_H
#define ZORVAC_ARRAY_CLEAR_H
// Clears a block of C, column by column, with aligned stores of 16 bytes.
#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

namespace zorvac::array {
namespace {

template <class Word>
void clear_word(void* p) {
  typedef Word anywhere __attribute__((aligned(1), may_alias));
  *static_cast<anywhere*>(p) = 0;
}

// Clears a column of `rows` elements of the size of Word: one by one up to a 16-byte boundary, then
// 8 at a time, and the tail by 16 bytes and one by one. A short column, and one whose elements
// never meet a boundary, is cleared one by one.
template <class Word>
void clear_column(void* column, std::size_t rows) {
  constexpr std::size_t size = sizeof(Word), boundary = sizeof(__m128i);
  auto* p = static_cast<char*>(column);
  const std::size_t past = reinterpret_cast<std::uintptr_t>(p) % boundary;
  const std::size_t peel = (boundary - past) % boundary / size;
  if (past % size == 0 && rows >= peel + 8) {
    rows -= peel;
    for (std::size_t i = 0; i < peel; ++i, p += size) clear_word<Word>(p);
    for (; rows >= 8; rows -= 8)
      for (std::size_t i = 0; i < 8 * size / boundary; ++i, p += boundary)
        _mm_store_si128(reinterpret_cast<__m128i*>(p), _mm_setzero_si128());
    for (; rows >= boundary / size; rows -= boundary / size, p += boundary)
      _mm_store_si128(reinterpret_cast<__m128i*>(p), _mm_setzero_si128());
  }
  for (; rows != 0; --rows, p += size) clear_word<Word>(p);
}

// Clears a column of elements of 16 bytes, two at a time, at any alignment.
template <>
[[maybe_unused]] void clear_column<__m128i>(void* column, std::size_t rows) {
  auto* p = static_cast<__m128i*>(column);
  for (; rows >= 2; rows -= 2, p += 2) {
    _mm_storeu_si128(p, _mm_setzero_si128());
    _mm_storeu_si128(p + 1, _mm_setzero_si128());
  }
  if (rows != 0) _mm_storeu_si128(p, _mm_setzero_si128());
}

template <class Word>
void clear(void* c, std::size_t rows, std::size_t columns, std::size_t ldc) {
  if (rows == 0) return;  // however many columns there are
  auto* column = static_cast<char*>(c);
  for (; columns != 0; --columns, column += ldc * sizeof(Word)) clear_column<Word>(column, rows);
}

}  // namespace
}  // namespace zorvac::array
#endif
