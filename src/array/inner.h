#ifndef ZORVAC_ARRAY_INNER_H
#define ZORVAC_ARRAY_INNER_H
// The inner kernels of the blocked products, on packed operands.
//
// A comes in panels of 4 rows, B in panels of 4 columns. In a panel the 4 values of one k lie side
// by side.
//
// The form with pairs first copies a panel of B to a strip that holds each value twice: one aligned
// load then gives the factor for a pair of rows. Each panel of A is multiplied with the strip.
//
// Wide registers spread a value while they load it, and need no strip. These forms take several
// panels of A together, which stay in the first-level cache while they meet a group of panels of B.
#include <pmmintrin.h>

#include "array/tile.h"

namespace zorvac::array {
namespace {

inline constexpr std::size_t panel_extent = 4;       // rows of A, columns of B
inline constexpr std::size_t full_block = 112;       // terms
inline constexpr std::size_t columns_together = 64;  // without a strip: 56 KB of packed B

// True: the level reads B from the strip. False: from the panels themselves.
template <class V>
inline constexpr bool has_strip = V::width == 2;

// Loads register R of the tile's rows from packed A. A pair is half a panel, 4 doubles are a panel.
template <class V>
struct packed_rows {
  const double* p;
  std::size_t panel;  // from one panel to the next

  template <int R>
  ZORVAC_INLINE typename V::reg load() const {
    if constexpr (V::width == 2) {
      return _mm_load_pd(p + (R % 2 == 0 ? 0 : 2) + (R / 2) * panel);
    } else {
      return V::memory::load(p + R * panel);
    }
  }
  ZORVAC_INLINE void step() { p += panel_extent; }
};

// Loads the factor of column J from a panel of B or from the strip.
template <class V>
struct packed_columns {
  static constexpr std::size_t times = has_strip<V> ? 2 : 1;
  const double* p;

  template <int J>
  ZORVAC_INLINE typename V::factor factor() const {
    if constexpr (has_strip<V>)
      return _mm_load_pd(p + J * times);
    else
      return V::as_factor(p[J * times]);
  }
  ZORVAC_INLINE void step() { p += panel_extent * times; }
};

struct inner_block {
  const double* a;
  const double* b;
  double* c;
  std::size_t ldc;
  std::size_t rows, columns, terms;
  bool accumulate;  // add to C rather than overwrite it
};

// Multiplies `Rows` registers of rows, from row i on, with the panel of B at column j.
template <class V, int Rows, int Terms>
ZORVAC_INLINE void inner_tile(const inner_block& w, std::size_t i, std::size_t j) {
  constexpr std::size_t rows = Rows * V::width;
  const std::size_t ldc = w.ldc;
  double* const c = w.c + i + j * ldc;
  repeat<4>([&]<int J>() ZORVAC_INLINE_LAMBDA {
    for (std::size_t line = 0; line < rows; line += 8) __builtin_prefetch(c + J * ldc + line, 0, 0);
  });
  packed_rows<V> a{w.a + i * w.terms, w.terms * panel_extent};
  packed_columns<V> b{w.b + j * w.terms};
  tile<V, Rows, 4> sum{};
  for (std::size_t k = w.terms; k != 0; k -= Terms)
    repeat<Terms>([&]<int>() ZORVAC_INLINE_LAMBDA { sum.add_products(a, b); });
  const auto each = [&](auto body) ZORVAC_INLINE_LAMBDA {
    repeat<4>([&]<int J>() ZORVAC_INLINE_LAMBDA {
      repeat<Rows>([&]<int R>()
                       ZORVAC_INLINE_LAMBDA { body(c + J * ldc + R * V::width, sum.c[J][R]); });
    });
  };
  if (w.accumulate) {
    each([](double* to, auto x)
             ZORVAC_INLINE_LAMBDA { V::memory::store(to, V::memory::load(to) + x); });
  } else {
    each([](double* to, auto x) ZORVAC_INLINE_LAMBDA { V::memory::store(to, x); });
  }
}

template <class V, int Rows, int Terms>
[[gnu::noinline]] void inner_tiles(const inner_block& w) {
  for (std::size_t i = 0, rows = 0; i < w.rows; i += rows) {
    rows = rows_of_panel<V, Rows>(w.rows - i);
    repeat<Rows>([&]<int R>() ZORVAC_INLINE_LAMBDA {
      if (rows != (R + 1) * V::width) return;
      for (std::size_t j = 0; j < w.columns; j += panel_extent)
        inner_tile<V, R + 1, Terms>(w, i, j);
    });
  }
}

// Copies every value of a panel of B twice to the strip, by MOVDDUP.
ZORVAC_INLINE void fill_strip(double* strip, const double* b, std::size_t terms) {
  for (const double* const end = b + terms * panel_extent; b != end; b += 4, strip += 8)
    repeat<4>([&]<std::size_t J>()
                  ZORVAC_INLINE_LAMBDA { _mm_store_pd(strip + 2 * J, _mm_loaddup_pd(b + J)); });
}

// Tiles have at most `Rows` registers of rows. A step of the loop does `Terms` terms: 1 or 2,
// whichever lets the compiler keep all sums in registers.
template <class V, int Rows, int Terms>
ZORVAC_INLINE void inner(const std::uint64_t* m, const std::uint64_t* n, std::size_t terms,
                         const double* a, const double* b, double* c, const std::uint64_t* ldc,
                         double* strip, bool accumulate) {
  inner_block w{a, strip, c, *ldc, *m, 0, terms, accumulate};
  for (std::size_t j = 0; j < *n; j += w.columns) {
    w.columns = smaller(*n - j, has_strip<V> ? panel_extent : columns_together);
    w.c = c + j * w.ldc;
    if constexpr (has_strip<V>)
      fill_strip(strip, b + j * terms, terms);
    else
      w.b = b + j * terms;
    inner_tiles<V, Rows, Terms>(w);
  }
}

}  // namespace
}  // namespace zorvac::array

// Defines the two inner kernels in one form, for example
// ZORVAC_INNER_KERNELS(V, real<avx2, double>, 2, 2).
#define ZORVAC_INNER_KERNELS(form, ...)                                                          \
  extern "C" {                                                                                   \
  void inner_roll_##form(const std::uint64_t*, const std::uint64_t*, const std::uint64_t*,       \
                         const double*, const double*, const std::uint64_t*, double*,            \
                         const std::uint64_t*, double*,                                          \
                         const std::uint64_t*) __asm__("__zorva_dinnerz_roll_xk64w." #form);     \
  void inner_##form(const std::uint64_t*, const std::uint64_t*, const std::uint64_t*,            \
                    const double*, const double*, const std::uint64_t*, double*,                 \
                    const std::uint64_t*, double*,                                               \
                    const std::uint64_t*) __asm__("__zorva_dinner_xk64w." #form);                \
  void inner_roll_##form(const std::uint64_t* m, const std::uint64_t* n, const std::uint64_t* k, \
                         const double* a, const double* b, const std::uint64_t*, double* c,      \
                         const std::uint64_t* ldc, double* strip, const std::uint64_t*) {        \
    using namespace zorvac::array;                                                               \
    inner<__VA_ARGS__>(m, n, *k, a, b, c, ldc, strip, false);                                    \
  }                                                                                              \
  void inner_##form(const std::uint64_t* m, const std::uint64_t* n, const std::uint64_t*,        \
                    const double* a, const double* b, const std::uint64_t*, double* c,           \
                    const std::uint64_t* ldc, double* strip, const std::uint64_t*) {             \
    using namespace zorvac::array;                                                               \
    inner<__VA_ARGS__>(m, n, full_block, a, b, c, ldc, strip, true);                             \
  }                                                                                              \
  }
#endif
