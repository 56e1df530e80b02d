#ifndef ZORVAC_MEM_BLOCK_HEADER_H
#define ZORVAC_MEM_BLOCK_HEADER_H
// What the word in front of a block of the C library's malloc tells (glibc, malloc/malloc.c,
// "struct malloc_chunk": the size of the block with three flags in its low bits).
#include <cstdint>

namespace zorvac::mem {

inline constexpr std::uint64_t is_mapped = 2;  // glibc's IS_MMAPPED

// Whether malloc mapped `block` from the operating system for this one request, so that it is zero
// throughout. A block at the start of a page has its word on the page before, which another
// allocator in malloc's place may not own; glibc puts no mapped block there, so that the answer is
// known unread. The word is not ours: to the address sanitizer it is out of bounds.
__attribute__((no_sanitize("address"))) inline bool is_fresh(const void* block) {
  constexpr std::uintptr_t page_bytes = 4096;
  if (reinterpret_cast<std::uintptr_t>(block) % page_bytes == 0) return false;
  const auto* words = static_cast<const std::uint64_t*>(block);
  asm("" : "+r"(words));  // makes the compiler forget that malloc's blocks begin at their start
  return (words[-1] & is_mapped) != 0;
}

}  // namespace zorvac::mem
#endif
