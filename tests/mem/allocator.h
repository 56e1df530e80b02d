#ifndef ZORVAC_TESTS_MEM_ALLOCATOR_H
#define ZORVAC_TESTS_MEM_ALLOCATOR_H
// The C library's allocator as the library under test sees it: calls are counted, malloc can be
// made to fail or to give memory of the test's own. The linker puts it between them (--wrap), so
// that it works beside a sanitizer's allocator too.
#include <atomic>
#include <cstddef>

#include "support/sanitized.h"

namespace zorvac::test {

struct calls {
  std::atomic<int> count;
  std::atomic<std::size_t> last;  // the size, or the block of free
};

struct allocator_view {
  calls malloc, calloc, realloc, free;
  calls fill;  // _zorva_fast_memset: its count of bytes

  std::atomic<bool> malloc_fails = false;
  std::atomic<void*> next_malloc = nullptr;  // what the next malloc gives, once
  std::atomic<bool> maps_pools = false;      // malloc maps what is as large as a pool

  void forget() {
    for (calls* each : {&malloc, &calloc, &realloc, &free, &fill}) each->count = 0;
  }
};
extern allocator_view system_allocator;

}  // namespace zorvac::test
#endif
