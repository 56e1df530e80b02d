#ifndef ZORVAC_TESTS_STRING_GROUND_H
#define ZORVAC_TESTS_STRING_GROUND_H
// Strings in the places where a block-wise routine goes wrong: right before an unreadable page, and
// right behind one, at every alignment, between bytes that look like more of the string.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "zorvac/string.h"

namespace zorvac::test {

enum class level { sse2, ssse3, sse4 };

inline bool host_has(level l) {
  if (l == level::ssse3) return __builtin_cpu_supports("ssse3") != 0;
  return l == level::sse2 || __builtin_cpu_supports("sse4.2") != 0;
}

// A test over the levels' members, skipped where the processor cannot run them.
template <class Member>
class over_levels : public testing::TestWithParam<Member> {
 protected:
  void SetUp() override {
    if (!host_has(this->GetParam().instructions)) GTEST_SKIP() << "this processor cannot run it";
  }
};

// Two readable pages.
class ground {
 public:
  static constexpr char around = '~';
  ground() { std::memset(block_.begin(), around, block_.size()); }

  // Puts the string and its zero where `gap` bytes are left in front of the unreadable page.
  char* before_page(const std::string& text, std::size_t gap) {
    return put(end() - gap - text.size() - 1, text);
  }
  // And where `gap` bytes are left behind the unreadable page.
  char* behind_page(const std::string& text, std::size_t gap) { return put(begin() + gap, text); }

  // `bytes` bytes for a result, `gap` bytes before the page.
  char* room(std::size_t bytes, std::size_t gap) {
    std::memset(begin(), around, block_.size());
    return end() - gap - bytes;
  }
  // Whether all is untouched but those.
  [[nodiscard]] bool untouched_around(const char* from, const char* to) const {
    const auto clean = [](const char* begin, const char* end) {
      return std::all_of(begin, end, [](char c) { return c == around; });
    };
    return clean(begin(), from) && clean(to, end());
  }

  [[nodiscard]] char* begin() const { return reinterpret_cast<char*>(block_.begin()); }
  [[nodiscard]] char* end() const { return reinterpret_cast<char*>(block_.end()); }

 private:
  char* put(char* at, const std::string& text) {
    std::memset(begin(), around, block_.size());
    std::memcpy(at, text.c_str(), text.size() + 1);
    return at;
  }
  guarded_block block_{4096};
};

// Characters that are mistaken for each other: neighbours, the highest, those whose bits 0 and 7
// mislead arithmetic on words.
inline std::string random_text(std::size_t length, std::mt19937& random) {
  static constexpr char characters[] = {'a', 'b', '\x01', '\x7f', '\x80', '\x81', '\xfe', '\xff'};
  std::string text(length, 'a');
  for (char& c : text) c = characters[random() % 8];
  return text;
}

}  // namespace zorvac::test
#endif
