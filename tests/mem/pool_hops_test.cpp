// Pools call exported routines through their names: a program that defines them is called. The pool
// allocator is the shared library's, everything it calls is this program's.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "zorvac/mem.h"

namespace {

std::string hops;

std::string hops_of(void (*routine)()) {
  hops.clear();
  routine();
  return hops;
}

alignas(16) char pooled[64];

TEST(PoolHops, GoThroughReplaceableNames) {
  static const std::uint32_t sizes[] = {64, 0};
  static void* block = nullptr;
  EXPECT_EQ(hops_of([] { __i_pool_init(sizes, 0); }), "lock unlock ");
  EXPECT_EQ(hops_of([] { __i_pool_init(sizes, 1); }), "lock unlock ");
  EXPECT_EQ(hops_of([] { block = __i_pool_calloc(4, 16); }), "lock unlock ");
  EXPECT_EQ(hops_of([] { block = __i_pool_calloc(4, 16); }), "");  // no lock to hand out
  EXPECT_EQ(hops_of([] { block = __i_pool_realloc(block, 64); }), "malloc copy free ");
  EXPECT_EQ(block, pooled);
  EXPECT_EQ(hops_of([] { free(_zorva_fast_calloc(1, 8)); }), "fill ");
}

}  // namespace

// The locks work, for the sake of one thread; the others note that they were called.
extern "C" {
void __fast_lock(std::uint32_t* lock) {
  hops += "lock ";
  *lock = 1;
}
void __fast_unlock(std::uint32_t* lock) {
  hops += "unlock ";
  *lock = 0;
}
void* __i_pool_malloc(std::uint32_t) {
  hops += "malloc ";
  return pooled;
}
void __i_pool_free(void*) { hops += "free "; }
void* _zorva_fast_memcpy(void* to, const void* from, std::size_t bytes) {
  hops += "copy ";
  return std::memcpy(to, from, bytes);
}
void* _zorva_fast_memset(void* to, int value, std::size_t bytes) {
  hops += "fill ";
  return std::memset(to, value, bytes);
}
}
