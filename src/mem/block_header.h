#ifndef ZORVAC_MEM_BLOCK_HEADER_H
#define ZORVAC_MEM_BLOCK_HEADER_H
// The word in front of a block of the C library's malloc: the size of the block, with three flags
// in the low bits (glibc, malloc/malloc.c, "struct malloc_chunk").
#include <cstdint>

namespace zorvac::mem {

inline constexpr std::uint64_t is_mapped = 2;  // glibc's IS_MMAPPED

// Whether malloc mapped `block` from the operating system for this one request, so that all of it
// is zero. If a block begins at the start of a page, its word is on the page before. Another
// allocator that replaces malloc may not own that page. glibc never puts a mapped block there, so
// the answer is no, and the word is not read. The word is outside of the block, so the address
// sanitizer would report the read.
__attribute__((no_sanitize("address"))) inline bool is_fresh(const void* block) {
  constexpr std::uintptr_t page_bytes = 4096;
  if (reinterpret_cast<std::uintptr_t>(block) % page_bytes == 0) return false;
  const auto* words = static_cast<const std::uint64_t*>(block);
  asm("" : "+r"(words));  // hides from the compiler that nothing of a block lies before its start
  return (words[-1] & is_mapped) != 0;
}

}  // namespace zorvac::mem
#endif
