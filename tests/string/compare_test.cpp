// The comparison against the C library's: strings that differ, end, or reach the count anywhere.
#include "string/ground.h"

namespace zorvac::test {
namespace {

struct compare_member {
  const char* name;
  level instructions;
  int (*compare)(const char*, const char*, size_t);
};
class Compare : public over_levels<compare_member> {
 protected:
  static int sign(int n) { return (n > 0) - (n < 0); }
  static void check(const char* a, const char* b, std::size_t count) {
    ASSERT_EQ(sign(GetParam().compare(a, b, count)), sign(std::strncmp(a, b, count))) << count;
    ASSERT_EQ(sign(GetParam().compare(b, a, count)), sign(std::strncmp(b, a, count))) << count;
  }
};

TEST_P(Compare, EveryLengthAtEveryPlace) {
  std::mt19937 random(5);
  ground left, right;
  for (std::size_t length = 0; length <= 200; ++length)
    for (std::size_t gap = 0; gap < 64; ++gap)
      for (int change = 0; change < 4; ++change) {
        // Equal; one character different; one string longer; one shorter.
        const std::string text = random_text(length, random);
        std::string other = text;
        const std::size_t place = random() % (length + 1), other_gap = random() % 64;
        if (change == 1 && place < length) other[place] = '\x02';
        if (change == 2) other += random_text(1 + random() % 20, random);
        if (change == 3) other.resize(place);
        SCOPED_TRACE(testing::Message() << length << ' ' << gap << ' ' << other_gap);
        const char* const a = left.before_page(text, gap);
        const char* const b = right.before_page(other, other_gap);
        for (const std::size_t count : {std::size_t{0}, std::size_t{1}, place, place + 1, length,
                                        length + 1, length + 30, SIZE_MAX / 2, SIZE_MAX})
          check(a, b, count);
        check(left.behind_page(text, gap), right.behind_page(other, other_gap), length + 1);
        if (HasFatalFailure()) return;
      }
}

TEST_P(Compare, CountKeepsFromReadingOn) {
  ground left, right;
  for (std::size_t count = 0; count <= 200; ++count)
    for (std::size_t more = 0; more < 16; ++more) {
      ASSERT_EQ(GetParam().compare(left.end() - count, right.end() - count - more, count), 0);
      ASSERT_EQ(GetParam().compare(left.end() - count - more, right.end() - count, count), 0);
    }
}

constexpr compare_member compare_members[] = {{"Sse2", level::sse2, zorvac_sse2_strncmp},
                                              {"Sse4", level::sse4, zorvac_sse4_strncmp}};
INSTANTIATE_TEST_SUITE_P(String, Compare, testing::ValuesIn(compare_members), name_of_row);

}  // namespace
}  // namespace zorvac::test
