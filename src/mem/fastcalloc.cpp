// Zero-filled memory, without the fill if malloc has just mapped the block. Such a block is zero if
// malloc is the C library's and is not configured to fill its blocks (zorvac/mem.h).
#include <cstddef>

#include "mem/block_header.h"
#include "zorvac/mem.h"

// Weak: a program that links the static library and not the C library may have no malloc.
extern "C" __attribute__((weak)) void* malloc(std::size_t bytes);

extern "C" void* _zorva_fast_calloc(std::size_t count, std::size_t size) {
  if (malloc == nullptr) return nullptr;
  const std::size_t bytes = count * size;  // may wrap: the caller checks the product if it could
  void* const block = malloc(bytes);
  if (block == nullptr || zorvac::mem::is_fresh(block)) return block;
  return _zorva_fast_memset(block, 0, bytes);
}
