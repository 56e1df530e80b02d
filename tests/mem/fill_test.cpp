// Fills, byte for byte: every count at every alignment, every path that the cache values open, the
// ends of pages. The ground holds a byte that no fill writes.
#include <algorithm>

#include "mem/members.h"
#include "support/guard_pages.h"

namespace zorvac::test {
namespace {

constexpr unsigned char ground_byte = 0xa7;
// Only the low 8 bits of the value count.
constexpr int fill_values[] = {0x5a, 0, 0xff, -1, 0x100, 0x12345680};

bool all_equal(const unsigned char* begin, const unsigned char* end, unsigned char byte) {
  // The first byte, and each byte like its neighbour.
  return begin >= end ||
         (*begin == byte &&
          std::memcmp(begin, begin + 1, static_cast<std::size_t>(end - begin) - 1) == 0);
}

class FillMember : public over_members<fill_member> {
 protected:
  // Whether the fill is exact, returns its destination and touches nothing around it.
  [[nodiscard]] bool exact(guarded_block& ground, unsigned char* to, int value,
                           std::size_t count) const {
    const auto byte = static_cast<unsigned char>(GetParam().only_zero ? 0 : value);
    const bool returned = GetParam().fill(to, value, count) == to;
    const bool good = all_equal(to, to + count, byte) &&
                      all_equal(std::max(ground.begin(), to - 64), to, ground_byte) &&
                      all_equal(to + count, std::min(ground.end(), to + count + 64), ground_byte);
    std::memset(to, ground_byte, count);
    return returned && good;
  }
};

#define ASSERT_EXACT(ground, to, value, count)                            \
  ASSERT_TRUE(exact(ground, to, value, count))                            \
      << "count " << (count) << ", value " << (value) << ", destination " \
      << reinterpret_cast<std::uintptr_t>(to) % 4096 << " within its page"

TEST_P(FillMember, EveryCountAtEveryAlignment) {
  guarded_block ground(4096);
  std::memset(ground.begin(), ground_byte, ground.size());
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    for (std::size_t count = 0; count <= (sanitized ? 600 : 2000); ++count)
      for (std::size_t t = 64; t < 128; ++t)
        ASSERT_EXACT(ground, ground.begin() + t, fill_values[(count + t) % 6], count);
  }
  EXPECT_TRUE(all_equal(ground.begin(), ground.end(), ground_byte));
}

TEST_P(FillMember, CountsAroundEveryLimit) {
  guarded_block ground(std::size_t{2} << 20);
  std::memset(ground.begin(), ground_byte, ground.size());
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    for (const std::size_t count : counts_around_limits(caches))
      for (const std::size_t t : {64u, 65u, 72u, 95u, 96u, 127u})
        ASSERT_EXACT(ground, ground.begin() + t, fill_values[(count + t) % 6], count);
  }
  EXPECT_TRUE(all_equal(ground.begin(), ground.end(), ground_byte));
}

TEST_P(FillMember, StaysWithinItsPages) {
  guarded_block ground(65536);
  std::memset(ground.begin(), ground_byte, ground.size());
  for (const cache_values& caches : cache_settings) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    std::vector<std::size_t> counts = counts_around_limits(caches);
    for (std::size_t count = 0; count <= 300; ++count) counts.push_back(count);
    for (const std::size_t count : counts) {
      if (count > 32768) continue;
      for (unsigned char* const to : {ground.begin(), ground.end() - count})
        ASSERT_EXACT(ground, to, fill_values[count % 6], count);
    }
  }
}

TEST_P(FillMember, TensOfMegabytes) {
  constexpr std::size_t mebibyte = std::size_t{1} << 20;
  guarded_block ground(33 * mebibyte);
  std::memset(ground.begin(), ground_byte, ground.size());
  for (const cache_values& caches :
       {ordinary, cache_values{"Huge", 128 * mebibyte, 32 << 10, 2},
        cache_values{"GreatFirstLevel", 128 * mebibyte, 64 * mebibyte, 2}}) {
    SCOPED_TRACE(caches.name);
    const under_caches scope(caches);
    for (const std::size_t count : {mebibyte + 3, 32 * mebibyte + 77})
      ASSERT_EXACT(ground, ground.begin() + 67, 0x5a, count);
  }
}

INSTANTIATE_TEST_SUITE_P(Block, FillMember, testing::ValuesIn(fill_members), name_of_row);

}  // namespace
}  // namespace zorvac::test
