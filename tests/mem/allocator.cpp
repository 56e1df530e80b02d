// Between the library under test and the C library's allocator.
#include "mem/allocator.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstring>

namespace zorvac::test {

allocator_view system_allocator;

namespace {
void note(calls& of, std::size_t what) {
  of.last.store(what, std::memory_order_relaxed);
  of.count.fetch_add(1, std::memory_order_relaxed);
}

// As the C library does it: a size word with the mapped mark, then the block.
void* map_as_the_c_library(std::size_t bytes) {
  void* const map =
      mmap(nullptr, bytes + 16, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) return nullptr;
  auto* const block = static_cast<char*>(map) + 16;
  const std::uint64_t header = ((bytes + 16 + 4095) & ~std::uint64_t{4095}) | 2;
  std::memcpy(block - 8, &header, sizeof header);
  return block;
}
}  // namespace

extern "C" {
void* __real_malloc(std::size_t bytes);
void* __real_calloc(std::size_t count, std::size_t bytes);
void* __real_realloc(void* block, std::size_t bytes);
void __real_free(void* block);
void* __real__zorva_fast_memset(void* block, int value, std::size_t bytes);

void* __wrap_malloc(std::size_t bytes) {
  note(system_allocator.malloc, bytes);
  if (system_allocator.malloc_fails) return nullptr;
  void* const given = system_allocator.next_malloc.exchange(nullptr);
  if (given != nullptr) return given;
  if (system_allocator.maps_pools && bytes > 100'000) return map_as_the_c_library(bytes);
  return __real_malloc(bytes);
}
void* __wrap_calloc(std::size_t count, std::size_t bytes) {
  note(system_allocator.calloc, count * bytes);
  return __real_calloc(count, bytes);
}
void* __wrap_realloc(void* block, std::size_t bytes) {
  note(system_allocator.realloc, bytes);
  return __real_realloc(block, bytes);
}
void __wrap_free(void* block) {
  note(system_allocator.free, reinterpret_cast<std::size_t>(block));
  __real_free(block);
}
void* __wrap__zorva_fast_memset(void* block, int value, std::size_t bytes) {
  note(system_allocator.fill, bytes);
  return __real__zorva_fast_memset(block, value, bytes);
}
}

}  // namespace zorvac::test
