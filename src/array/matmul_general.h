#ifndef ZORVAC_ARRAY_MATMUL_GENERAL_H
#define ZORVAC_ARRAY_MATMUL_GENERAL_H
// The general kernels, C := C + op(A) op(B): one template over the element type at a processor
// level and over the storage of A and B. docs/kernels.md states the order of every sum.
//
// B is cut into blocks that stay in the cache. Each block meets A panel by panel. A panel is a few
// registers of rows. It is first copied, so that its rows lie side by side, in three cases: A is
// stored transposed; many columns are going to meet the panel; its last register is not full and
// the level has no masks. Products of one panel, of one column, and with a large operand that is
// used once, go other ways.
#include "array/tile.h"

namespace zorvac::array {
namespace {

enum class stored { as_used, transposed };

inline constexpr std::size_t block_terms = 128;
inline constexpr std::size_t few_columns = 24;        // up to here, copying A does not pay
inline constexpr std::size_t few_terms = 16;          // up to here, C is most of what is read
inline constexpr std::size_t cached_bytes = 1 << 18;  // of a block of B, which meets all rows of A
inline constexpr std::size_t aside_columns = 64;      // whose sums are kept aside at a time

// A matrix that is too large for the caches of one processor should be read once, in long pieces. A
// block of 128 terms would be read in pieces of 64 bytes, from 128 columns in turn. So a matrix
// that is not used again meets few terms or columns at a time.
inline constexpr std::size_t streamed_bytes = 1 << 22, streamed_terms = 12, streamed_columns = 8;
template <class Element>
bool is_streamed(std::size_t rows, std::size_t columns) {
  return rows * columns > streamed_bytes / sizeof(Element);
}

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

// Adds to the columns of C from column j on what `add_terms` adds to a tile.
template <class V, int Rows, bool Cut, int Columns, class AddTerms>
ZORVAC_INLINE void add_tile(const panel<typename V::element>& w, std::size_t j,
                            const AddTerms& add_terms) {
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
  add_terms(sum, columns_of_b<V>{w.b + j * w.b_column, w.b_step, w.b_column});

  column_rows<V, Rows, Cut> column = c;
  repeat<Columns>([&]<int J>() ZORVAC_INLINE_LAMBDA {
    repeat<Rows>([&]<int R>() ZORVAC_INLINE_LAMBDA {
      if (w.from_zero) sum.c[J][R] = column.template load<R>() + sum.c[J][R];
      column.template store<R>(w.c + (j + J) * w.ldc, sum.c[J][R]);
    });
    column.step();
  });
}

template <class V, int Rows, bool Cut, int Columns>
ZORVAC_INLINE void add_tile(const panel<typename V::element>& w, std::size_t j) {
  const typename V::prefix last(w.rows - (Rows - 1) * V::width);
  add_tile<V, Rows, Cut, Columns>(w, j, [&](auto& sum, auto b) ZORVAC_INLINE_LAMBDA {
    column_rows<V, Rows, Cut && V::level::has_masks> a{w.a, w.a_step, last};
    for (std::size_t k = w.terms; k != 0; --k) sum.add_products(a, b);
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
           k += V::terms_of_16_bytes, to += V::terms_of_16_bytes * w.a_step) {
        V::transpose([&](std::size_t r) ZORVAC_INLINE_LAMBDA { return row[r] + k; },
                     [&](std::size_t term, typename V::whole::reg elements)
                         ZORVAC_INLINE_LAMBDA { V::whole::store(to + term * w.a_step, elements); });
      }
      for (; k < w.terms; ++k, to += w.a_step)
        for (std::size_t r = 0; r < V::width; ++r) to[r] = row[r][k];
    }
  }
};

// One column of C. No other column needs the rows of A, so they are never copied. A panel has
// enough registers to keep the adders busy. Where A is transposed, its squares are multiplied as
// soon as they are in registers.
template <class V, stored A>
class one_column {
  using element = typename V::element;
  static constexpr int registers = A == stored::as_used ? 8 : V::tile_registers;
  static constexpr std::size_t rows = registers * V::width;  // of a panel

 public:
  // Adds the products of all panels that are full, in blocks of `terms`. Returns how many rows that
  // are. A is read in the order in which it is stored.
  static std::size_t add_full_panels(panel<element>& w, const element* a, std::size_t lda,
                                     std::size_t m, std::size_t k, std::size_t terms) {
    const element* const b = w.b;
    element* const c = w.c;
    const std::size_t full = m / rows * rows;
    w.rows = rows;
    w.a_step = lda;
    const auto add_block = [&](std::size_t i, std::size_t k0) {
      w.a = A == stored::as_used ? a + i + k0 * lda : a + k0 + i * lda;
      w.b = b + k0 * w.b_step;
      w.c = c + i;
      w.terms = smaller(k - k0, terms);
      add(w);
    };
    if (A == stored::as_used) {
      for (std::size_t k0 = 0; k0 < k; k0 += terms)
        for (std::size_t i = 0; i < full; i += rows) add_block(i, k0);
    } else {
      for (std::size_t i = 0; i < full; i += rows)
        for (std::size_t k0 = 0; k0 < k; k0 += terms) add_block(i, k0);
    }
    w.b = b;
    w.c = c;
    return full;
  }

 private:
  [[gnu::noinline]] static void add(const panel<element>& w) {
    if constexpr (A == stored::as_used)
      add_tile<V, registers, false, 1>(w, 0);
    else
      add_tile<V, registers, false, 1>(
          w, 0, [&](auto& sum, auto b) ZORVAC_INLINE_LAMBDA { add_squares(w, sum, b); });
  }

  struct rows_of_term {
    typename V::reg r[registers];
    template <int R>
    ZORVAC_INLINE typename V::reg load() const {
      return r[R];
    }
    ZORVAC_INLINE void step() {}
  };

  template <class Sum>
  ZORVAC_INLINE static void add_squares(const panel<element>& w, Sum& sum, columns_of_b<V> b) {
    constexpr int side = V::terms_of_16_bytes;
    const element* a = w.a;
    std::size_t k = w.terms;
    for (; k >= side; k -= side, a += side) {
      rows_of_term term[side];
      repeat<registers>([&]<int R>() ZORVAC_INLINE_LAMBDA {
        const element* const first = a + R * V::width * w.a_step;
        V::transpose([&](std::size_t r) ZORVAC_INLINE_LAMBDA { return first + r * w.a_step; },
                     [&](std::size_t t, typename V::whole::reg c) ZORVAC_INLINE_LAMBDA {
                       term[t].r[R] = reinterpret_cast<typename V::reg>(c);
                     });
      });
      repeat<side>([&]<int T>() ZORVAC_INLINE_LAMBDA { sum.add_products(term[T], b); });
    }
    for (; k != 0; --k, ++a) {
      element lanes[rows];
      for (std::size_t r = 0; r < rows; ++r) lanes[r] = a[r * w.a_step];
      rows_of_term term;
      repeat<registers>(
          [&]<int R>() ZORVAC_INLINE_LAMBDA { term.r[R] = V::memory::load(lanes + R * V::width); });
      sum.add_products(term, b);
    }
  }
};

// Adds the product of m rows of A and the columns of `w`, block by block. It changes `w`: copies of
// words that were stored just before cost more than a product of 4 x 4 matrices.
template <class V, stored A, stored B>
void add_blocks(panel<typename V::element>& w, const typename V::element* a, std::size_t lda,
                std::size_t m, std::size_t k) {
  block_of_a<V, A> block;
  // Where A is transposed, the order of the sums depends on the blocks.
  const bool streams_a =
      A == stored::as_used && w.columns <= few_columns && is_streamed<typename V::element>(m, k);
  const std::size_t terms = streams_a ? streamed_terms : block_terms;
  std::size_t first = 0;
  if (w.columns == 1) first = one_column<V, A>::add_full_panels(w, a, lda, m, k, terms);
  typename V::element* const c = w.c;
  for (std::size_t k0 = 0; k0 < k; k0 += terms, w.b += terms * w.b_step) {
    w.terms = smaller(k - k0, terms);
    for (std::size_t i = first; i < m; i += w.rows) {
      w.rows = rows_of_panel<V, V::tile_registers>(m - i);
      w.c = c + i;
      block.give(w, A == stored::as_used ? a + i + k0 * lda : a + k0 + i * lda, lda);
      add<V>(w);
    }
  }
  w.a = nullptr;  // not the block, which ends here
}

// The product of one panel of A, which is used as it is stored, and all columns.
template <class V, stored B>
void add_one_panel(panel<typename V::element>& w, const typename V::element* a, std::size_t lda,
                   std::size_t k) {
  const bool streams_b = B == stored::transposed && w.rows % V::width == 0 &&
                         is_streamed<typename V::element>(w.columns, k);
  const std::size_t terms = streams_b ? streamed_terms : k;
  w.a = a;
  w.a_step = lda;
  for (std::size_t k0 = 0; k0 < k; k0 += terms, w.a += terms * lda, w.b += terms * w.b_step) {
    w.terms = smaller(k - k0, terms);
    add<V>(w);
  }
}

// The same as add_blocks() for the rows of one panel, but each sum starts from zero and runs over
// all blocks before it is added to C. Until then the sums are kept aside.
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
  panel<element> w;
  w.b = b;
  w.b_step = B == stored::as_used ? 1 : ldb;
  w.b_column = B == stored::as_used ? ldb : 1;
  w.c = c;
  w.ldc = ldc;
  w.from_zero = A == stored::transposed;
  if (A == stored::as_used && m <= block_of_a<V, A>::most_rows &&
      (V::level::has_masks || m % V::width == 0)) {
    w.rows = m;
    w.columns = n;
    return add_one_panel<V, B>(w, a, lda, k);
  }

  const bool whole_sums = A == stored::transposed && B == stored::transposed && k > block_terms;
  std::size_t most = whole_sums ? aside_columns : cached_bytes / sizeof(element) / block_terms;
  if (A == stored::as_used && k <= few_terms)
    most = is_streamed<element>(m, n) ? streamed_columns : few_columns;
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
