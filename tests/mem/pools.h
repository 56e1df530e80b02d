#ifndef ZORVAC_TESTS_MEM_POOLS_H
#define ZORVAC_TESTS_MEM_POOLS_H
// What the pool tests share.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <vector>

#include "mem/allocator.h"
#include "support/child.h"
#include "zorvac/mem.h"

namespace zorvac::test {

// Runs a test's body in a process of its own, since pools stay for the life of a process, with no
// calls counted. The failed expectations of the body stand in the output. A sanitizer's allocator
// gives pools used memory with anything in front of it; there they get memory as from the C
// library.
inline void in_own_process(const std::function<void()>& body) {
  const outcome o = run_in_child([&body] {
    system_allocator.forget();
    system_allocator.maps_pools = sanitized;
    body();
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
