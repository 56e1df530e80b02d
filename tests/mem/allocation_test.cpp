// Aligned blocks, zero-filled blocks and the cookie.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "mem/allocator.h"
#include "mem/pools.h"
#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "support/registers.h"

namespace zorvac::test {
namespace {

using sizes = std::initializer_list<std::size_t>;

TEST(AlignedBlock, IsAlignedHoldsItsSizeAndFreesWhatMallocGave) {
  for (const std::size_t alignment : sizes{0, 1, 2, 4, 8, 16, 32, 64, 128, 4096, 65536})
    for (const std::size_t size : sizes{0, 1, 7, 8, 24, 63, 64, 1000, 100'000}) {
      auto* const block = static_cast<unsigned char*>(zorvac_mm_malloc(size, alignment));
      ASSERT_NE(block, nullptr);
      const std::size_t expected = std::max<std::size_t>(alignment, 8);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % expected, 0u) << size;
      EXPECT_EQ(system_allocator.malloc.last, size + alignment + 8);
      void* raw = nullptr;
      std::memcpy(&raw, block - 8, 8);
      EXPECT_LE(static_cast<unsigned char*>(raw), block - 8);
      EXPECT_LE(block + size, static_cast<unsigned char*>(raw) + size + alignment + 8);
      std::memset(block, 0x5a, size);  // the address sanitizer watches
      const int frees = system_allocator.free.count;
      zorvac_mm_free(block);
      EXPECT_EQ(system_allocator.free.count, frees + 1);
      EXPECT_EQ(system_allocator.free.last, reinterpret_cast<std::size_t>(raw));
    }
}

// malloc may give any address that is a multiple of 16: the whole range that rounding has.
TEST(AlignedBlock, LiesWithinTheMemoryWhereverThatIs) {
  const guarded_block memory(8192);
  for (const std::size_t alignment : sizes{8, 16, 24, 64, 100, 1024})
    for (std::size_t at = 0; at < 2048; at += 16) {
      unsigned char* const raw = memory.begin() + at;
      system_allocator.next_malloc = raw;
      auto* const block = static_cast<unsigned char*>(zorvac_mm_malloc(100, alignment));
      ASSERT_GE(block, raw + 8);
      ASSERT_LE(block + 100, raw + 100 + alignment + 8);
      if ((alignment & (alignment - 1)) == 0) {
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0u);
      }
      ASSERT_EQ(std::memcmp(block - 8, &raw, 8), 0);
    }
}

struct refusal {
  const char* name;
  std::size_t size, alignment;
  bool asks_malloc;  // which fails here
};
constexpr std::size_t most = SIZE_MAX;
constexpr refusal refusals[] = {
    {"SumWrapsPastTheSize", most - 4, 16, false},
    {"SumWrapsToZero", most - 23, 16, false},
    {"LargestThatDoesNotWrap", most - 24, 16, true},
    {"AlignmentWraps", 100, most - 50, false},
    {"BothAreHuge", most / 2 + 1, most / 2 + 1, false},
    {"TestedBeforeTheAlignmentIsRaised", most - 9, 1, true},  // with 8 it would wrap
    {"Ordinary", 100, 64, true},
};
class Refused : public testing::TestWithParam<refusal> {};
INSTANTIATE_TEST_SUITE_P(AlignedBlock, Refused, testing::ValuesIn(refusals), name_of_row);
TEST_P(Refused, GivesNull) {
  const int asked = system_allocator.malloc.count;
  system_allocator.malloc_fails = true;
  EXPECT_EQ(zorvac_mm_malloc(GetParam().size, GetParam().alignment), nullptr);
  system_allocator.malloc_fails = false;
  EXPECT_EQ(system_allocator.malloc.count - asked, GetParam().asks_malloc ? 1 : 0);
}

TEST(AlignedBlock, NullIsFreedWithoutACall) {
  const int frees = system_allocator.free.count;
  zorvac_mm_free(nullptr);
  EXPECT_EQ(system_allocator.free.count, frees);
}

// Memory of the test's own, with the size word that the C library would put in front.
TEST(FastCalloc, GoesByTheMappedMark) {
  struct {
    std::uint64_t header;
    bool filled;
  } const headers[] = {
      {0x1000 | 2, false}, {0x71, true}, {0x75, true}, {0xffff'ffff'ffff'fffd, true}, {2, false}};
  const guarded_block memory(4096);
  for (const auto& h : headers) {
    std::memset(memory.begin(), 0xcc, memory.size());
    unsigned char* const given = memory.begin() + 16;
    std::memcpy(given - 8, &h.header, 8);
    system_allocator.next_malloc = given;
    ASSERT_EQ(_zorva_fast_calloc(3, 33), given);
    EXPECT_EQ(system_allocator.malloc.last, 99u);
    EXPECT_EQ(std::count(given, given + 99, h.filled ? 0 : 0xcc), 99) << h.header;
    EXPECT_EQ(std::count(given + 99, memory.end(), 0xcc), memory.end() - given - 99);
  }
}

TEST(FastCalloc, DoesNotLookAtThePageBefore) {
  const guarded_block memory(4096);
  std::memset(memory.begin(), 0xcc, memory.size());
  system_allocator.next_malloc = memory.begin();
  ASSERT_EQ(_zorva_fast_calloc(1, 4096), memory.begin());
  EXPECT_EQ(std::count(memory.begin(), memory.end(), 0), 4096);
}

TEST(FastCalloc, ProductWraps) {
  const std::size_t half = std::size_t{1} << 63;
  free(_zorva_fast_calloc(half, 2));
  EXPECT_EQ(system_allocator.malloc.last, 0u);
  free(_zorva_fast_calloc(half + 5, 2));
  EXPECT_EQ(system_allocator.malloc.last, 10u);
}

TEST(FastCalloc, GivesNullWhenMallocDoes) {
  const int fills = system_allocator.fill.count;
  system_allocator.malloc_fails = true;
  EXPECT_EQ(_zorva_fast_calloc(4, 4), nullptr);
  system_allocator.malloc_fails = false;
  EXPECT_EQ(system_allocator.fill.count, fills);
}

// The C library's own blocks: used before, and mapped.
TEST(FastCalloc, ClearsUsedMemoryAndLeavesMappedMemoryUntouched) {
  if (!malloc_is_the_c_librarys) GTEST_SKIP() << "a sanitizer's allocator keeps other headers";
  for (const std::size_t bytes : sizes{1, 24, 100, 1000, 5000, 60'000}) {
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
  std::vector<unsigned char> resident(bytes / 4096);  // of all pages but the one with the header
  ASSERT_EQ(mincore(block - 16 + 4096, bytes - 4096, resident.data()), 0);
  EXPECT_EQ(std::count_if(resident.begin(), resident.end(), [](int r) { return (r & 1) != 0; }), 0);
  EXPECT_EQ(std::count(block, block + bytes, 0), static_cast<std::ptrdiff_t>(bytes));
  free(block);
}

TEST(Cookie, IsNotZeroAndHasNoUpperHalf) {
  EXPECT_NE(__zorva_security_cookie, 0u);
  EXPECT_EQ(__zorva_security_cookie >> 32, 0u);
  const std::uint64_t before = __zorva_security_cookie;
  __zorva_security_init_cookie();
  EXPECT_EQ(__zorva_security_cookie, before);
}

TEST(Cookie, CheckChangesNoRegister) {
  for (unsigned seed = 1; seed <= 4; ++seed) {
    register_file before = filled_registers(seed);
    before.general[rdi] = __zorva_security_cookie;
    const register_file after =
        call_with_registers(reinterpret_cast<void (*)()>(&__zorva_security_check_cookie), before);
    EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
  }
}

TEST(Cookie, AnyOtherValueEndsTheProcess) {
  const std::uint64_t cookie = __zorva_security_cookie;
  for (const std::uint64_t found : {cookie ^ 1, cookie | std::uint64_t{1} << 63,
                                    cookie | std::uint64_t{1} << 32, std::uint64_t{0}, ~cookie}) {
    const outcome o = run_in_child([found] {
      std::atexit([] { (void)!write(STDOUT_FILENO, "exit handler ran", 16); });
      __zorva_security_check_cookie(found);
    });
    EXPECT_EQ(o, (outcome{"", "Error:  Buffer overrun occurred, forced exit\n", -1, SIGABRT}))
        << std::hex << found;
  }
}

// The check goes by the variable, which a program may have set before anything was guarded.
TEST(Cookie, IsWhatTheProgramMadeIt) {
  EXPECT_EQ(run_in_child([] {
              __zorva_security_cookie = 42;
              __zorva_security_check_cookie(42);
              std::printf("returned");
            }),
            (outcome{"returned", "", 0, 0}));
}

}  // namespace
}  // namespace zorvac::test
