#ifndef ZORVAC_ARRAY_MATMUL_GENERAL_H
#define ZORVAC_ARRAY_MATMUL_GENERAL_H
// The general kernels, C := C + op(A) op(B): one template over the element type at a processor
// level and over the storage of A and B. docs/kernels.md states the order of every sum.
//
// B is cut into blocks that stay in the cache. Each block meets A panel by panel. A panel is a few
// registers of rows. It is first copied, so that its rows lie side by side, in three cases: A is
// stored transposed; many columns are going to meet the panel; its last register is not full and
// the level has no masks.
#include "array/tile.h"

namespace zorvac::array {
namespace {

enum class stored { as_used, transposed };

inline constexpr std::size_t block_terms = 128;
inline constexpr std::size_t few_columns = 24;        // up to here, copying A does not pay
inline constexpr std::size_t cached_bytes = 1 << 18;  // of a block of B, which meets all rows of A
inline constexpr std::size_t aside_columns = 64;      // whose sums are kept aside at a time

// A panel of C, and the operands whose product is added to it.
template <class Element>
struct panel {
  const Element* a;
  std::size_t a_step;  // from one k to the next
  const Element* b;
  std::size_t b_step, b_column;
  Element* c;
  std::size_t ldc;
  std::size_t rows, columns, terms;
  bool from_zero;  // sum the products by themselves, then add the sum to C
};

template <class V, int Rows, bool Cut>
struct column_rows {  // of A or C
  const typename V::element* p;
  std::size_t distance;
  typename V::prefix last;

  template <int R>
  ZORVAC_INLINE typename V::reg load() const {
    if constexpr (Cut && R == Rows - 1)
      return reinterpret_cast<typename V::reg>(last.load(p + R * V::width));
    else
      return V::memory::load(p + R * V::width);
  }
  template <int R>
  ZORVAC_INLINE void store(typename V::element* to, typename V::reg v) const {
    if constexpr (Cut && R == Rows - 1)
      last.store(to + R * V::width, reinterpret_cast<decltype(last.load(to))>(v));
    else
      V::memory::store(to + R * V::width, v);
  }
  ZORVAC_INLINE void step() { p += distance; }
};

template <class V>
struct columns_of_b {
  const typename V::element* p;
  std::size_t distance, column;

  template <int J>
  ZORVAC_INLINE typename V::factor factor() const {
    return V::as_factor(p[J * column]);
  }
  ZORVAC_INLINE void step() { p += distance; }
};

template <class V, int Rows, bool Cut, int Columns>
ZORVAC_INLINE void add_tile(const panel<typename V::element>& w, std::size_t j) {
  const typename V::prefix last(w.rows - (Rows - 1) * V::width);
  const column_rows<V, Rows, Cut> c{w.c + j * w.ldc, w.ldc, last};
  tile<V, Rows, Columns> sum{};
  if (!w.from_zero) {
    column_rows<V, Rows, Cut> column = c;
    repeat<Columns>([&]<int J>() ZORVAC_INLINE_LAMBDA {
      repeat<Rows>([&]<int R>() ZORVAC_INLINE_LAMBDA { sum.c[J][R] = column.template load<R>(); });
      column.step();
    });
  }
  column_rows<V, Rows, Cut && V::level::has_masks> a{w.a, w.a_step, last};
  columns_of_b<V> b{w.b + j * w.b_column, w.b_step, w.b_column};
  for (std::size_t k = w.terms; k != 0; --k) sum.add_products(a, b);

  column_rows<V, Rows, Cut> column = c;
  repeat<Columns>([&]<int J>() ZORVAC_INLINE_LAMBDA {
    repeat<Rows>([&]<int R>() ZORVAC_INLINE_LAMBDA {
      if (w.from_zero) sum.c[J][R] = column.template load<R>() + sum.c[J][R];
      column.template store<R>(w.c + (j + J) * w.ldc, sum.c[J][R]);
    });
    column.step();
  });
}

template <class V, int Rows, bool Cut>
[[gnu::noinline]] void add_panel(const panel<typename V::element>& w) {
  std::size_t j = 0;
  if constexpr (Rows == 1) {  // four sums do not keep the adders busy
    for (; w.columns - j >= 8; j += 8) add_tile<V, Rows, Cut, 8>(w, j);
  }
  for (; w.columns - j >= 4; j += 4) add_tile<V, Rows, Cut, 4>(w, j);
  switch (w.columns - j) {
    case 3:
      return add_tile<V, Rows, Cut, 3>(w, j);
    case 2:
      return add_tile<V, Rows, Cut, 2>(w, j);
    case 1:
      return add_tile<V, Rows, Cut, 1>(w, j);
    default:
      return;
  }
}

template <class V>
void add(const panel<typename V::element>& w) {
  const std::size_t registers = (w.rows + V::width - 1) / V::width;
  const bool cut = w.rows % V::width != 0;  // the last register is not full
  repeat<V::tile_registers>([&]<int R>() ZORVAC_INLINE_LAMBDA {
    if (registers != R + 1) return;
    if constexpr (V::width > 1) {
      if (cut) return add_panel<V, R + 1, true>(w);
    }
    add_panel<V, R + 1, false>(w);
  });
}

// Room for a copy of a block of A. A copy has whole registers of rows; the lanes past the last row
// repeat a row that exists.
template <class V, stored A>
class block_of_a {
  using element = typename V::element;

 public:
  static constexpr std::size_t most_rows = V::tile_registers * V::width;
  // Makes `w` refer to A from `a` on, w.rows by w.terms elements, copied if that is better.
  void give(panel<element>& w, const element* a, std::size_t lda) {
    const std::size_t registers = (w.rows + V::width - 1) / V::width;
    const bool loadable = V::level::has_masks || w.rows % V::width == 0;
    w.a = a;
    w.a_step = lda;
    if (A == stored::as_used && w.columns <= few_columns && loadable) return;
    w.a = copy;
    w.a_step = registers * V::width;
    if (A == stored::as_used)
      copy_columns(w, a, lda);
    else
      copy_rows(w, a, lda);
  }

 private:
  alignas(64) element copy[most_rows * block_terms];

  void copy_columns(const panel<element>& w, const element* a, std::size_t lda) {
    const std::size_t whole = w.rows / V::width * V::width;
    const typename V::prefix last(w.rows - whole);
    element* to = copy;
    for (std::size_t k = 0; k < w.terms; ++k, a += lda, to += w.a_step) {
      for (std::size_t i = 0; i < whole; i += V::width)
        V::memory::store(to + i, V::memory::load(a + i));
      if (whole < w.rows)
        V::memory::store(to + whole, reinterpret_cast<typename V::reg>(last.load(a + whole)));
    }
  }

  // Copies a register of rows at a time, in squares of 16 bytes of each row. Rows that are missing
  // in the last register repeat the last one. Out of line, it has enough registers for the places
  // of the rows: inlined, it makes products of 4 x 4 matrices a third slower.
  [[gnu::noinline]] void copy_rows(const panel<element>& w, const element* a, std::size_t lda) {
    for (std::size_t i = 0; i < w.a_step; i += V::width) {
      const element* row[V::width];
      const element* next = a + i * lda;
      for (std::size_t r = 0; r < V::width; ++r) {
        row[r] = next;
        if (i + r + 1 < w.rows) next += lda;
      }
      element* to = copy + i;
      std::size_t k = 0;
      for (; w.terms - k >= V::terms_of_16_bytes;
           k += V::terms_of_16_bytes, to += V::terms_of_16_bytes * w.a_step)
        V::transpose(row, k, to, w.a_step);
      for (; k < w.terms; ++k, to += w.a_step)
        for (std::size_t r = 0; r < V::width; ++r) to[r] = row[r][k];
    }
  }
};

// Adds the product of m rows of A and the columns of `w`, block by block.
template <class V, stored A, stored B>
void add_blocks(const panel<typename V::element>& w, const typename V::element* a, std::size_t lda,
                std::size_t m, std::size_t k) {
  block_of_a<V, A> block;
  for (std::size_t k0 = 0; k0 < k; k0 += block_terms) {
    panel<typename V::element> piece = w;
    piece.terms = smaller(k - k0, block_terms);
    piece.b += k0 * w.b_step;
    for (std::size_t i = 0; i < m; i += piece.rows) {
      piece.rows = rows_of_panel<V, V::tile_registers>(m - i);
      piece.c = w.c + i;
      block.give(piece, A == stored::as_used ? a + i + k0 * lda : a + k0 + i * lda, lda);
      add<V>(piece);
    }
  }
}

// The same for the rows of one panel, but each sum starts from zero and runs over all blocks before
// it is added to C. Until then the sums are kept aside.
template <class V, stored A, stored B>
void add_whole_sums(const panel<typename V::element>& w, const typename V::element* a,
                    std::size_t lda, std::size_t rows, std::size_t k) {
  using element = typename V::element;
  element sums[block_of_a<V, A>::most_rows * aside_columns];
  panel<element> aside = w;
  aside.c = sums;
  aside.ldc = rows;
  aside.from_zero = false;
  for (std::size_t i = 0; i < w.columns * rows; ++i) sums[i] = element{};
  add_blocks<V, A, B>(aside, a, lda, rows, k);
  for (std::size_t j = 0; j < w.columns; ++j)
    for (std::size_t i = 0; i < rows; ++i)
      w.c[j * w.ldc + i] = w.c[j * w.ldc + i] + sums[j * rows + i];
}

template <class V, stored A, stored B>
void general(const void* first_a, const void* first_b, void* first_c, std::size_t m, std::size_t n,
             std::size_t k, std::size_t lda, std::size_t ldb, std::size_t ldc) {
  using element = typename V::element;
  if (m == 0) return;  // however many columns there are
  const auto* const a = static_cast<const element*>(first_a);
  const auto* const b = static_cast<const element*>(first_b);
  auto* const c = static_cast<element*>(first_c);
  const bool whole_sums = A == stored::transposed && B == stored::transposed && k > block_terms;
  const std::size_t most =
      whole_sums ? aside_columns : cached_bytes / sizeof(element) / block_terms;
  panel<element> w;
  w.b_step = B == stored::as_used ? 1 : ldb;
  w.b_column = B == stored::as_used ? ldb : 1;
  w.ldc = ldc;
  w.from_zero = A == stored::transposed;
  for (std::size_t j = 0; j < n; j += most) {
    w.columns = smaller(n - j, most);
    w.b = b + j * w.b_column;
    w.c = c + j * ldc;
    if (!whole_sums) {
      add_blocks<V, A, B>(w, a, lda, m, k);
      continue;
    }
    for (std::size_t i = 0, rows = 0; i < m; i += rows, w.c += rows) {
      rows = rows_of_panel<V, V::tile_registers>(m - i);
      add_whole_sums<V, A, B>(w, a + i * lda, lda, rows, k);
    }
  }
}

}  // namespace
}  // namespace zorvac::array

// Defines the general kernels of one element type in one form: ZORVAC_GENERAL_KERNELS(r8, V,
// real<avx2, double>) defines _MATMUL_r8_n_n_pst_General.V and its three siblings.
#define ZORVAC_GENERAL_KERNELS(type, form, ...)                            \
  ZORVAC_GENERAL_KERNEL(type, form, n_n, as_used, as_used, __VA_ARGS__)    \
  ZORVAC_GENERAL_KERNEL(type, form, n_t, as_used, transposed, __VA_ARGS__) \
  ZORVAC_GENERAL_KERNEL(type, form, t_n, transposed, as_used, __VA_ARGS__) \
  ZORVAC_GENERAL_KERNEL(type, form, t_t, transposed, transposed, __VA_ARGS__)
#define ZORVAC_GENERAL_KERNEL(type, form, storage, a_is, b_is, ...)                           \
  extern "C" void general_##type##_##storage##_##form(                                        \
      const void*, const void*, void*, std::size_t, std::size_t, std::size_t, std::size_t,    \
      std::size_t, std::size_t) __asm__("_MATMUL_" #type "_" #storage "_pst_General." #form); \
  extern "C" void general_##type##_##storage##_##form(                                        \
      const void* a, const void* b, void* c, std::size_t m, std::size_t n, std::size_t k,     \
      std::size_t lda, std::size_t ldb, std::size_t ldc) {                                    \
    using namespace zorvac::array;                                                            \
    general<__VA_ARGS__, stored::a_is, stored::b_is>(a, b, c, m, n, k, lda, ldb, ldc);        \
  }
#endif
