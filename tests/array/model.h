#ifndef ZORVAC_TESTS_ARRAY_MODEL_H
#define ZORVAC_TESTS_ARRAY_MODEL_H
// A model of the products: plain loops in the orders of summation that docs/kernels.md states, each
// product and each sum rounded by itself.
#include <cmath>
#include <complex>
#include <limits>
#include <random>
#include <type_traits>

#include "array/matrix.h"

namespace zorvac::test {

// How the terms of an element are added up: block after block, each from zero and then added to the
// element, or each onto the element.
struct summation {
  u64 block;
  bool from_zero, last_block_first = false;
};

template <class E>
constexpr bool is_complex = !std::is_floating_point_v<E>;
template <class E>
using part_of = std::conditional_t<sizeof(E) / (is_complex<E> ? 2 : 1) == 4, float, double>;

// Which NaN comes of several is nobody's promise: they all become the same.
template <class E>
void settle_nans(E* first, u64 count) {
  auto* const parts = reinterpret_cast<part_of<E>*>(first);
  for (u64 i = 0; i < count * sizeof(E) / sizeof *parts; ++i)
    if (std::isnan(parts[i])) parts[i] = NAN;
}

// A, B, in both of which the terms of an element of the product lie side by side, and what the
// product is added to.
template <class E>
struct problem {
  problem(u64 rows, u64 terms, u64 columns)
      : m(rows), k(terms), n(columns), a(random(k * m)), b(random(k * n)), onto(random(m * n)) {
    if (m < 3 || n < 3 || k == 0 || k % 3 != 0) return;
    // What is not finite stays in its row or column of C, and no zero hides it.
    a[m / 2 * k + k / 2] = E(std::numeric_limits<float>::infinity());
    b[(n - 1) * k + k / 2] = E{};
    b[n / 2 * k + k - 1] = E(NAN);
  }

  // The product added to `c`, each element in the order that `order(i, j)` says.
  template <class Order>
  [[nodiscard]] elements<E> added(elements<E> c, const Order& order) const {
    for (u64 i = 0; i < c.size(); ++i)
      c[i] = sum(c[i], a.data() + i % m * k, b.data() + i / m * k, order(i % m, i / m));
    settle_nans(c.data(), c.size());
    return c;
  }

  // Whether `c` is as near to `start` and the product as any order of summation comes: n terms of
  // unit roundoff u, none above 1, give an error of n u n in each part, and little more (Higham,
  // Accuracy and Stability of Numerical Algorithms, 3.1).
  [[nodiscard]] bool is_near(const elements<E>& c, const elements<E>& start) const {
    using wide = std::complex<long double>;
    const auto terms = static_cast<long double>(is_complex<E> ? 2 * k + 1 : k + 1);
    const long double unit = sizeof(part_of<E>) == 4 ? 0x1p-24L : 0x1p-53L;
    for (u64 i = 0; i < c.size(); ++i) {
      wide difference = wide(c[i]) - wide(start[i]);
      for (u64 t = 0; t < k; ++t) difference -= wide(a[i % m * k + t]) * wide(b[i / m * k + t]);
      if (std::abs(difference) > 2 * (terms + 1) * unit * terms) return false;
    }
    return true;
  }

  u64 m, k, n;
  elements<E> a, b, onto;

 private:
  static elements<E> random(u64 count) {
    static std::mt19937_64 source;
    std::uniform_real_distribution<part_of<E>> part(-1, 1);
    elements<E> result(count);
    for (E& x : result) {
      x = E(part(source));
      if constexpr (is_complex<E>) x.imag(part(source));
    }
    return result;
  }
  static E product(const E& x, const E& y) {
    if constexpr (is_complex<E>)
      return E(x.real() * y.real() - x.imag() * y.imag(),
               x.real() * y.imag() + x.imag() * y.real());
    else
      return x * y;
  }
  [[nodiscard]] E sum(E element, const E* x, const E* y, const summation& order) const {
    const u64 blocks = k == 0 ? 0 : (k - 1) / order.block + 1;
    for (u64 i = 0; i < blocks; ++i) {
      const u64 first = (order.last_block_first ? (i + blocks - 1) % blocks : i) * order.block;
      E part = order.from_zero ? E{} : element;
      for (u64 t = first; t < k && t < first + order.block; ++t) part += product(x[t], y[t]);
      element = order.from_zero ? element + part : part;
    }
    return element;
  }
};

}  // namespace zorvac::test
#endif
