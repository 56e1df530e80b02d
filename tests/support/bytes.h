#ifndef ZORVAC_TESTS_SUPPORT_BYTES_H
#define ZORVAC_TESTS_SUPPORT_BYTES_H
// Comparisons that report the first difference with its place.
//
//   EXPECT_BYTES(seen, expected)          byte 3 before the block: expected 0xff, seen 0x00
//   EXPECT_ELEMENTS(seen, expected)       element 7: expected 12 = 0x0c, seen 13 = 0x0d
//   EXPECT_MATRIX(seen, expected, rows)   row 2, column 7: expected 12 = 0x0c, seen 13 = 0x0d
//
// The seen value comes first. More text can be added to each with <<.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <type_traits>

namespace zorvac::test {

// Memory to compare. Its first bytes may lie before, and its last bytes behind, the block that the
// test is about. Any array, vector or string is a block.
struct bytes {
  template <class Range>
  bytes(const Range& block) : all(std::as_bytes(std::span(block))) {}  // NOLINT: to be implicit
  bytes(const void* first, std::size_t size, std::size_t leading = 0, std::size_t trailing = 0)
      : all(static_cast<const std::byte*>(first), size), before(leading), behind(trailing) {}

  // The place of a byte. Bytes of the block are counted from 0; bytes before and behind it are
  // counted from 1, away from the block.
  [[nodiscard]] std::string operator()(std::size_t at) const {
    const std::size_t end = all.size() - behind;
    if (at < before) return "byte " + std::to_string(before - at) + " before the block";
    if (at >= end) return "byte " + std::to_string(at - end + 1) + " behind the block";
    return "byte " + std::to_string(at - before) + " of the block";
  }

  std::span<const std::byte> all;
  std::size_t before = 0, behind = 0;
};

// The bits of an object in hexadecimal, high byte first.
inline std::string bits_of(std::span<const std::byte> object) {
  std::string text = "0x";
  char digits[3];
  for (std::size_t i = object.size(); i-- > 0; text += digits)
    std::snprintf(digits, sizeof digits, "%02x", std::to_integer<unsigned>(object[i]));
  return text;
}

// Objects of plain types are compared and shown by their bits: a NaN equals itself, zeros of
// different sign differ, and the texts of different values differ.
template <class T>
bool same_value(const T& a, const T& b) {
  if constexpr (!std::is_trivially_copyable_v<T>) return a == b;
  return std::memcmp(&a, &b, sizeof a) == 0;
}
template <class T>
std::string shown(const T& value) {
  if constexpr (!std::is_trivially_copyable_v<T>) return testing::PrintToString(value);
  const std::string bits = bits_of(std::as_bytes(std::span(&value, 1)));
  if constexpr (!requires(std::ostream & out) { out << value; }) return bits;
  return testing::PrintToString(value) + " = " + bits;
}

// Compares elements. `place` describes where the first difference is.
template <class Seen, class Expected, class Place>
testing::AssertionResult same_values(const char* name, const char*, const char*, const Seen& seen,
                                     const Expected& expected, const Place& place) {
  const std::size_t sizes[] = {std::size(seen), std::size(expected)};
  for (std::size_t i = 0; i < std::min(sizes[0], sizes[1]); ++i)
    if (!same_value(seen[i], expected[i]))
      return testing::AssertionFailure() << name << ", " << place(i) << ": expected "
                                         << shown(expected[i]) << ", seen " << shown(seen[i]);
  if (sizes[0] == sizes[1]) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << name << ": expected " << sizes[1] << " elements, seen " << sizes[0];
}

inline testing::AssertionResult same_bytes(const char* name, const char*, const bytes& seen,
                                           const bytes& expected) {
  const std::size_t size = seen.all.size();
  const bool may_be_same = size != 0 && size == expected.all.size();
  if (may_be_same && std::memcmp(seen.all.data(), expected.all.data(), size) == 0)
    return testing::AssertionSuccess();
  return same_values(name, "", "", seen.all, expected.all, seen);
}

// The description of an element's place.
inline std::string in_sequence(std::size_t i) { return "element " + std::to_string(i); }
// The same in a matrix that is stored column by column, without gaps.
inline auto in_matrix(std::size_t rows) {
  return [rows](std::size_t i) {
    return "row " + std::to_string(i % rows) + ", column " + std::to_string(i / rows);
  };
}

}  // namespace zorvac::test

#define EXPECT_BYTES(seen, expected) EXPECT_PRED_FORMAT2(::zorvac::test::same_bytes, seen, expected)
#define ASSERT_BYTES(seen, expected) ASSERT_PRED_FORMAT2(::zorvac::test::same_bytes, seen, expected)
#define EXPECT_ELEMENTS(seen, expected) \
  EXPECT_PRED_FORMAT3(::zorvac::test::same_values, seen, expected, ::zorvac::test::in_sequence)
#define EXPECT_MATRIX(seen, expected, rows) \
  EXPECT_PRED_FORMAT3(::zorvac::test::same_values, seen, expected, ::zorvac::test::in_matrix(rows))
#endif
