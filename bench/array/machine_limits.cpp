// The limits of this machine: multiplications and additions on registers alone, in enough chains to
// hide every latency.
#include <benchmark/benchmark.h>
#include <immintrin.h>

namespace {

constexpr int chains = 12, rounds = 1000;

// The empty statement keeps the compiler from moving the product out of the loop.
#define LIMIT(name, features, Vector, sum_of_product)                                         \
  __attribute__((target(features))) void name(benchmark::State& state) {                      \
    Vector sums[chains] = {}, x = {}, y = {};                                                 \
    for (auto _ : state)                                                                      \
      for (int round = 0; round < rounds; ++round)                                            \
        _Pragma("GCC unroll 12") for (Vector & sum : sums) {                                  \
          asm("" : "+x"(x));                                                                  \
          sum = sum_of_product;                                                               \
        }                                                                                     \
    for (Vector & sum : sums) asm volatile("" : : "x"(sum));                                  \
    const double flops = 2.0 * chains * rounds * sizeof(Vector) / sizeof(double);             \
    state.counters["GFLOP/s"] = benchmark::Counter(                                           \
        1e-9 * flops * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate); \
  }
LIMIT(separate_2, "sse2", __m128d, _mm_add_pd(sum, _mm_mul_pd(x, y)))
LIMIT(separate_4, "avx2", __m256d, _mm256_add_pd(sum, _mm256_mul_pd(x, y)))
LIMIT(separate_8, "avx512f", __m512d, _mm512_add_pd(sum, _mm512_mul_pd(x, y)))
LIMIT(fused_4, "avx2,fma", __m256d, _mm256_fmadd_pd(x, y, sum))
LIMIT(fused_8, "avx512f", __m512d, _mm512_fmadd_pd(x, y, sum))

const bool registered = [] {
  benchmark::RegisterBenchmark("limit/separate/2", separate_2);
  if (__builtin_cpu_supports("avx2")) {
    benchmark::RegisterBenchmark("limit/separate/4", separate_4);
    benchmark::RegisterBenchmark("limit/fused/4", fused_4);
  }
  if (__builtin_cpu_supports("avx512f")) {
    benchmark::RegisterBenchmark("limit/separate/8", separate_8);
    benchmark::RegisterBenchmark("limit/fused/8", fused_8);
  }
  return true;
}();

}  // namespace
