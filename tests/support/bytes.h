#ifndef ZORVAC_TESTS_SUPPORT_BYTES_H
#define ZORVAC_TESTS_SUPPORT_BYTES_H
// Comparisons that tell the first difference with its place.
//
//   EXPECT_BYTES(around(at, 100, 16), expected)   byte 3 before the block: expected 0xff, seen 0x00
//   EXPECT_ELEMENTS(seen, expected)               element 7: expected 12, seen 13
//   EXPECT_MATRIX(seen, expected, rows)           row 2, column 7: expected 12, seen 13
//
// What is seen comes first. All of them take more to print with <<, and have an ASSERT_ form.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <type_traits>

namespace zorvac::test {

// Memory to be compared: a block, and so many of the bytes before and behind it. Any array, vector
// or string is a block.
struct bytes {
  template <class Range>
  bytes(const Range& block) : all(std::as_bytes(std::span(block))) {}  // NOLINT: to be implicit
  bytes(const void* first, std::size_t size, std::size_t outside_before = 0,
        std::size_t outside_behind = 0)
      : all(static_cast<const std::byte*>(first), size),
        before(outside_before),
        behind(outside_behind) {}

  // Bytes of the block are counted from 0. Those before and behind it are counted from 1, away from
  // it.
  [[nodiscard]] std::string place(std::size_t at) const {
    const std::size_t end = all.size() - behind;
    if (at < before) return "byte " + std::to_string(before - at) + " before the block";
    if (at >= end) return "byte " + std::to_string(at - end + 1) + " behind the block";
    return "byte " + std::to_string(at - before) + " of the block";
  }

  std::span<const std::byte> all;
  std::size_t before = 0, behind = 0;
};

// A block with `margin` bytes on either side.
inline bytes around(const void* block, std::size_t size, std::size_t margin) {
  return {static_cast<const std::byte*>(block) - margin, size + 2 * margin, margin, margin};
}

// The bits of an object in hexadecimal, high byte first.
inline std::string bits_of(std::span<const std::byte> object) {
  std::string text = "0x";
  for (std::size_t i = object.size(); i-- > 0;) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", std::to_integer<unsigned>(object[i]));
    text += digits;
  }
  return text;
}

inline testing::AssertionResult differ(const char* name, const std::string& place,
                                       const std::string& expected, const std::string& seen) {
  return testing::AssertionFailure()
         << name << ", " << place << ": expected " << expected << ", seen " << seen;
}

inline testing::AssertionResult same_bytes(const char* name, const char*, const bytes& seen,
                                           const bytes& expected) {
  const std::size_t common = std::min(seen.all.size(), expected.all.size());
  if (common == 0 || std::memcmp(seen.all.data(), expected.all.data(), common) == 0) {
    if (seen.all.size() == expected.all.size()) return testing::AssertionSuccess();
    return differ(name, "bytes", std::to_string(expected.all.size()),
                  std::to_string(seen.all.size()));
  }
  std::size_t at = 0;
  while (seen.all[at] == expected.all[at]) ++at;
  return differ(name, seen.place(at), bits_of(expected.all.subspan(at, 1)),
                bits_of(seen.all.subspan(at, 1)));
}

// Objects of plain types are compared, and shown, by their bits: NaNs are equal, zeros of different
// signs are not, and neighbours do not look alike.
template <class T>
bool same_value(const T& a, const T& b) {
  if constexpr (std::is_trivially_copyable_v<T>)
    return std::memcmp(&a, &b, sizeof a) == 0;
  else
    return a == b;
}
template <class T>
std::string shown(const T& value) {
  std::string text;
  if constexpr (requires(std::ostream & out) { out << value; })
    text = testing::PrintToString(value) + ' ';
  if constexpr (std::is_trivially_copyable_v<T>)
    text += '(' + bits_of(std::as_bytes(std::span(&value, 1))) + ')';
  return text;
}

template <class Seen, class Expected, class Place>
testing::AssertionResult same_values(const char* name, const Seen& seen, const Expected& expected,
                                     const Place& place) {
  const std::size_t common = std::min(std::size(seen), std::size(expected));
  for (std::size_t i = 0; i < common; ++i)
    if (!same_value(seen[i], expected[i]))
      return differ(name, place(i), shown(expected[i]), shown(seen[i]));
  if (std::size(seen) == std::size(expected)) return testing::AssertionSuccess();
  return differ(name, "elements", std::to_string(std::size(expected)),
                std::to_string(std::size(seen)));
}

template <class Seen, class Expected>
testing::AssertionResult same_elements(const char* name, const char*, const Seen& seen,
                                       const Expected& expected) {
  const auto place = [](std::size_t i) { return "element " + std::to_string(i); };
  return same_values(name, seen, expected, place);
}

// Of matrices that are stored column by column, without gaps.
template <class Seen, class Expected>
testing::AssertionResult same_matrix(const char* name, const char*, const char*, const Seen& seen,
                                     const Expected& expected, std::size_t rows) {
  const auto place = [rows](std::size_t i) {
    return "row " + std::to_string(i % rows) + ", column " + std::to_string(i / rows);
  };
  return same_values(name, seen, expected, place);
}

}  // namespace zorvac::test

#define EXPECT_BYTES(seen, expected) EXPECT_PRED_FORMAT2(::zorvac::test::same_bytes, seen, expected)
#define ASSERT_BYTES(seen, expected) ASSERT_PRED_FORMAT2(::zorvac::test::same_bytes, seen, expected)
#define EXPECT_ELEMENTS(seen, expected) \
  EXPECT_PRED_FORMAT2(::zorvac::test::same_elements, seen, expected)
#define ASSERT_ELEMENTS(seen, expected) \
  ASSERT_PRED_FORMAT2(::zorvac::test::same_elements, seen, expected)
#define EXPECT_MATRIX(seen, expected, rows) \
  EXPECT_PRED_FORMAT3(::zorvac::test::same_matrix, seen, expected, rows)
#define ASSERT_MATRIX(seen, expected, rows) \
  ASSERT_PRED_FORMAT3(::zorvac::test::same_matrix, seen, expected, rows)
#endif
