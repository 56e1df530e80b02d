// Comparison: the first difference decides, as unsigned bytes, and the answer is -1, 0 or +1.
#include <cstring>

#include "mem/members.h"
#include "support/guard_pages.h"

namespace zorvac::test {
namespace {

class CompareMember : public over_members {
 protected:
  [[nodiscard]] static int compare(const void* a, const void* b, std::size_t count) {
    return std::get<compare_function*>(GetParam().call)(a, b, count);
  }
  guarded_block left_{4096}, right_{4096};
};

// Two equal blocks at or near their guard pages; then one byte is made different, and the next one
// differs the other way. Pairs of bytes that are ordered one way as unsigned and the other as
// signed numbers.
TEST_P(CompareMember, FirstDifferenceDecides) {
  constexpr std::pair<unsigned char, unsigned char> lesser_greater[] = {
      {0x01, 0xff}, {0x7f, 0x80}, {0x00, 0x01}};
  for (std::size_t count = 1; count <= 300; ++count)
    for (const auto& [l, r] :
         {std::pair{count % 9, count % 7}, {count * 5 % 64, count * 11 % 64}}) {
      unsigned char* const a = left_.end() - count - l;  // l and r bytes follow the blocks
      unsigned char* const b = right_.end() - count - r;
      fill_with_pattern(a, count);
      std::memcpy(b, a, count);
      std::memset(a + count, 1, l);  // what follows differs, and must not count
      std::memset(b + count, 2, r);
      ASSERT_EQ(compare(a, b, count), 0) << count;
      for (std::size_t at = 0; at < count; ++at) {
        const auto [lesser, greater] = lesser_greater[at % 3];
        const std::size_t next = at + 1 < count ? at + 1 : at;
        const unsigned char kept[2] = {a[at], a[next]};
        a[next] = greater, b[next] = lesser;
        a[at] = lesser, b[at] = greater;
        ASSERT_EQ(compare(a, b, count), -1) << "count " << count << ", byte " << at;
        ASSERT_EQ(compare(b, a, count), +1) << "count " << count << ", byte " << at;
        ASSERT_EQ(compare(a, b, at), 0) << "count " << at;
        a[next] = b[next] = kept[1];
        a[at] = b[at] = kept[0];
      }
    }
}

INSTANTIATE_TEST_SUITE_P(Block, CompareMember, testing::ValuesIn(members_of({kind::compare})),
                         name_of_row);

// One takes a count from the upper half for "below 1", the other equal pointers for equal blocks.
TEST(Compare, ReadsNothingWhereNothingCounts) {
  const guarded_block block(4096);
  for (const std::size_t none : {std::size_t{0}, std::size_t{1} << 63, SIZE_MAX})
    EXPECT_EQ(__zorva_new_memcmp(block.end(), block.end() + 1, none), 0);
  EXPECT_EQ(_zorva_fast_memcmp(block.end(), block.end() + 1, 0), 0);
  EXPECT_EQ(_zorva_fast_memcmp(block.end(), block.end(), 100), 0);
}

}  // namespace
}  // namespace zorvac::test
