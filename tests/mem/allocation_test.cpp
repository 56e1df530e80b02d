// Aligned blocks, zero-filled blocks and the cookie.
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "mem/allocator.h"
#include "support/guard_pages.h"
#include "support/registers.h"

namespace zorvac::test {
namespace {

// Wherever malloc's memory lies, at any multiple of 16. An alignment that is no power of two is not
// rejected: its block lies within the memory all the same.
TEST(AlignedBlock, IsAlignedWithinItsMemoryAndFreesThat) {
  const guarded_block memory(1 << 18);
  for (const std::size_t alignment :
       {0u, 1u, 2u, 4u, 8u, 16u, 24u, 32u, 64u, 100u, 128u, 1024u, 4096u, 65536u})
    for (const std::size_t size : {0u, 1u, 7u, 8u, 24u, 63u, 64u, 1000u, 100'000u})
      for (std::size_t at = 0; at < 2048; at += 16 * (1 + size)) {
        // One block is malloc's own, for free and the address sanitizer to see.
        unsigned char* raw = at != 0 ? memory.begin() + at : nullptr;
        system_allocator.next_malloc = raw;
        auto* const block = static_cast<unsigned char*>(zorvac_mm_malloc(size, alignment));
        ASSERT_EQ(system_allocator.malloc.last, size + alignment + 8);
        std::memcpy(&raw, block - 8, 8);
        ASSERT_TRUE(at == 0 || raw == memory.begin() + at);
        ASSERT_GE(block, raw + 8);
        ASSERT_LE(block + size, raw + size + alignment + 8);
        if ((alignment & (alignment - 1)) == 0) {
          ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % std::max<std::size_t>(alignment, 8),
                    0u);
        }
        if (at != 0) continue;
        std::memset(block, 0x5a, size);
        const int frees = system_allocator.free.count;
        zorvac_mm_free(block);
        EXPECT_EQ(system_allocator.free.count, frees + 1);
        EXPECT_EQ(system_allocator.free.last, reinterpret_cast<std::size_t>(raw));
      }
  const int frees = system_allocator.free.count;
  zorvac_mm_free(nullptr);
  EXPECT_EQ(system_allocator.free.count, frees);
}

TEST(AlignedBlock, IsNullWhereSizesWrapOrMallocFails) {
  constexpr std::size_t most = SIZE_MAX;
  constexpr struct {
    std::size_t size, alignment;
    bool asks_malloc;  // which fails here
  } refusals[] = {
      {most - 4, 16, false}, {most - 23, 16, false},  // the sum wraps, the latter to zero
      {most - 24, 16, true},                          // the largest that does not wrap
      {10, most - 5, false}, {most / 2 + 1, most / 2 + 1, false},
      {most - 9, 1, true},  // tested before the alignment is raised: with 8 it would wrap
      {100, 64, true},
  };
  for (const auto& r : refusals) {
    const int asked = system_allocator.malloc.count;
    system_allocator.malloc_fails = true;
    EXPECT_EQ(zorvac_mm_malloc(r.size, r.alignment), nullptr);
    system_allocator.malloc_fails = false;
    EXPECT_EQ(system_allocator.malloc.count - asked, r.asks_malloc) << r.size;
  }
}

// Memory of the test's own, with the size word that the C library would put in front, unless the
// page before begins there. Only a block that was mapped for the purpose is not filled.
TEST(ZeroedBlock, IsNotFilledWhereMallocHasJustMappedIt) {
  constexpr std::size_t pool_bytes = 30'000 * 64;
  constexpr struct {
    std::size_t offset;
    std::uint64_t header;
    bool filled;
  } memories[] = {
      {16, 0x1000 | 2, false},           {16, 2, false}, {16, 0x71, true}, {16, 0x75, true},
      {16, 0xffff'ffff'ffff'fffd, true}, {0, 0, true}};
  for (const auto& m : memories)
    for (const bool pool : {false, true})
      in_own_process([&] {
        const guarded_block memory(pool_bytes + 16);
        std::memset(memory.begin(), 0xcc, memory.size());
        unsigned char* const given = memory.begin() + m.offset;
        if (m.offset != 0) std::memcpy(given - 8, &m.header, 8);
        register_sizes({64}, 1);
        system_allocator.next_malloc = given;
        EXPECT_EQ(pool ? __i_pool_calloc(4, 16) : _zorva_fast_calloc(3, 33), given);
        const std::size_t bytes = pool ? pool_bytes : 99;
        EXPECT_EQ(system_allocator.malloc.last, bytes);
        EXPECT_EQ(system_allocator.fill.count, m.filled);
        EXPECT_EQ(std::count(given, given + bytes, m.filled ? 0 : 0xcc), bytes) << m.header;
        EXPECT_EQ(std::count(given + bytes, memory.end(), 0xcc), memory.end() - (given + bytes));
      });
}

TEST(FastCalloc, ProductWrapsAndFailureIsNull) {
  const std::size_t half = std::size_t{1} << 63;
  free(_zorva_fast_calloc(half, 2));
  EXPECT_EQ(system_allocator.malloc.last, 0u);
  free(_zorva_fast_calloc(half + 5, 2));
  EXPECT_EQ(system_allocator.malloc.last, 10u);
  const int fills = system_allocator.fill.count;
  system_allocator.malloc_fails = true;
  EXPECT_EQ(_zorva_fast_calloc(4, 4), nullptr);
  system_allocator.malloc_fails = false;
  EXPECT_EQ(system_allocator.fill.count, fills);
}

// The C library's own blocks: used before, and mapped.
TEST(FastCalloc, FillsUsedMemoryAndNoMappedMemory) {
  if (sanitized) GTEST_SKIP() << "a sanitizer's allocator keeps other headers";
  for (const std::size_t bytes : {1u, 24u, 100u, 1000u, 5000u, 60'000u}) {
    void* const used = malloc(bytes);
    std::memset(used, 0xff, bytes);
    free(used);
    const int fills = system_allocator.fill.count;
    auto* const block = static_cast<unsigned char*>(_zorva_fast_calloc(bytes, 1));
    EXPECT_EQ(std::count(block, block + bytes, 0), static_cast<std::ptrdiff_t>(bytes));
    EXPECT_EQ(system_allocator.fill.count, fills + 1);
    free(block);
  }
  ASSERT_EQ(mallopt(M_MMAP_THRESHOLD, 64 << 10), 1);
  constexpr std::size_t bytes = 64 << 20;
  const int fills = system_allocator.fill.count;
  auto* const block = static_cast<unsigned char*>(_zorva_fast_calloc(bytes / 8, 8));
  EXPECT_EQ(system_allocator.fill.count, fills);
  EXPECT_EQ(std::count(block, block + bytes, 0), static_cast<std::ptrdiff_t>(bytes));
  free(block);
}

TEST(Cookie, HasNoUpperHalfAndItsCheckChangesNoRegister) {
  const std::uint64_t cookie = __zorva_security_cookie;
  EXPECT_NE(cookie, 0u);
  EXPECT_EQ(cookie >> 32, 0u);
  __zorva_security_init_cookie();
  EXPECT_EQ(__zorva_security_cookie, cookie);
  register_file before = filled_registers(1);
  before.general[rdi] = __zorva_security_cookie;
  const register_file after =
      call_with_registers(reinterpret_cast<void (*)()>(&__zorva_security_check_cookie), before);
  EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
}

// The check goes by the variable, which a program may have set before anything was guarded.
TEST(Cookie, AnyValueButTheVariablesEndsTheProcess) {
  for (const std::uint64_t cookie : {__zorva_security_cookie, std::uint64_t{42}})
    for (const std::uint64_t change : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{1} << 63,
                                       std::uint64_t{1} << 32, cookie, ~std::uint64_t{0}}) {
      const outcome o = run_in_child([cookie, change] {
        std::atexit([] { (void)!write(STDOUT_FILENO, "exit handler ran", 16); });
        __zorva_security_cookie = cookie;
        __zorva_security_check_cookie(cookie ^ change);
        std::printf("returned");
      });
      const outcome ended{"", "Error:  Buffer overrun occurred, forced exit\n", -1, SIGABRT};
      EXPECT_EQ(o, change == 0 ? (outcome{"returned", "", 0, 0}) : ended) << std::hex << change;
    }
}

}  // namespace
}  // namespace zorvac::test
