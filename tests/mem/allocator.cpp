// Between the library under test and the C library's allocator.
#include "mem/allocator.h"

namespace zorvac::test {

allocator_view system_allocator;

namespace {
void note(calls& of, std::size_t what) {
  of.last.store(what, std::memory_order_relaxed);
  of.count.fetch_add(1, std::memory_order_relaxed);
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
  return given != nullptr ? given : __real_malloc(bytes);
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
