// Scans against the C library's, at every length and every place.
#include "string/ground.h"

namespace zorvac::test {
namespace {

struct scan_member {
  const char* name;
  level instructions;
  size_t (*length)(const char*);
  char* (*end)(const char*);
  size_t (*bounded)(const char*, size_t);
  char* (*first)(const char*, int);
  char* (*last)(const char*, int);
};
constexpr scan_member scan_members[] = {
    {"Sse2", level::sse2, zorvac_sse2_strlen, zorvac_sse2_strend, zorvac_sse2_strnlen,
     zorvac_sse2_strchr, zorvac_sse2_strrchr},
    {"Ssse3", level::ssse3, nullptr, nullptr, nullptr, nullptr, zorvac_ssse3_strrchr},
    {"Sse4", level::sse4, zorvac_sse4_strlen, zorvac_sse4_strend, zorvac_sse4_strnlen,
     zorvac_sse4_strchr, zorvac_sse4_strrchr}};

class Scan : public over_levels<scan_member> {
 protected:
  // The C library's answers, and those for characters that stand only behind the end.
  static void check(const char* s) {
    const scan_member& m = GetParam();
    for (const int c : {int{'a'}, 'b' + 256, 0x80, 0xff, -1, 1, 0, int{ground::around}, int{'z'}}) {
      if (m.first != nullptr) {
        ASSERT_EQ(m.first(s, c), std::strchr(s, c)) << c;
      }
      ASSERT_EQ(m.last(s, c), std::strrchr(s, c)) << c;
    }
    if (m.length == nullptr) return;
    const std::size_t length = std::strlen(s);
    ASSERT_EQ(m.length(s), length);
    ASSERT_EQ(m.end(s), s + length);
    for (const std::size_t limit :
         {std::size_t{0}, std::size_t{1}, length / 2, length - (length != 0), length, length + 1,
          length + 15, length + 16, SIZE_MAX - 1, SIZE_MAX})
      ASSERT_EQ(m.bounded(s, limit), strnlen(s, limit)) << limit;
  }
};

TEST_P(Scan, EveryLengthAtEveryPlace) {
  std::mt19937 random(1);
  ground g;
  for (std::size_t length = 0; length <= 200; ++length)
    for (std::size_t gap = 0; gap < 64; ++gap) {
      SCOPED_TRACE(testing::Message() << "length " << length << ", gap " << gap);
      const std::string text = random_text(length, random);
      check(g.before_page(text, gap));
      check(g.behind_page(text, gap));
      // One occurrence anywhere.
      std::string lonely(length, 'b');
      if (length != 0) lonely[random() % length] = 'a';
      check(g.before_page(lonely, gap));
      // A zero right in front is no end.
      char* const s = g.before_page(text, gap);
      s[-1] = 0;
      check(s);
      if (HasFatalFailure()) return;
    }
}

TEST_P(Scan, LimitKeepsFromReadingOn) {
  if (GetParam().bounded == nullptr) return;  // no such member at this level
  ground g;
  for (std::size_t limit = 0; limit <= 200; ++limit)
    ASSERT_EQ(GetParam().bounded(g.end() - limit, limit), limit);
}

INSTANTIATE_TEST_SUITE_P(String, Scan, testing::ValuesIn(scan_members), name_of_row);

}  // namespace
}  // namespace zorvac::test
