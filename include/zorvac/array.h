#ifndef ZORVAC_ARRAY_H
#define ZORVAC_ARRAY_H
/** Arrays: matrix products, and the reductions that compiled loops keep in private arrays.
 *
 *  Matrices are column-major. Leading dimensions count elements, not bytes. Element types, by the
 *  code in a routine's name:
 *    r4  binary32        c4  complex binary32 (real part first, then imaginary)
 *    r8  binary64        c8  complex binary64
 *  Storage, one letter for A and one for B:
 *    n  stored as used:         A(i,k) is a[i + k * lda], B(k,j) is b[k + j * ldb]
 *    t  its transpose is stored: A(i,k) is a[k + i * lda], B(k,j) is b[j + k * ldb]
 *  No element is ever conjugated: these are MATMUL of the Fortran standard and its forms with
 *  TRANSPOSE. C(i,j) is c[i + j * ldc] whatever the storage of A and B.
 *
 *  For every routine of the matrix products:
 *    extents    may be 0: then nothing is read or written, except that a product of no terms is 0
 *    alignment  that of the element's parts, unless stated
 *    overlap    C overlaps neither A nor B; A and B may overlap
 *    memory     reads and writes elements of the operands only, never what lies between columns
 *    errors     none; nothing is checked
 *    rounding   every product and every sum is rounded by itself (MXCSR), in an order that does not
 *               depend on the processor: docs/kernels.md states it. Exception flags are those of
 *               these operations
 *    registers  System V AMD64
 *    threads    re-entrant
 */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** C := A B, with A of m rows and k columns, B of k rows and n columns. Compiled code calls these.
 *
 *  The order of the extents is M, K, N here; the kernels further down take M, N, K.
 *
 *  Each jumps to one of its exported variants, which the feature indicator (zorvac/cpu.h) chooses.
 *  A variant has the same arguments, and the same name with a suffix:
 *    .J  r8 only, SSE2: the blocked kernel of the same storage
 *    .A  any processor: clears C, then the general kernel of the same type and storage
 *  The old contents of C do not matter, not even NaNs. Only .J allocates memory: malloc, freed
 *  before the return; without memory it works like .A. */
#define ZORVAC_MATMUL_ENTRY(name)                                                      \
  void name(const void* a, const void* b, void* c, uint64_t m, uint64_t k, uint64_t n, \
            uint64_t lda, uint64_t ldb, uint64_t ldc);
ZORVAC_MATMUL_ENTRY(_MATMUL_r4_n_n)
ZORVAC_MATMUL_ENTRY(_MATMUL_r4_n_t)
ZORVAC_MATMUL_ENTRY(_MATMUL_r4_t_n)
ZORVAC_MATMUL_ENTRY(_MATMUL_r4_t_t)
ZORVAC_MATMUL_ENTRY(_MATMUL_r8_n_n)
ZORVAC_MATMUL_ENTRY(_MATMUL_r8_n_t)
ZORVAC_MATMUL_ENTRY(_MATMUL_r8_t_n)
ZORVAC_MATMUL_ENTRY(_MATMUL_r8_t_t)
ZORVAC_MATMUL_ENTRY(_MATMUL_c4_n_n)
ZORVAC_MATMUL_ENTRY(_MATMUL_c4_n_t)
ZORVAC_MATMUL_ENTRY(_MATMUL_c4_t_n)
ZORVAC_MATMUL_ENTRY(_MATMUL_c4_t_t)
ZORVAC_MATMUL_ENTRY(_MATMUL_c8_n_n)
ZORVAC_MATMUL_ENTRY(_MATMUL_c8_n_t)
ZORVAC_MATMUL_ENTRY(_MATMUL_c8_t_n)
ZORVAC_MATMUL_ENTRY(_MATMUL_c8_t_t)
#undef ZORVAC_MATMUL_ENTRY

/** Write +0 to m rows of n columns of C (to both parts of a complex element), column by column.
 *  They serve every storage of A and B. C may have any alignment. */
void _MATMUL_r4_n_n_pst_init(void* c, uint64_t m, uint64_t n, uint64_t ldc);
void _MATMUL_r8_n_n_pst_init(void* c, uint64_t m, uint64_t n, uint64_t ldc);
void _MATMUL_c4_n_n_pst_init(void* c, uint64_t m, uint64_t n, uint64_t ldc);
void _MATMUL_c8_n_n_pst_init(void* c, uint64_t m, uint64_t n, uint64_t ldc);

/** General kernels: C := C + A B, any extents. The order of the extents is M, N, K.
 *
 *  They choose among forms for different processors. All forms give the same bits, except for
 *  complex products in the rounding modes up and down: without SSE3 a product of imaginary parts is
 *  negated before it is rounded, with SSE3 after that. The complex kernels run feature detection if
 *  it has not run yet. */
#define ZORVAC_MATMUL_KERNEL(name)                                                     \
  void name(const void* a, const void* b, void* c, uint64_t m, uint64_t n, uint64_t k, \
            uint64_t lda, uint64_t ldb, uint64_t ldc);
ZORVAC_MATMUL_KERNEL(_MATMUL_r4_n_n_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_r4_n_t_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_r4_t_n_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_r4_t_t_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_r8_n_n_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_r8_n_t_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_r8_t_n_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_r8_t_t_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_c4_n_n_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_c4_n_t_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_c4_t_n_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_c4_t_t_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_c8_n_n_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_c8_n_t_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_c8_t_n_pst_General)
ZORVAC_MATMUL_KERNEL(_MATMUL_c8_t_t_pst_General)

/** Blocked kernels for binary64: C := A B. The order of the extents is M, N, K.
 *
 *  With at least 34 rows, 38 columns and 38 terms they pack blocks of A and B into one buffer from
 *  malloc. For smaller products, and where malloc gives null, they clear C and call the general
 *  kernel. They need SSE3. */
ZORVAC_MATMUL_KERNEL(_MATMUL_r8_n_n_XK64w)
ZORVAC_MATMUL_KERNEL(_MATMUL_r8_n_t_XK64w)
ZORVAC_MATMUL_KERNEL(_MATMUL_r8_t_n_XK64w)
ZORVAC_MATMUL_KERNEL(_MATMUL_r8_t_t_XK64w)
#undef ZORVAC_MATMUL_KERNEL

/** One column of a binary64 product: c[0..m) := A b. The letters are the storage of A and B. The
 *  extents are the rows and the columns of A as it is stored.
 *
 *  b  the elements of the column: b[k] where B is stored as used (n), b[k * ldb] where its
 *     transpose is stored (t) */
void MATMUL_v_nn_pst(const double* a, const double* b, double* c, uint64_t m, uint64_t k,
                     uint64_t lda);
void MATMUL_v_tn_pst(const double* a, const double* b, double* c, uint64_t k, uint64_t m,
                     uint64_t lda);
void MATMUL_v_nt_pst(const double* a, const double* b, double* c, uint64_t m, uint64_t k,
                     uint64_t lda, uint64_t ldb);
void MATMUL_v_tt_pst(const double* a, const double* b, double* c, uint64_t k, uint64_t m,
                     uint64_t lda, uint64_t ldb);

/** Copy a block of A into packed panels of 4 rows: panel by panel, for each k in order, the 4
 *  values A(i..i+3, k). A is stored as used (an), or its transpose is stored (at).
 *
 *  rows    rounded down to a multiple of 4
 *  k       columns; zeros extend each panel to a multiple of 4 columns
 *  packed  [out] rows * (k rounded up to a multiple of 4) elements */
void __zorva_dgcopyan_xk64w(uint64_t rows, uint64_t k, const double* a, uint64_t lda,
                            double* packed);
void __zorva_dgcopyat_xk64w(uint64_t rows, uint64_t k, const double* a, uint64_t lda,
                            double* packed);

/** Copy a block of B into packed panels of 4 columns: panel by panel, for each k in order, the 4
 *  values B(k, j..j+3), then zeros up to a multiple of 4 rows. `columns` is rounded down to a
 *  multiple of 4. */
void __zorva_dgcopybn_psc(uint64_t k, uint64_t columns, const double* b, uint64_t ldb,
                          double* packed);
void __zorva_dgcopybt_psc(uint64_t k, uint64_t columns, const double* b, uint64_t ldb,
                          double* packed);

/** Inner kernels of the blocked products, on packed operands aligned to 16 bytes. m, n and k are
 *  multiples of 4. Need SSE3. For each element of C a sum starts from zero and takes the products
 *  in the order of k.
 *    __zorva_dinnerz_roll_xk64w  C := the sum; C is not read
 *    __zorva_dinner_xk64w        C := C + the sum; k is 112, and the third argument is not read
 *
 *  strip            [out] scratch for 4 columns of B, each element twice: 8 * k elements, aligned
 *                   to 16 bytes
 *  c                first element of the block
 *  block, two_zeros not read: the address of the constant 112, and of 16 zero bytes */
void __zorva_dinnerz_roll_xk64w(const uint64_t* m, const uint64_t* n, const uint64_t* k,
                                const double* packed_a, const double* packed_b,
                                const uint64_t* block, double* c, const uint64_t* ldc,
                                double* strip, const uint64_t* two_zeros);
void __zorva_dinner_xk64w(const uint64_t* m, const uint64_t* n, const uint64_t* k,
                          const double* packed_a, const double* packed_b, const uint64_t* block,
                          double* c, const uint64_t* ldc, double* strip, const uint64_t* two_zeros);

/** Reductions. Compiled code that vectorises a loop carrying a reduction over an array keeps
 *  private arrays: it initialises them with the operator's identity and folds them into the target
 *  at the end.
 *
 *  Type codes: 1 to 8 integers (odd codes unsigned, even codes signed; two each of 8, 16, 32 and 64
 *  bits), 9 binary32, 10 binary64, 13 binary128; 20, 21 and 23 complex of these three (real part
 *  first). Operators on the target t and the partial p, and their identities:
 *     1  t + p    0            8  t AND p   all bits set
 *     2  t * p    1            9  t OR p    0
 *     3  t - p    0           10  t XOR p   0
 *     4  maximum  the least   11  t XOR p   0
 *     5  minimum  the greatest 12  t = p     1
 *     6  t AND p  1           13  t <> p    0
 *     7  t OR p   0
 *  6 and 7 work on bits, so logical values must be 0 and 1. Least and greatest are finite.
 *  Integers take all operators, real types 1 to 5, complex types 1 to 3.
 *
 *  Integers wrap. Each operation on real numbers is rounded by itself (MXCSR) and raises its flags;
 *  those on binary128 are the routines of zorvac/quad.h, which a program may replace.
 *
 *  If the feature indicator (zorvac/cpu.h) has the AVX2 level, arrays that do not overlap and have
 *  a stride of 1 are folded by its registers, with the same results and flags. Detection is not
 *  run.
 *
 *  Elements may have any alignment. Threads: re-entrant. Registers: System V AMD64. Memory:
 *  allocates nothing. */

/** Writes the identity of an operator into count consecutive elements.
 *
 *  Errors: abort() for a type that does not exist and for an operator that the type does not take.
 *          Operator 0 with type 1 is accepted: it fills with the low byte of the count. */
void __zorva_reduction_init_array(void* target, uint64_t count, uint32_t operator_code,
                                  uint32_t type_code);

/** Combines element i of target with element i * stride of partial, for i from 0 to count - 1.
 *
 *  stride   counts elements, and may be negative; where `strided` is zero, 1 is used instead. For
 *           sums and differences of complex types it counts parts: part k of the target meets part
 *           k * stride. Complex products ignore it.
 *  Maximum, minimum: the partial's value where both are equal (zeros of either sign included).
 *           Where either is a NaN: the partial's value, but in binary128 the target's.
 *  Complex products: binary32 t * p; binary64 p * p; binary128 (tr + i pi) * p.
 *  Errors:  abort() for a type that does not exist and for an operator that a real or complex type
 *           does not take; an operator that an integer type does not take changes nothing. */
void __zorva_simd_reduction_final_array(void* target, const void* partial, uint64_t count,
                                        int32_t stride, int32_t strided, uint32_t operator_code,
                                        uint32_t type_code);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
