#ifndef ZORVAC_STRING_COPY_WORDS_H
#define ZORVAC_STRING_COPY_WORDS_H
// The copy in words of four bytes. The caller usually has copied up to a source address that is a
// multiple of four.
#include <cstdint>

#include "core/unaligned.h"
#include "string/block.h"

namespace zorvac::string {
namespace {

// Whether a byte of the word may be zero. The word is added to 0x7efefeff, which is zero in the
// bits 8, 16, 24 and 31, the bits of 0x81010100. Each byte that is not zero carries into such a
// bit: the lower three bytes into the lowest bit of the next byte, the highest byte into bit 31
// (unless it is 0x80). A byte may miss its carry if a byte below it is zero; that one is found. The
// carry inverts the bit, so a bit that did not change means that there was no carry. 0x80 as the
// highest byte gives a false alarm; the caller then looks at each byte.
ZORVAC_INLINE bool may_hold_zero(std::uint32_t word) {
  return (((word + 0x7efefeff) ^ ~word) & 0x81010100) != 0;
}

// Copies a string with its terminating zero. An aligned word lies within one page, so reading past
// the end cannot fault.
ZORVAC_INLINE void copy_words(char* to, const char* from) {
  for (; reinterpret_cast<std::uintptr_t>(from) % 4 != 0; ++from)
    if ((*to++ = *from) == 0) return;
  for (;; from += 4, to += 4) {
    const auto word = load_unaligned<std::uint32_t>(from);
    if (!may_hold_zero(word)) {
      store_unaligned(to, word);
      continue;
    }
    for (int i = 0; i < 4; ++i)
      if ((to[i] = from[i]) == 0) return;
  }
}

}  // namespace
}  // namespace zorvac::string
#endif
