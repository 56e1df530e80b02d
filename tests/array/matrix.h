#ifndef ZORVAC_TESTS_ARRAY_MATRIX_H
#define ZORVAC_TESTS_ARRAY_MATRIX_H
// A matrix, or any array, that ends against a page that nobody may touch, amid bytes that are watched.
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/guard_pages.h"

namespace zorvac::test {

using u64 = std::uint64_t;

// A column-major matrix whose last element is `slack` bytes away from a guard page. All around its
// elements, and they themselves while nothing is put there, are bytes of 0xff: NaNs. Its elements
// are told column by column, without gaps.
template <class E>
struct matrix {
  matrix(u64 m, u64 n, u64 leading, const std::vector<E>& from = {}, u64 slack = 0)
      : rows(m),
        ld(leading),
        from_end(slack + (m * n == 0 ? 0 : ((n - 1) * ld + m) * sizeof(E))),
        block(from_end + 64) {
    std::memcpy(block.begin(), image(from).data(), block.size());
  }
  [[nodiscard]] E* data() const { return reinterpret_cast<E*>(block.end() - from_end); }

  // Whether it has these elements, bit for bit, and nothing around them has changed.
  [[nodiscard]] bool holds(const std::vector<E>& expected) const {
    return std::memcmp(block.begin(), image(expected).data(), block.size()) == 0;
  }
  // The block with these elements in it.
  [[nodiscard]] std::vector<unsigned char> image(const std::vector<E>& from) const {
    std::vector<unsigned char> bytes(block.size(), 0xff);
    for (u64 at = 0; at < from.size(); at += rows)
      std::memcpy(&bytes[bytes.size() - from_end + at / rows * ld * sizeof(E)], &from[at],
                  rows * sizeof(E));
    return bytes;
  }
  const u64 rows, ld, from_end;
  const guarded_block block;
};

}  // namespace zorvac::test
#endif
