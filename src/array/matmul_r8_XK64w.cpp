// The blocked kernels for binary64, C := op(A) op(B): one template over the copy routines, the
// general kernel and the matrix-vector routine of each storage.
//
// The terms are cut into blocks. The short block comes first: its inner kernel overwrites C, so
// nothing else has to clear it, and all later blocks have the 112 terms that the accumulating
// kernel requires.
//
//           N4 columns, in panels      leftover
//     M4    packed A x packed B,       columns,
//     rows  by the inner kernels       one by one
//     rest  by the general kernel
#include <cstdlib>

#include "array/clear.h"
#include "zorvac/array.h"

namespace {

using std::size_t;
using std::uint64_t;

using kernel = void(const void*, const void*, void*, uint64_t, uint64_t, uint64_t, uint64_t,
                    uint64_t, uint64_t);
using copy = void(uint64_t, uint64_t, const double*, uint64_t, double*);

// Packing pays when no extent is smaller than these.
constexpr uint64_t blocked_rows = 34, blocked_terms = 38, blocked_columns = 38;

constexpr uint64_t row_block = 260, term_block = 112, column_panel = 2000;
constexpr uint64_t four = 4;

constexpr uint64_t down_to_four(uint64_t extent) { return extent / four * four; }
constexpr uint64_t smaller(uint64_t a, uint64_t b) { return a < b ? a : b; }

// The one allocation and its three parts, for panels of B of `columns` columns. The strip ends at
// most 0x3d000 + columns * column_bytes + 384 + 4 * 112 * 16 bytes after the start, which is within
// the allocation.
class buffer {
 public:
  explicit buffer(uint64_t columns)
      : memory_(std::malloc(columns * column_bytes + 0x3f300)),
        start_(reinterpret_cast<std::uintptr_t>(memory_)),
        columns_(columns) {}
  ~buffer() { std::free(memory_); }
  buffer(const buffer&) = delete;
  buffer& operator=(const buffer&) = delete;

  [[nodiscard]] bool exists() const { return memory_ != nullptr; }
  [[nodiscard]] double* a() const { return at(0, 4096, 4096); }
  [[nodiscard]] double* b() const { return at(0x3b000, 4096, 4096); }
  [[nodiscard]] double* strip() const { return at(0x3d000 + columns_ * column_bytes, 128, 384); }

 private:
  static constexpr uint64_t column_bytes = term_block * sizeof(double);
  // Rounds down, then adds.
  [[nodiscard]] double* at(uint64_t offset, uint64_t boundary, uint64_t beyond) const {
    const std::uintptr_t aligned = (start_ + offset) & ~(boundary - 1);
    return reinterpret_cast<double*>(aligned + beyond);  // NOLINT(performance-no-int-to-ptr)
  }

  void* memory_;
  std::uintptr_t start_;
  uint64_t columns_;
};

// An operand. `at` gives the place of element (row, column).
template <bool Transposed>
struct operand {
  const double* first;
  uint64_t ld;
  [[nodiscard]] const double* at(uint64_t row, uint64_t column) const {
    return Transposed ? first + column + row * ld : first + row + column * ld;
  }
};

// What depends on the storage of A and B. Everything is called by its exported name.
template <bool TransposedA, bool TransposedB, kernel* General, auto* Column>
struct storage {
  static constexpr bool a_transposed = TransposedA, b_transposed = TransposedB;
  static constexpr kernel* general = General;
  static constexpr copy* copy_a = TransposedA ? __zorva_dgcopyat_xk64w : __zorva_dgcopyan_xk64w;
  static constexpr copy* copy_b = TransposedB ? __zorva_dgcopybt_psc : __zorva_dgcopybn_psc;

  // The routine takes the extents of A as A is stored. A contiguous column of B has no leading
  // dimension.
  static void column(const double* a, const double* b, double* c, uint64_t m, uint64_t k,
                     uint64_t lda, uint64_t ldb) {
    const uint64_t rows = TransposedA ? k : m, columns = TransposedA ? m : k;
    if constexpr (TransposedB)
      Column(a, b, c, rows, columns, lda, ldb);
    else
      Column(a, b, c, rows, columns, lda);
  }
};
using n_n = storage<false, false, _MATMUL_r8_n_n_pst_General, MATMUL_v_nn_pst>;
using t_n = storage<true, false, _MATMUL_r8_t_n_pst_General, MATMUL_v_tn_pst>;
using n_t = storage<false, true, _MATMUL_r8_n_t_pst_General, MATMUL_v_nt_pst>;
using t_t = storage<true, true, _MATMUL_r8_t_t_pst_General, MATMUL_v_tt_pst>;

template <class Storage>
struct product {
  operand<Storage::a_transposed> a;
  operand<Storage::b_transposed> b;
  double* c;
  uint64_t m, n, k, ldc;

  // Clears C and leaves everything to the general kernel.
  void by_general_kernel() const {
    if (m != 0 && n != 0) zorvac::array::clear<uint64_t>(c, m, n, ldc);
    Storage::general(a.first, b.first, c, m, n, k, a.ld, b.ld, ldc);
  }

  // Adds the terms [k0, k0 + terms) to the columns [j, j + width) of C. The `first` block of terms
  // overwrites these columns.
  void add_block(const buffer& packed, uint64_t j, uint64_t width, uint64_t k0, uint64_t terms,
                 bool first) const {
    constexpr uint64_t two_zeros[2] = {};
    const uint64_t padded = down_to_four(terms + 3), m4 = down_to_four(m);
    Storage::copy_b(terms, width, b.at(k0, j), b.ld, packed.b());
    for (uint64_t i = 0; i < m4; i += row_block) {
      const uint64_t height = smaller(m4 - i, row_block);
      Storage::copy_a(height, terms, a.at(i, k0), a.ld, packed.a());
      const auto inner = first ? __zorva_dinnerz_roll_xk64w : __zorva_dinner_xk64w;
      inner(&height, &width, &padded, packed.a(), packed.b(), &term_block, c + i + j * ldc, &ldc,
            packed.strip(), two_zeros);
    }
    if (m4 == m) return;
    double* const rest = c + m4 + j * ldc;
    if (first) _MATMUL_r8_n_n_pst_init(rest, m - m4, width, ldc);
    Storage::general(a.at(m4, k0), b.at(k0, j), rest, m - m4, width, terms, a.ld, b.ld, ldc);
  }

  void run() const {
    if (m < blocked_rows || k < blocked_terms || n < blocked_columns) return by_general_kernel();
    const uint64_t panel = smaller(n, column_panel), n4 = down_to_four(n);
    const buffer packed(panel);
    if (!packed.exists()) return by_general_kernel();

    const uint64_t short_block = (k - 1) % term_block + 1, full_blocks = k - short_block;
    for (uint64_t j = 0; j < n4; j += panel) {
      const uint64_t width = smaller(n4 - j, panel);
      add_block(packed, j, width, full_blocks, short_block, true);
      for (uint64_t k0 = 0; k0 < full_blocks; k0 += term_block)
        add_block(packed, j, width, k0, term_block, false);
    }
    for (uint64_t j = n4; j < n; ++j)
      Storage::column(a.first, b.at(0, j), c + j * ldc, m, k, a.ld, b.ld);
  }
};

template <class Storage>
void blocked(const void* a, const void* b, void* c, uint64_t m, uint64_t n, uint64_t k,
             uint64_t lda, uint64_t ldb, uint64_t ldc) {
  const product<Storage> whole{{static_cast<const double*>(a), lda},
                               {static_cast<const double*>(b), ldb},
                               static_cast<double*>(c),
                               m,
                               n,
                               k,
                               ldc};
  whole.run();
}

}  // namespace

#define ZORVAC_BLOCKED_KERNEL(storage)                                                             \
  extern "C" void _MATMUL_r8_##storage##_XK64w(const void* a, const void* b, void* c, uint64_t m,  \
                                               uint64_t n, uint64_t k, uint64_t lda, uint64_t ldb, \
                                               uint64_t ldc) {                                     \
    blocked<storage>(a, b, c, m, n, k, lda, ldb, ldc);                                             \
  }
ZORVAC_BLOCKED_KERNEL(n_n)
ZORVAC_BLOCKED_KERNEL(n_t)
ZORVAC_BLOCKED_KERNEL(t_n)
ZORVAC_BLOCKED_KERNEL(t_t)
