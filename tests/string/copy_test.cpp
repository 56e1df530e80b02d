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

using copy_function = char*(char*, const char*, size_t);

// Those without a count are given one, too, and ignore it.
enum class kind { plain, counted, plain_append, counted_append };
struct copy_member {
  const char* name;
  level instructions;
  copy_function *call, *oracle;
  kind what;

  [[nodiscard]] bool appends() const { return what >= kind::plain_append; }
  [[nodiscard]] bool counts() const {
    return what == kind::counted || what == kind::counted_append;
  }
};
template <auto Plain>
char* without_count(char* to, const char* from, size_t) {
  return Plain(to, from);
}
#define PLAIN(l, op, kind) \
  { #l #op, level::l, without_count < zorvac_##l##_##op>, without_count < op>, kind }
#define COUNTED(l, op, kind) \
  { #l #op, level::l, zorvac_##l##_##op, op, kind }
#define COPIES(l)                                               \
  PLAIN(l, strcpy, kind::plain), PLAIN(l, stpcpy, kind::plain), \
      COUNTED(l, strncpy, kind::counted), COUNTED(l, stpncpy, kind::counted)
#define APPENDS(l) PLAIN(l, strcat, kind::plain_append), COUNTED(l, strncat, kind::counted_append)
const copy_member copy_members[] = {COPIES(sse2), COPIES(ssse3), COPIES(sse4), APPENDS(sse2),
                                    APPENDS(sse4)};

class Copy : public over_levels<copy_member> {
 protected:
  // Copies into room that ends `gap` bytes before an unreadable page.
  void check(const char* source, std::size_t count, const std::string& prefix, std::size_t gap) {
    const copy_member& m = GetParam();
    char expected[512];
    std::memcpy(expected, prefix.c_str(), prefix.size() + 1);
    const std::ptrdiff_t returned = m.oracle(expected, source, count) - std::begin(expected);
    const std::size_t copied = strnlen(source, m.counts() ? count : SIZE_MAX);
    const std::size_t written =
        m.what == kind::counted ? count : copied + 1 + (m.appends() ? prefix.size() : 0);
    char* const to = destination_.room(written, gap);
    if (m.appends()) std::memcpy(to, prefix.c_str(), prefix.size() + 1);
    ASSERT_EQ(m.call(to, source, count) - to, returned);
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
  if (!GetParam().counts()) return;
  ground source;
  for (std::size_t count = 0; count <= 200; ++count)
    for (std::size_t to_gap = 0; to_gap < 16; ++to_gap) {
      SCOPED_TRACE(count);
      check(source.end() - count, count, "prefix", to_gap);
      if (HasFatalFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(String, Copy, testing::ValuesIn(copy_members), name_of_row);

TEST(Duplicate, IsEqualAndFromMallocOrNull) {
  std::mt19937 random(4);
  ground g;
  for (const level l : {level::sse2, level::sse4})
    for (std::size_t length = 0; length <= 200 && host_has(l); ++length) {
      auto* const duplicate = l == level::sse2 ? zorvac_sse2_strdup : zorvac_sse4_strdup;
      const std::string text = random_text(length, random);
      const char* const s = g.before_page(text, length % 64);
      char* const twin = duplicate(s);
      ASSERT_NE(twin, nullptr);
      EXPECT_EQ(twin, text);
      std::free(twin);
      out_of_memory = true;
      char* const none = duplicate(s);
      out_of_memory = false;
      EXPECT_EQ(none, nullptr);
    }
}

}  // namespace
}  // namespace zorvac::test
