// The pieces that blocked kernels are made of, each called directly, and their use of memory.
#include <gtest/gtest.h>

#include <cmath>

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

constexpr u64 block = 112;

u64 round_up(u64 k) { return (k + 3) / 4 * 4; }

// A vector that ends against a guard page; NaNs at first.
struct packed : matrix<double> {
  explicit packed(u64 size) : matrix(size, 1, 0) {}
};

// ---- Panel copies -------------------------------------------------------------------------------

// Panels of four rows of A, or columns of B: for each k the four of them, with zeros up to `kp`.
packed panels(const matrix<double>& a, u64 fours, u64 size) {
  packed p(size);
  const u64 kp = round_up(a.columns());
  for (u64 i = 0; i < fours / 4 * 4; ++i)
    for (u64 k = 0; k < kp; ++k)
      p.at(i / 4 * 4 * kp + 4 * k + i % 4, 0) = k < a.columns() ? a.at(i, k) : 0;
  return p;
}

TEST(PanelCopy, LaysOutFoursAndPads) {
  for (const u64 fours : {0u, 1u, 3u, 4u, 5u, 7u, 8u, 11u, 16u, 19u, 260u})
    for (const u64 k : {1u, 2u, 3u, 4u, 5u, 37u, 38u, 111u, 112u})
      for (const u64 gap : {0u, 1u, 3u}) {
        matrix<double> a(fours, k, 0);
        a.fill_randomly(static_cast<unsigned>(fours + k));
        const u64 size = fours / 4 * 4 * round_up(k);
        const packed expected = panels(a, fours, size);
        const auto check = [&](copy_fn* copy, char storage, bool k_first, const char* name) {
          const matrix<double> source = a.stored(storage, gap);
          packed p(size);
          copy(k_first ? k : fours, k_first ? fours : k, source.data(), source.ld(), p.data());
          EXPECT_TRUE(p.same_bits(expected)) << name << ' ' << fours << ' ' << k << ' ' << gap;
          EXPECT_TRUE(p.surroundings_are_whole()) << name << ' ' << fours << ' ' << k;
        };
        // B's columns are to it what A's rows are to A.
        check(copy_an, 'n', false, "an");
        check(copy_at, 't', false, "at");
        check(copy_bn, 't', true, "bn");
        check(copy_bt, 'n', true, "bt");
      }
}

// ---- Inner kernels ------------------------------------------------------------------------------

TEST(InnerKernel, OverwritesOrAddsTilesSummedFromZero) {
  const std::pair<u64, bool> forms[] = {
      {0x7f, true},
      {0x9d97ff, __builtin_cpu_supports("avx2") != 0},
      {0x9d97ff | u64{1} << 24 | u64{1} << 27 | u64{1} << 38,
       __builtin_cpu_supports("avx512dq") != 0 && __builtin_cpu_supports("avx512vl") != 0}};
  for (const auto& [indicator, available] : forms) {
    if (!available) continue;  // the test of the forms tells that it skips
    __zorva_cpu_feature_indicator = indicator;
    for (const u64 m : {4u, 8u, 12u, 16u, 20u, 28u, 44u, 260u})
      for (const u64 n : {4u, 8u, 12u, 20u, 40u})
        for (const u64 kp : {4u, 8u, 12u, 40u, 108u, 112u})
          for (const bool adds : {false, true}) {
            if (adds && kp != block) continue;
            matrix<double> a(m, kp, 0), b(kp, n, 0), c(m, n, m % 3 + 1), strip(4 * block, 2, 0);
            a.fill_randomly(1), b.fill_randomly(2);
            if (adds) c.fill_randomly(3);
            matrix<double> expected = c.copy();
            for (u64 j = 0; j < n; ++j)
              for (u64 i = 0; i < m; ++i) {
                double sum = 0;
                for (u64 k = 0; k < kp; ++k) sum += a.at(i, k) * b.at(k, j);
                expected.at(i, j) = adds ? c.at(i, j) + sum : sum;
              }
            packed pa = panels(a, m, m * kp), pb = panels(b.stored('t', 0), n, n * kp);
            const u64 ldc = c.ld();
            // What a kernel does not read need not be there.
            if (adds)
              inner_adding(&m, &n, nullptr, pa.data(), pb.data(), nullptr, c.data(), &ldc,
                           strip.data(), nullptr);
            else
              inner_overwriting(&m, &n, &kp, pa.data(), pb.data(), nullptr, c.data(), &ldc,
                                strip.data(), nullptr);
            ASSERT_TRUE(c.same_bits(expected))
                << std::hex << indicator << std::dec << ' ' << m << ' ' << n << ' ' << kp;
            ASSERT_TRUE(c.surroundings_are_whole() && strip.surroundings_are_whole());
          }
  }
}

// ---- Matrix times vector ------------------------------------------------------------------------

TEST(MatrixVector, ComputesAColumnFromScratch) {
  for (const u64 m : {0u, 1u, 2u, 3u, 7u, 8u, 9u, 16u, 33u, 130u})
    for (const u64 k : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 37u, 129u})
      for (const u64 gap : {0u, 1u, 2u}) {
        matrix<double> a(m, k, 0), b(1, k, 0);
        a.fill_randomly(1), b.fill_randomly(2);
        const matrix<double> at = a.stored('t', gap), an = a.stored('n', gap),
                             row = b.stored('n', gap + 1), column = b.stored('t', gap);
        matrix<double> expected(m, 1, 0), bound(m, 1, 0);
        for (u64 i = 0; i < m; ++i) {
          expected.at(i, 0) = bound.at(i, 0) = 0;
          for (u64 kk = 0; kk < k; ++kk) {
            expected.at(i, 0) += a.at(i, kk) * b.at(0, kk);
            bound.at(i, 0) += std::abs(a.at(i, kk) * b.at(0, kk));
          }
        }
        const auto check = [&](char storage, auto call) {
          matrix<double> c(m, 1, 0);
          call(c.data());
          EXPECT_TRUE(c.surroundings_are_whole());
          EXPECT_TRUE(storage == 't' || c.same_bits(expected)) << m << ' ' << k;
          // Dot products have an order of their own, so both sums are as far from the true one.
          for (u64 i = 0; i < m; ++i)
            EXPECT_LE(std::abs(c.at(i, 0) - expected.at(i, 0)),
                      2 * static_cast<double>(k + 1) * 0x1p-53 * bound.at(i, 0));
        };
        check('n', [&](double* c) { vector_nn(an.data(), column.data(), c, m, k, an.ld()); });
        check('t', [&](double* c) { vector_tn(at.data(), column.data(), c, k, m, at.ld()); });
        check('n',
              [&](double* c) { vector_nt(an.data(), row.data(), c, m, k, an.ld(), row.ld()); });
        check('t',
              [&](double* c) { vector_tt(at.data(), row.data(), c, k, m, at.ld(), row.ld()); });
      }
}

// ---- Clearing -----------------------------------------------------------------------------------

TEST(Clearing, WritesZerosInsideTheBlockOnly) {
  const std::pair<clear_fn*, u64> routines[] = {
      {clear_r4, 4}, {clear_r8, 8}, {clear_c4, 8}, {clear_c8, 16}};
  for (const auto& [clear, bytes] : routines)
    for (u64 rows = 0; rows <= 35; ++rows)
      for (const u64 columns : {0u, 1u, 2u, 5u})
        for (const u64 gap : {0u, 1u, 4u})
          for (const u64 shift : {0u, 1u, 3u, 4u, 8u, 12u}) {  // before the guard page
            const u64 ldc = rows + gap;
            const u64 span = columns == 0 ? 0 : ((columns - 1) * ldc + rows) * bytes;
            matrix<char> ground(span + shift + 32, 1, 0);
            char* const c = ground.data() + 32;
            clear(c, rows, columns, ldc);
            for (u64 at = 0; at < ground.rows(); ++at) {
              const u64 element = (at - 32) / bytes;
              const bool inside = at >= 32 && at < 32 + span && element % ldc < rows;
              ASSERT_EQ(ground.at(at, 0), inside ? 0 : -1)
                  << bytes << ' ' << rows << ' ' << columns << ' ' << gap << ' ' << shift << ' '
                  << at;
            }
          }
}

// ---- Allocation ---------------------------------------------------------------------------------

class BlockedAllocation : public testing::Test {
 protected:
  static constexpr u64 m = 39, k = 115;
  // The blocked product, and the general one from zeros.
  static void multiply(const routines& r, u64 n, bool fails, bool& as_general) {
    __zorva_cpu_feature_indicator = 0x7f;
    matrix<double> a(m, k, 0), b(k, n, 0), c(m, n, 1), d(m, n, 1);
    a.fill_randomly(1), b.fill_randomly(2);
    const matrix<double> sa = a.stored(r.a, 1), sb = b.stored(r.b, 2);
    allocator.watched = true;
    allocator.fails = fails;
    r.blocked(sa.data(), sb.data(), c.data(), m, n, k, sa.ld(), sb.ld(), c.ld());
    allocator.watched = false;
    EXPECT_TRUE(c.surroundings_are_whole());
    clear_r8(d.data(), m, n, d.ld());
    r.general(sa.data(), sb.data(), d.data(), m, n, k, sa.ld(), sb.ld(), d.ld());
    as_general = c.same_bits(d);
    for (u64 j = 0; j < n; ++j)
      for (u64 i = 0; i < m; ++i) ASSERT_NEAR(c.at(i, j), d.at(i, j), 1e-12);
  }
};

TEST_F(BlockedAllocation, IsOfTheStatedSizeAndReturned) {
  for (const routines& r : routines_of<double>())
    for (const u64 n : {38u, 41u, 2000u, 2001u, 2039u}) {
      allocator.bytes = 0;
      allocator.freed = nullptr;
      bool as_general = false;
      multiply(r, n, false, as_general);
      EXPECT_EQ(allocator.bytes, std::min(n, u64{2000}) * 896 + 0x3f300);
      EXPECT_EQ(allocator.freed, allocator.given);
    }
}

TEST_F(BlockedAllocation, FallsBackToTheGeneralKernelWithoutMemory) {
  for (const routines& r : routines_of<double>()) {
    allocator.bytes = 0;
    bool as_general = false;
    multiply(r, 41, true, as_general);
    EXPECT_NE(allocator.bytes, 0u);
    EXPECT_TRUE(as_general) << r.a << r.b;
  }
}

}  // namespace
}  // namespace zorvac::test
