// Blocks at any alignment. The pointer from malloc is stored in front of each block. Nothing
// records the size or the alignment.
//
//   raw            result - 8    result
//   | unused       | raw         | size bytes                    | unused
//   |<- malloc: size + alignment + 8 bytes ------------------------------>|
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "core/unaligned.h"
#include "zorvac/mem.h"

void* zorvac_mm_malloc(std::size_t size, std::size_t alignment) {
  constexpr std::size_t word = sizeof(void*);
  const std::size_t total = size + alignment + word;
  if (total < size || total < alignment) return nullptr;  // the sum wrapped
  void* const raw = std::malloc(total);
  if (raw == nullptr) return nullptr;

  // Rounding down subtracts at most alignment - 1, so the result is at least raw + 8, and at most
  // raw + 8 + (alignment - 1). If the alignment was raised to 8 here, the block has no room for it
  // and needs none: malloc aligns to 16 bytes, so the result is raw + 8.
  if (alignment < word) alignment = word;
  const std::uintptr_t result =
      (reinterpret_cast<std::uintptr_t>(raw) + alignment + word - 1) & ~(alignment - 1);
  void** const block = reinterpret_cast<void**>(result);  // NOLINT(performance-no-int-to-ptr)
  // If the alignment is no power of two, the place of the word may be misaligned.
  zorvac::store_unaligned(block - 1, raw);
  return block;
}

void zorvac_mm_free(void* block) {
  if (block == nullptr) return;
  std::free(zorvac::load_unaligned<void*>(static_cast<char*>(block) - sizeof block));
}
