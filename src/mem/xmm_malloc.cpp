// Blocks at any alignment. In front of each stands the pointer that malloc gave; nothing records
// size or alignment.
//
//   raw            result - 8    result
//   | unused       | raw         | size bytes                    | unused
//   |<- malloc: size + alignment + 8 bytes ------------------------------>|
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "zorvac/mem.h"

void* zorvac_mm_malloc(std::size_t size, std::size_t alignment) {
  constexpr std::size_t word = sizeof(void*);
  const std::size_t total = size + alignment + word;
  if (total < size || total < alignment) return nullptr;  // the sum wrapped
  void* const raw = std::malloc(total);
  if (raw == nullptr) return nullptr;

  // Rounding down takes at most alignment - 1, so the result is at least raw + 8, and at most
  // raw + 8 + (alignment - 1). Where the alignment was raised the block has no room for it and
  // needs none: malloc's own alignment puts the result at raw + 8.
  if (alignment < word) alignment = word;
  const std::uintptr_t result =
      (reinterpret_cast<std::uintptr_t>(raw) + alignment + word - 1) & ~(alignment - 1);
  void** const block = reinterpret_cast<void**>(result);  // NOLINT(performance-no-int-to-ptr)
  // An alignment that is no power of two may put the word anywhere.
  __builtin_memcpy(block - 1, &raw, sizeof raw);
  return block;
}

void zorvac_mm_free(void* block) {
  if (block == nullptr) return;
  void* raw;
  __builtin_memcpy(&raw, static_cast<char*>(block) - sizeof raw, sizeof raw);
  std::free(raw);
}
