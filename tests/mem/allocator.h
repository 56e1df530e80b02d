#ifndef ZORVAC_TESTS_MEM_ALLOCATOR_H
#define ZORVAC_TESTS_MEM_ALLOCATOR_H
// The C library's allocator as the library under test sees it: calls are counted, malloc can be
// made to fail or to give memory of the test's own. The linker puts it between them (--wrap), so
// that it works beside a sanitizer's allocator too.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <vector>

#include "support/child.h"
#include "support/sanitized.h"
#include "zorvac/mem.h"

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

// Runs a test's body in a process of its own, since pools stay for the life of a process, with no
// calls counted. The failed expectations of the body stand in the output. A sanitizer's allocator
// gives pools used memory with anything in front of it; there they get memory as from the C
// library.
inline void in_own_process(const std::function<void()>& body) {
  const outcome o = run_in_child([&body] {
    system_allocator.forget();
    system_allocator.maps_pools = sanitized;
    body();
    system_allocator.malloc_fails = false;  // for what runs at the end of a process
    std::printf(testing::Test::HasFailure() ? "failed" : "passed");
  });
  EXPECT_EQ(o, (outcome{"passed", "", 0, 0}));
}

inline void register_sizes(std::vector<std::uint32_t> sizes, int for_calloc) {
  sizes.push_back(0);
  __i_pool_init(sizes.data(), for_calloc);
}

}  // namespace zorvac::test
#endif
