#ifndef ZORVAC_STRING_COPY_WORDS_H
#define ZORVAC_STRING_COPY_WORDS_H
// The copy in words of four bytes, for a source that the caller has brought to a multiple of four.
#include <cstdint>

#include "string/block.h"

namespace zorvac::string {
namespace {

// Adding 0x7efefeff carries out of every byte that is not zero into the lowest bit of the next one,
// and out of the highest byte into bit 31 unless that byte is 0 or 0x80. A bit that the addition
// leaves as it was, although nothing is added there, tells of a carry that did not come: then a
// byte may be zero. Where it tells so of 0x80, the bytes themselves say no.
ZORVAC_INLINE bool may_hold_zero(std::uint32_t word) {
  return (((word + 0x7efefeff) ^ ~word) & 0x81010100) != 0;
}

// Copies a string with its terminating zero. An aligned word lies within one page.
ZORVAC_INLINE void copy_words(char* to, const char* from) {
  for (; reinterpret_cast<std::uintptr_t>(from) % 4 != 0; ++from)
    if ((*to++ = *from) == 0) return;
  for (;; from += 4, to += 4) {
    std::uint32_t word;
    __builtin_memcpy(&word, from, sizeof word);
    if (!may_hold_zero(word)) {
      __builtin_memcpy(to, &word, sizeof word);
      continue;
    }
    for (int i = 0; i < 4; ++i)
      if ((to[i] = from[i]) == 0) return;
  }
}

}  // namespace
}  // namespace zorvac::string
#endif
