// Zero-filled memory without the fill, where malloc has just mapped the block. That it is zero then
// holds for the C library's malloc, where nobody has told it to fill what it gives (zorvac/mem.h).
#include <cstddef>

#include "mem/block_header.h"
#include "zorvac/mem.h"

// A program may have no malloc at all: one that links the static library without the C library's.
extern "C" __attribute__((weak)) void* malloc(std::size_t bytes);

extern "C" void* _zorva_fast_calloc(std::size_t count, std::size_t size) {
  if (malloc == nullptr) return nullptr;
  const std::size_t bytes = count * size;  // wraps: compiled code has checked it, or need not
  void* const block = malloc(bytes);
  if (block == nullptr || zorvac::mem::is_fresh(block)) return block;
  return _zorva_fast_memset(block, 0, bytes);
}
