// Aligned blocks, zero-filled blocks and the cookie.
#include <unistd.h>

#include <algorithm>

#include "mem/system.h"
#include "support/registers.h"

// The same fast calloc in a program that has no malloc.
#define malloc absent_malloc
#define _zorva_fast_calloc calloc_without_malloc
#include "mem/fastcalloc.cpp"  // NOLINT(bugprone-suspicious-include)
#undef malloc
#undef _zorva_fast_calloc

namespace zorvac::test {
namespace {

// Wherever malloc's memory lies, at any multiple of 16. An alignment that is no power of two is not
// rejected: its block lies within the memory all the same.
TEST(AlignedBlock, IsAlignedWithinItsMemoryAndFreesThat) {
  for (const std::size_t alignment :
       {0u, 1u, 2u, 4u, 8u, 16u, 24u, 32u, 64u, 100u, 128u, 1024u, 4096u, 65536u})
    for (const std::size_t size : {0u, 1u, 7u, 8u, 24u, 63u, 64u, 1000u})
      for (the_system.offset = 16; the_system.offset < 2048; the_system.offset += 16 * (1 + size)) {
        unsigned char *block = nullptr, *raw = nullptr;
        EXPECT_EQ(
            asked([&] { block = static_cast<unsigned char*>(zorvac_mm_malloc(size, alignment)); }),
            "malloc " + std::to_string(size + alignment + 8) + ' ');
        std::memcpy(&raw, block - 8, 8);
        ASSERT_EQ(raw, the_system.last);
        ASSERT_GE(block, raw + 8);
        ASSERT_LE(block + size, raw + size + alignment + 8);
        const bool is_power = (alignment & (alignment - 1)) == 0;
        const std::size_t boundary = is_power ? std::max<std::size_t>(alignment, 8) : 1;
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % boundary, 0u);
        EXPECT_EQ(asked([&] { zorvac_mm_free(block); }), "free ");
      }
  EXPECT_EQ(asked([] { zorvac_mm_free(nullptr); }), "");
}

TEST(AlignedBlock, IsNullWhereSizesWrapOrMallocFails) {
  constexpr std::size_t most = SIZE_MAX;
  const std::string all = "malloc " + std::to_string(most) + ' ';
  const std::tuple<std::size_t, std::size_t, std::string> refusals[] = {
      {most - 4, 16, ""},      {most - 23, 16, ""},  // the sum wraps, the latter to zero
      {most - 24, 16, all},                          // the largest that does not wrap
      {most - 9, 1, all},  // tested before the alignment is raised: with 8 it would wrap
      {10, most - 5, ""},      {most / 2 + 1, most / 2 + 1, ""},
      {100, 64, "malloc 172 "}};
  the_system.fails = true;
  for (const auto& [size, alignment, asks] : refusals)
    EXPECT_EQ(asked([n = size, a = alignment] { EXPECT_EQ(zorvac_mm_malloc(n, a), nullptr); }),
              asks);
  the_system.fails = false;
}

// Only a block that was mapped for the purpose is not filled, as the word in front of it tells,
// unless that lies on the page before. The product wraps.
TEST(FastCalloc, FillsWhatMallocHasNotJustMapped) {
  const std::tuple<std::size_t, std::uint64_t, std::size_t, std::string> rows[] = {
      {16, 0x1002, 3, "malloc 99 "},
      {16, 0x75, 3, "malloc 99 fill 99 "},
      {16, ~std::uint64_t{2}, 3, "malloc 99 fill 99 "},
      {4096, 2, 3, "malloc 99 fill 99 "},
      {16, 0x71, SIZE_MAX / 33 + 1, "malloc 17 fill 17 "}};
  for (const auto& [offset, header, count, asks] : rows) {
    the_system.offset = offset, the_system.header = header;
    void* block = nullptr;
    EXPECT_EQ(asked([&, n = count] { block = _zorva_fast_calloc(n, 33); }), asks);
    EXPECT_EQ(block, the_system.last);
    EXPECT_TRUE(count > 3 || std::count(the_system.last, the_system.last + 99, 0) == 99);
  }
  the_system.fails = true;
  EXPECT_EQ(asked([] { EXPECT_EQ(_zorva_fast_calloc(4, 4), nullptr); }), "malloc 16 ");
  the_system.fails = false;
  EXPECT_EQ(calloc_without_malloc(1, 8), nullptr);
}

TEST(Cookie, HasNoUpperHalfAndItsCheckChangesNoRegister) {
  register_file before = filled_registers(1);
  before.general[rdi] = __zorva_security_cookie;
  __zorva_security_init_cookie();
  EXPECT_EQ(__zorva_security_cookie, before.general[rdi] & 0xffff'ffff);
  EXPECT_NE(__zorva_security_cookie, 0u);
  const register_file after =
      call_with_registers(reinterpret_cast<void (*)()>(&__zorva_security_check_cookie), before);
  EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
}

// The check goes by the variable, which a program may have set before anything was guarded.
TEST(Cookie, AnyValueButTheVariablesEndsTheProcess) {
  for (const std::uint64_t cookie : {__zorva_security_cookie, std::uint64_t{42}})
    for (const std::uint64_t change : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{1} << 63,
                                       std::uint64_t{1} << 32, cookie}) {
      const outcome o = run_in_child([=] {
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
