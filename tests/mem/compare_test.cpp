// Comparison: the first difference decides, as unsigned bytes, and the answer is -1, 0 or +1.
#include <sys/mman.h>

#include "mem/members.h"
#include "support/guard_pages.h"

namespace zorvac::test {
namespace {

struct compare_member {
  const char* name;
  compare_function* compare;
};
constexpr compare_member compare_members[] = {
    {"_zorva_fast_memcmp", _zorva_fast_memcmp},
    {"__zorva_new_memcmp", __zorva_new_memcmp},
};
std::ostream& operator<<(std::ostream& out, const compare_member& m) { return out << m.name; }

class CompareMember : public testing::TestWithParam<compare_member> {};

// Two equal blocks in front of guard pages; then one byte is made different, and a later byte of
// the same word differs the other way. Pairs of bytes that are ordered one way as unsigned and the
// other as signed numbers.
TEST_P(CompareMember, FirstDifferenceDecides) {
  constexpr std::pair<unsigned char, unsigned char> lesser_greater[] = {
      {0x01, 0xff}, {0x7f, 0x80}, {0x00, 0x01}};
  const auto compare = GetParam().compare;
  guarded_block left(4096), right(4096);
  for (std::size_t count = 1; count <= 300; ++count) {
    const std::size_t l = count % 9, r = count % 7;  // bytes left before the guard pages
    unsigned char* const a = left.end() - count - l;
    unsigned char* const b = right.end() - count - r;
    fill_with_pattern(a, count);
    std::memcpy(b, a, count);
    std::memset(a + count, 1, l);  // what follows differs, and must not count
    std::memset(b + count, 2, r);
    ASSERT_EQ(compare(a, b, count), 0) << count;
    for (std::size_t at = 0; at < count; ++at) {
      const auto [lesser, greater] = lesser_greater[at % 3];
      const unsigned char kept[2] = {a[at], at + 1 < count ? a[at + 1] : lesser};
      a[at] = lesser, b[at] = greater;
      if (at + 1 < count) a[at + 1] = greater, b[at + 1] = lesser;
      ASSERT_EQ(compare(a, b, count), -1) << "count " << count << ", byte " << at;
      ASSERT_EQ(compare(b, a, count), +1) << "count " << count << ", byte " << at;
      ASSERT_EQ(compare(a, b, at), 0) << "count " << at;
      a[at] = b[at] = kept[0];
      if (at + 1 < count) a[at + 1] = b[at + 1] = kept[1];
    }
  }
}

// The last byte of a word against all bytes before it, for every alignment of both blocks.
TEST_P(CompareMember, EveryAlignment) {
  const auto compare = GetParam().compare;
  guarded_block left(4096), right(4096);
  for (std::size_t l = 0; l < 64; ++l)
    for (std::size_t r = 0; r < 64; ++r)
      for (const std::size_t count : {1u, 7u, 8u, 9u, 63u, 64u, 65u, 71u, 128u, 200u, 513u}) {
        fill_with_pattern(left.begin() + l, count);
        fill_with_pattern(right.begin() + r, count);
        unsigned char& last = left.begin()[l + count - 1];
        ASSERT_EQ(compare(left.begin() + l, right.begin() + r, count), 0);
        last = static_cast<unsigned char>(last - 1);  // the pattern is never 0
        ASSERT_EQ(compare(left.begin() + l, right.begin() + r, count), -1) << l << ' ' << r;
        ASSERT_EQ(compare(right.begin() + r, left.begin() + l, count), +1) << l << ' ' << r;
      }
}

TEST_P(CompareMember, CountZeroReadsNothing) {
  const guarded_block block(4096);
  const unsigned char* const nobody = block.end();  // the guard page
  EXPECT_EQ(GetParam().compare(nobody, nobody + 1, 0), 0);
  EXPECT_EQ(GetParam().compare(nullptr, nobody, 0), 0);
}

INSTANTIATE_TEST_SUITE_P(Block, CompareMember, testing::ValuesIn(compare_members), name_of_row);

// "Below 1" as a signed number.
TEST(NewMemcmp, CountsFromTheUpperHalfAreNone) {
  EXPECT_EQ(__zorva_new_memcmp("a", "b", ~std::size_t{0}), 0);
  EXPECT_EQ(__zorva_new_memcmp("a", "b", std::size_t{1} << 63), 0);
}

TEST(FastMemcmp, IdenticalPointersAreNotRead) {
  const guarded_block block(4096);
  EXPECT_EQ(_zorva_fast_memcmp(block.end(), block.end(), 100), 0);
}

}  // namespace
}  // namespace zorvac::test
