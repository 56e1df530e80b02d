// Copies against the C library's: what is written, what is not, what is returned.
#include <cstdlib>

#include "string/ground.h"

namespace {
bool out_of_memory = false;
}
extern "C" void* __real_malloc(std::size_t bytes);
extern "C" void* __wrap_malloc(std::size_t bytes) {
  return out_of_memory ? nullptr : __real_malloc(bytes);
}

namespace zorvac::test {
namespace {

using copy_string = char*(char*, const char*);
using copy_counted = char*(char*, const char*, size_t);

struct copy_member {
  const char* name;
  level instructions;
  copy_string *plain, *plain_oracle;
  copy_counted *counted, *counted_oracle;
  bool appends;
};
#define PLAIN(name, l, op) \
  { name, level::l, zorvac_##l##_##op, op, nullptr, nullptr, false }
#define COUNTED(name, l, op) \
  { name, level::l, nullptr, nullptr, zorvac_##l##_##op, op, false }
const copy_member copy_members[] = {
    PLAIN("Sse2Strcpy", sse2, strcpy),
    PLAIN("Sse2Stpcpy", sse2, stpcpy),
    COUNTED("Sse2Strncpy", sse2, strncpy),
    COUNTED("Sse2Stpncpy", sse2, stpncpy),
    PLAIN("Ssse3Strcpy", ssse3, strcpy),
    PLAIN("Ssse3Stpcpy", ssse3, stpcpy),
    COUNTED("Ssse3Strncpy", ssse3, strncpy),
    COUNTED("Ssse3Stpncpy", ssse3, stpncpy),
    PLAIN("Sse4Strcpy", sse4, strcpy),
    PLAIN("Sse4Stpcpy", sse4, stpcpy),
    COUNTED("Sse4Strncpy", sse4, strncpy),
    COUNTED("Sse4Stpncpy", sse4, stpncpy),
    {"Sse2Strcat", level::sse2, zorvac_sse2_strcat, strcat, nullptr, nullptr, true},
    {"Sse2Strncat", level::sse2, nullptr, nullptr, zorvac_sse2_strncat, strncat, true},
    {"Sse4Strcat", level::sse4, zorvac_sse4_strcat, strcat, nullptr, nullptr, true},
    {"Sse4Strncat", level::sse4, nullptr, nullptr, zorvac_sse4_strncat, strncat, true}};
#undef PLAIN
#undef COUNTED

class Copy : public over_levels<copy_member> {
 protected:
  // Copies into room that ends `gap` bytes before an unreadable page.
  void check(const char* source, std::size_t count, const std::string& prefix, std::size_t gap) {
    const copy_member& m = GetParam();
    const auto call = [&](char* to, copy_string* plain, copy_counted* counted) {
      return plain != nullptr ? plain(to, source) : counted(to, source, count);
    };
    char expected[512];
    std::memcpy(expected, prefix.c_str(), prefix.size() + 1);
    const std::ptrdiff_t returned =
        call(expected, m.plain_oracle, m.counted_oracle) - static_cast<char*>(expected);
    const std::size_t copied = strnlen(source, m.plain != nullptr ? SIZE_MAX : count);
    const std::size_t written = m.appends            ? prefix.size() + copied + 1
                                : m.plain != nullptr ? copied + 1
                                                     : count;
    char* const to = destination_.room(written, gap);
    if (m.appends) std::memcpy(to, prefix.c_str(), prefix.size() + 1);
    ASSERT_EQ(call(to, m.plain, m.counted) - to, returned);
    ASSERT_EQ(std::string(to, written), std::string(expected, written));
    ASSERT_TRUE(destination_.untouched_around(to, to + written));
  }
  ground destination_;
};

TEST_P(Copy, EveryLengthFromAndToEveryPlace) {
  std::mt19937 random(2);
  ground source;
  for (std::size_t length = 0; length <= 200; ++length)
    for (std::size_t gap = 0; gap < 64; ++gap) {
      const char* const s = source.before_page(random_text(length, random), gap);
      for (const std::size_t count : {length - (length != 0), length, length + 1, length + 17,
                                      random() % (length + 1), std::size_t{250}}) {
        const std::size_t to_gap = random() % 17;
        SCOPED_TRACE(testing::Message() << "length " << length << ", gap " << gap << ", count "
                                        << count << ", destination gap " << to_gap);
        check(s, count, random_text(random() % 40, random), to_gap);
        if (HasFatalFailure()) return;
      }
    }
}

TEST_P(Copy, CountKeepsFromReadingOn) {
  if (GetParam().counted == nullptr) return;
  ground source;
  for (std::size_t count = 0; count <= 200; ++count)
    for (std::size_t to_gap = 0; to_gap < 16; ++to_gap) {
      SCOPED_TRACE(count);
      check(source.end() - count, count, "prefix", to_gap);
      if (HasFatalFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(String, Copy, testing::ValuesIn(copy_members), name_of_row);

struct twin_member {
  const char* name;
  level instructions;
  char* (*duplicate)(const char*);
};
class Duplicate : public over_levels<twin_member> {};

TEST_P(Duplicate, IsEqualAndFromMalloc) {
  std::mt19937 random(4);
  ground g;
  for (std::size_t length = 0; length <= 200; ++length) {
    const std::string text = random_text(length, random);
    char* const twin = GetParam().duplicate(g.before_page(text, length % 64));
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(twin, text);
    std::free(twin);
  }
}
TEST_P(Duplicate, IsNullWithoutMemory) {
  out_of_memory = true;
  char* const twin = GetParam().duplicate("text");
  out_of_memory = false;
  EXPECT_EQ(twin, nullptr);
}
constexpr twin_member twin_members[] = {{"Sse2", level::sse2, zorvac_sse2_strdup},
                                        {"Sse4", level::sse4, zorvac_sse4_strdup}};
INSTANTIATE_TEST_SUITE_P(String, Duplicate, testing::ValuesIn(twin_members), name_of_row);

}  // namespace
}  // namespace zorvac::test
