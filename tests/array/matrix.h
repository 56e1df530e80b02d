#ifndef ZORVAC_TESTS_ARRAY_MATRIX_H
#define ZORVAC_TESTS_ARRAY_MATRIX_H
// A matrix, or any array, that ends against a page that nobody may touch, amid bytes that are watched.
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/guard_pages.h"

namespace zorvac::test {

using u64 = std::uint64_t;

// The elements of a matrix column by column, without gaps.
template <class E>
using elements = std::vector<E>;

// A column-major matrix whose last element is `slack` bytes away from a guard page. All around its
// elements, and they themselves while nothing is put there, are bytes of 0xff: NaNs.
template <class E>
class matrix {
 public:
  matrix(u64 rows, u64 columns, u64 leading, const elements<E>& from = {}, u64 slack = 0)
      : ld(leading),
        rows_(rows),
        end_(slack + (columns == 0 ? 0 : ((columns - 1) * ld + rows) * sizeof(E))),
        block_(end_ + 64) {
    std::memset(block_.begin(), 0xff, block_.size());
    put(block_.end(), from);
  }
  [[nodiscard]] E* data() const { return reinterpret_cast<E*>(block_.end() - end_); }

  // Whether it has these elements, bit for bit, and nothing around them has changed.
  [[nodiscard]] bool holds(const elements<E>& expected) const {
    std::vector<unsigned char> image(block_.size(), 0xff);
    put(image.data() + image.size(), expected);
    return std::memcmp(image.data(), block_.begin(), image.size()) == 0;
  }
  const u64 ld;

 private:
  void put(unsigned char* end, const elements<E>& from) const {
    for (u64 at = 0; at < from.size(); at += rows_)
      std::memcpy(end - end_ + at / rows_ * ld * sizeof(E), &from[at], rows_ * sizeof(E));
  }
  u64 rows_, end_;  // `end_` bytes of the block begin with the first element
  guarded_block block_;
};

}  // namespace zorvac::test
#endif
