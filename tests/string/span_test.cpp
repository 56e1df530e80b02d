// Spans against the C library's, with sets of 0 to 40 characters.
#include <vector>

#include "string/ground.h"

namespace zorvac::test {
namespace {

struct span_member {
  const char* name;
  level instructions;
  size_t (*within)(const char*, const char*);
  size_t (*without)(const char*, const char*);
  char* (*any)(const char*, const char*);
  char* (*token)(char*, const char*);
};
constexpr span_member span_members[] = {
    {"Sse2", level::sse2, zorvac_sse2_strspn, zorvac_sse2_strcspn, zorvac_sse2_strpbrk,
     zorvac_sse2_strtok},
    {"Sse4", level::sse4, zorvac_sse4_strspn, zorvac_sse4_strcspn, zorvac_sse4_strpbrk,
     zorvac_sse4_strtok}};

class Span : public over_levels<span_member> {
 protected:
  // `count` different characters out of all but zero.
  static std::string random_set(std::size_t count) {
    std::string all(255, 0);
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<char>(i + 1);
    std::shuffle(all.begin(), all.end(), random_);
    return all.substr(0, count);
  }
  // `length` characters, those from `stray` on sometimes not from `set`.
  static std::string text_of(const std::string& set, std::size_t length, std::size_t stray) {
    std::string text(length, 0);
    for (std::size_t i = 0; i < length; ++i)
      text[i] = set.empty() || (i >= stray && random_() % 4 == 0)
                    ? static_cast<char>(1 + random_() % 255)
                    : set[random_() % set.size()];
    return text;
  }
  static void check(const char* s, const char* set) {
    ASSERT_EQ(GetParam().within(s, set), std::strspn(s, set));
    ASSERT_EQ(GetParam().without(s, set), std::strcspn(s, set));
    ASSERT_EQ(GetParam().any(s, set), std::strpbrk(s, set));
  }
  static std::mt19937 random_;
};
std::mt19937 Span::random_(6);

TEST_P(Span, EveryLengthAtEveryPlaceForEverySetSize) {
  ground g, set_ground;
  for (std::size_t length = 0; length <= 200; ++length)
    for (std::size_t gap = 0; gap < 64; ++gap) {
      const std::size_t size = (length + gap) % 41, set_gap = random_() % 32;
      SCOPED_TRACE(testing::Message() << length << ' ' << gap << ' ' << size << ' ' << set_gap);
      const std::string members = random_set(size), others = random_set(20);
      const char* const set = set_ground.before_page(members, set_gap);
      const std::size_t stray = random_() % (length + 1);
      check(g.before_page(text_of(members, length, stray), gap), set);
      check(g.behind_page(text_of(members, length, length), gap), set);
      check(g.before_page(text_of(others, length, length), gap), set);
      // The last member is looked at too.
      check(g.before_page(std::string(length, size != 0 ? members.back() : 'a'), gap), set);
      // A zero right in front is no end, and the bytes behind the end are not the string's.
      char* const s = g.before_page(text_of(members, length, stray), gap);
      s[-1] = 0;
      check(s, set);
      if (HasFatalFailure()) return;
    }
}

// Few separators, or more than two blocks hold.
TEST_P(Span, TokensAreTheCLibrarys) {
  ground g, set_ground;
  for (int turn = 0; turn < 3000; ++turn) {
    const std::string separators = random_set(turn % 2 == 0 ? random_() % 6 : random_() % 41);
    const char* const set = set_ground.before_page(separators, random_() % 20);
    std::string text = text_of(separators.empty() ? "a" : separators, random_() % 80, 0);
    for (char& c : text)
      if (random_() % 3 != 0) c = static_cast<char>('a' + random_() % 3);
    std::string copy = text;
    char* const s = g.before_page(text, random_() % 64);
    char* state = nullptr;
    const char* expected = strtok_r(copy.data(), set, &state);
    const char* token = GetParam().token(s, set);
    for (; expected != nullptr; expected = strtok_r(nullptr, set, &state)) {
      ASSERT_NE(token, nullptr);
      ASSERT_STREQ(token, expected);
      ASSERT_EQ(token - s, expected - copy.data());
      token = GetParam().token(nullptr, set);
    }
    ASSERT_EQ(token, nullptr);
    ASSERT_EQ(GetParam().token(nullptr, set), nullptr) << "nothing follows the last token";
  }
}

TEST_P(Span, LevelsShareOneTokenState) {
  char text[] = "one,two";
  if (!host_has(level::sse4)) GTEST_SKIP();
  EXPECT_STREQ(GetParam().token(text, ","), "one");
  EXPECT_STREQ(zorvac_sse2_strtok(nullptr, ","), "two");
  EXPECT_EQ(zorvac_sse4_strtok(nullptr, ","), nullptr);
}

INSTANTIATE_TEST_SUITE_P(String, Span, testing::ValuesIn(span_members), name_of_row);

}  // namespace
}  // namespace zorvac::test
