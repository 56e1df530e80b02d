// The pieces that blocked kernels are made of, each called directly, and their use of memory.
#include <gtest/gtest.h>

#include "array/matrix.h"
#include "zorvac/cpu.h"

namespace {

// What the library's calls of malloc are given while a test says so.
struct {
  bool watched, fails;
  std::size_t bytes;
  std::unique_ptr<zorvac::test::guarded_block> block;
  void *given, *freed;
} allocator;

}  // namespace

extern "C" {
void* __real_malloc(std::size_t bytes);
void __real_free(void* block);

// Watched blocks end against a guard page and are full of NaNs.
void* __wrap_malloc(std::size_t bytes) {
  if (!allocator.watched) return __real_malloc(bytes);
  allocator.bytes = bytes;
  if (allocator.fails) return nullptr;
  allocator.block = std::make_unique<zorvac::test::guarded_block>(bytes);
  std::memset(allocator.block->begin(), 0xff, allocator.block->size());
  allocator.given = allocator.block->end() - bytes;
  return allocator.given;
}
void __wrap_free(void* block) {
  if (!allocator.watched) return __real_free(block);
  allocator.freed = block;
}
}

namespace zorvac::test {
namespace {

// Panels of four lanes, which are rows of A or columns of B: for each k the four of them, with zeros
// up to a multiple of four terms.
elements<double> panels(const elements<double>& lanes, u64 k) {
  const u64 fours = lanes.size() / k / 4 * 4, kp = (k + 3) / 4 * 4;
  elements<double> p(fours * kp);
  for (u64 i = 0; i < fours; ++i)
    for (u64 t = 0; t < k; ++t) p[i / 4 * 4 * kp + 4 * t + i % 4] = lanes[i * k + t];
  return p;
}

TEST(PanelCopy, LaysOutFoursAndPads) {
  for (const u64 lanes : {0u, 1u, 3u, 4u, 5u, 7u, 8u, 11u, 16u, 19u, 260u})
    for (const u64 k : {1u, 2u, 3u, 4u, 5u, 37u, 38u, 111u, 112u})
      for (const u64 gap : {0u, 1u, 3u}) {
        const elements<double> side_by_side = random_elements<double>(lanes * k, 1);
        const elements<double> expected = panels(side_by_side, k);
        const matrix<double> terms_first(k, lanes, gap, side_by_side), lanes_first(lanes, k, gap);
        for (u64 i = 0; i < lanes * k; ++i) lanes_first.at(i / k, i % k) = side_by_side[i];
        const auto check = [&](copy_fn* copy, const matrix<double>& source, u64 x, u64 y) {
          const matrix<double> p(expected.size(), 1, 0);
          copy(x, y, source.data(), source.ld(), p.data());
          EXPECT_TRUE(p.holds(expected) && p.surroundings_are_whole())
              << lanes << ' ' << k << ' ' << gap << ' ' << x;
        };
        check(__zorva_dgcopyan_xk64w, lanes_first, lanes, k);
        check(__zorva_dgcopyat_xk64w, terms_first, lanes, k);
        check(__zorva_dgcopybn_psc, terms_first, k, lanes);
        check(__zorva_dgcopybt_psc, lanes_first, k, lanes);
      }
}

TEST(InnerKernel, OverwritesOrAddsTilesSummedFromZero) {
  for (const form& f : forms) {
    if (!f.available()) continue;
    __zorva_cpu_feature_indicator = f.indicator;
    for (const u64 m : {4u, 8u, 12u, 16u, 20u, 28u, 44u, 260u})
      for (const u64 n : {4u, 8u, 12u, 40u})
        for (const u64 kp : {4u, 8u, 12u, 108u, 112u})
          for (const bool adds : {false, true}) {
            if (adds && kp != 112) continue;
            const elements<double> a = random_elements<double>(m * kp, 1),
                                   b = random_elements<double>(n * kp, 2),
                                   old = random_elements<double>(m * n, 3);
            const matrix<double> pa(m * kp, 1, 0, panels(a, kp)), pb(n * kp, 1, 0, panels(b, kp));
            const matrix<double> strip(std::size_t{4} * 112, 2, 0);
            matrix<double> c(m, n, m % 3 + 1);
            if (adds) c = matrix<double>(m, n, m % 3 + 1, old);
            elements<double> expected(m * n);
            for (u64 i = 0; i < m * n; ++i)
              expected[i] = sum_of_products(adds ? old[i] : 0, a.data() + i % m * kp,
                                            b.data() + i / m * kp, {{{0, kp}}, true});
            const u64 ldc = c.ld();
            // What a kernel does not read need not be there.
            if (adds)
              __zorva_dinner_xk64w(&m, &n, nullptr, pa.data(), pb.data(), nullptr, c.data(), &ldc,
                                   strip.data(), nullptr);
            else
              __zorva_dinnerz_roll_xk64w(&m, &n, &kp, pa.data(), pb.data(), nullptr, c.data(), &ldc,
                                         strip.data(), nullptr);
            ASSERT_TRUE(c.holds(expected)) << f.name << ' ' << m << ' ' << n << ' ' << kp;
            ASSERT_TRUE(c.surroundings_are_whole() && strip.surroundings_are_whole());
          }
  }
}

TEST(MatrixVector, ComputesAColumnFromScratch) {
  for (const form& f : forms) {
    if (!f.available()) continue;
    __zorva_cpu_feature_indicator = f.indicator;
    for (const u64 m : {0u, 1u, 2u, 3u, 7u, 8u, 9u, 16u, 33u, 130u})
      for (const u64 k : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 37u, 129u, 257u}) {
        operands<double> x({m, k, 1});
        for (const routines& r : routines_of<double>) {
          x.store_for(r);
          const matrix<double> c = x.result();
          const double *const a = x.sa.data(), *const b = x.sb.data();
          if (r.a == 'n')
            r.b == 'n' ? MATMUL_v_nn_pst(a, b, c.data(), m, k, x.sa.ld())
                       : MATMUL_v_nt_pst(a, b, c.data(), m, k, x.sa.ld(), x.sb.ld());
          else
            r.b == 'n' ? MATMUL_v_tn_pst(a, b, c.data(), k, m, x.sa.ld())
                       : MATMUL_v_tt_pst(a, b, c.data(), k, m, x.sa.ld(), x.sb.ld());
          EXPECT_TRUE(c.holds(x.added_to(elements<double>(m), r)) && c.surroundings_are_whole())
              << f.name << ' ' << r.a << r.b << ' ' << x.s;
        }
      }
  }
}

TEST(Clearing, WritesZerosInsideTheBlockOnly) {
  const std::pair<clear_fn*, u64> clearings[] = {{_MATMUL_r4_n_n_pst_init, 4},
                                                 {_MATMUL_r8_n_n_pst_init, 8},
                                                 {_MATMUL_c4_n_n_pst_init, 8},
                                                 {_MATMUL_c8_n_n_pst_init, 16}};
  for (const auto& [clear, bytes] : clearings)
    for (u64 rows = 0; rows <= 35; ++rows)
      for (const u64 columns : {0u, 1u, 2u, 5u})
        for (const u64 gap : {0u, 1u, 4u})
          for (const u64 shift : {0u, 1u, 3u, 4u, 8u, 12u}) {  // before the guard page
            const u64 ldc = rows + gap;
            const u64 span = columns == 0 ? 0 : ((columns - 1) * ldc + rows) * bytes;
            const matrix<char> ground(span + shift + 32, 1, 0);
            clear(ground.data() + 32, rows, columns, ldc);
            for (u64 at = 0; at < span + shift + 32; ++at) {
              const bool inside = at >= 32 && at < 32 + span && (at - 32) / bytes % ldc < rows;
              ASSERT_EQ(ground.at(at, 0), inside ? 0 : -1)
                  << bytes << ' ' << rows << ' ' << columns << ' ' << gap << ' ' << shift << ' '
                  << at;
            }
          }
}

// Without memory the general kernel does the work.
TEST(BlockedAllocation, IsOfTheStatedSizeAndReturnedOrDoneWithout) {
  __zorva_cpu_feature_indicator = pair_form;
  for (const u64 n : {38u, 41u, 2000u, 2001u, 2039u}) {
    operands<double> x({39, 115, n});
    for (const routines& r : routines_of<double>) {
      x.store_for(r);
      for (const bool fails : {false, true}) {
        allocator.bytes = 0;
        allocator.freed = allocator.given = nullptr;
        matrix<double> c = x.result();
        allocator.watched = true;
        allocator.fails = fails;
        c = x.run_kernel(r.blocked, std::move(c));
        allocator.watched = false;
        EXPECT_EQ(allocator.bytes, std::min(n, u64{2000}) * 896 + 0x3f300);
        EXPECT_EQ(allocator.freed, allocator.given);
        EXPECT_TRUE(c.holds(fails ? x.added_to(elements<double>(39 * n), r) : x.blocked_product(r)))
            << r.a << r.b << ' ' << n << ' ' << fails;
      }
    }
  }
}

}  // namespace
}  // namespace zorvac::test
