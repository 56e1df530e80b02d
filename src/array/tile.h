#ifndef ZORVAC_ARRAY_TILE_H
#define ZORVAC_ARRAY_TILE_H
// A tile of C that stays in registers while products are added to it: the one inner loop of all
// matrix kernels.
//
//            B: a factor for each column        Every element has its own sum, in the order of k.
//               b0 b1 b2 b3                     Each product and each sum is rounded by itself. So
//      A  a0    c  c  c  c                      no sum depends on how many rows a register holds or
//         a1    c  c  c  c    k -->             how many registers a tile has.
//         a2    c  c  c  c
//
// All products of a column are computed before its sums where that was measured to be faster:
// everywhere but in wide complex tiles. There each product is added as soon as it is computed.
//
// The operands are parameters: `A` gives register R of the rows, `B` the factor of column J, and
// both step to the next k.
#include <utility>

#include "array/levels.h"
#include "core/inline.h"

namespace zorvac::array {
namespace {

template <int... I, class Body>
[[gnu::always_inline]] inline void repeat_for(std::integer_sequence<int, I...>, const Body& body) {
  (body.template operator()<I>(), ...);
}
// Calls body<0>(), body<1>(), ..., body<Count - 1>(): a loop whose index is a constant, so that
// arrays of registers stay in registers.
template <int Count, class Body>
[[gnu::always_inline]] inline void repeat(const Body& body) {
  repeat_for(std::make_integer_sequence<int, Count>{}, body);
}

template <class V, int Rows, int Columns>
struct tile {
  typename V::reg c[Columns][Rows];

  template <class A, class B>
  ZORVAC_INLINE void add_products(A& a, B& b) {
    typename V::operand x[Rows];
    repeat<Rows>([&]<int R>() ZORVAC_INLINE_LAMBDA {
      auto rows = a.template load<R>();
      if (R < 2) hold(rows);  // further ones are read from memory at each use
      x[R] = V::as_operand(rows);
    });
    repeat<Columns>([&]<int J>() ZORVAC_INLINE_LAMBDA {
      auto y = b.template factor<J>();
      V::hold_factor(y);
      typename V::reg product[Rows];
      const auto add = [&]<int R>() ZORVAC_INLINE_LAMBDA {
        c[J][R] += product[R];
        hold(c[J][R]);
      };
      repeat<Rows>([&]<int R>() ZORVAC_INLINE_LAMBDA {
        product[R] = V::product(x[R], y);
        hold(product[R]);
        if constexpr (!V::products_first) add.template operator()<R>();
      });
      if constexpr (V::products_first) repeat<Rows>(add);
    });
    a.step();
    b.step();
  }
};

[[gnu::always_inline]] inline std::size_t smaller(std::size_t a, std::size_t b) {
  return a < b ? a : b;
}

// The number of rows of the next panel, at most `Rows` registers of them, when `left` are left. Two
// panels of about the same size are better than a full and a narrow one: a narrow panel has too few
// sums to keep the adders busy.
template <class V, int Rows>
std::size_t rows_of_panel(std::size_t left) {
  constexpr std::size_t full = Rows * V::width;
  if (left <= full) return left;
  if (left >= 2 * full) return full;
  return (left / 2 + V::width - 1) / V::width * V::width;
}

}  // namespace
}  // namespace zorvac::array
#endif
