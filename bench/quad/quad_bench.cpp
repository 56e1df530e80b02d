// Quad arithmetic, comparisons and conversions beside the run-time routines of the two compilers.
// Ours are called in the shared library, as programs call them; the others are linked in.
//
// Times are per call. Throughput: 1024 operand pairs with random signs, significands and exponents
// that differ by at most 20, so that no branch on them can be predicted. Latency: every call waits
// for the one before; for arithmetic the result is the next operand, otherwise the place of the
// next operands depends on it.
#include <benchmark/benchmark.h>

#include <array>
#include <bit>
#include <cstdint>
#include <random>
#include <type_traits>

#include "zorvac/quad.h"

using quad = __float128;

// The names of the compilers' routines, which take and return quads by value.
#define COMPILER_ROUTINES(prefix)       \
  quad prefix##__addtf3(quad, quad);    \
  quad prefix##__subtf3(quad, quad);    \
  quad prefix##__multf3(quad, quad);    \
  quad prefix##__divtf3(quad, quad);    \
  long prefix##__eqtf2(quad, quad);     \
  long prefix##__lttf2(quad, quad);     \
  double prefix##__trunctfdf2(quad);    \
  quad prefix##__extenddftf2(double);   \
  int prefix##__fixtfsi(quad);          \
  quad prefix##__floatsitf(int);        \
  std::int64_t prefix##__fixtfdi(quad); \
  quad prefix##__floatditf(std::int64_t);
extern "C" {
COMPILER_ROUTINES()
#ifdef ZORVAC_BENCH_CLANG_RT
COMPILER_ROUTINES(clang_rt)
#endif
}

namespace {

constexpr std::size_t count = 1024;

template <class Operand>
std::array<Operand, count> random_operands(std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::array<Operand, count> operands;
  for (Operand& x : operands) {
    const std::uint64_t sign = random() << 63, exponent = random() % 21;
    if constexpr (std::is_integral_v<Operand>) {
      x = static_cast<Operand>(random());
    } else if constexpr (std::is_same_v<Operand, double>) {
      x = std::bit_cast<double>(sign | (0x3ff + exponent) << 52 | random() >> 12);
    } else {
      const auto high = sign | (0x3fff + exponent) << 48 | random() >> 16;
      x = std::bit_cast<quad>(static_cast<unsigned __int128>(high) << 64 | random());
    }
  }
  return operands;
}

template <class Result, class Operand>
using kernel = void (*)(Result*, const Operand*, const Operand*);

template <class Result, class Operand, kernel<Result, Operand> Kernel>
void throughput(benchmark::State& state) {
  const auto a = random_operands<Operand>(1), b = random_operands<Operand>(2);
  std::array<Result, count> results;
  while (state.KeepRunningBatch(count)) {
    for (std::size_t i = 0; i < count; ++i) Kernel(&results[i], &a[i], &b[i]);
    benchmark::DoNotOptimize(results);
  }
}

template <class Result, class Operand, kernel<Result, Operand> Kernel>
void latency(benchmark::State& state) {
  const auto a = random_operands<Operand>(1), b = random_operands<Operand>(2);
  std::size_t nothing = 0;
  benchmark::DoNotOptimize(nothing);
  while (state.KeepRunningBatch(count)) {
    Result x = static_cast<Result>(a[0]);
    std::size_t waiting = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if constexpr (std::is_same_v<Result, Operand>) {
        Kernel(&x, &x, &b[i]);
      } else {
        Kernel(&x, &a[i + waiting], &b[i + waiting]);
        std::uint64_t word = 0;
        __builtin_memcpy(&word, &x, sizeof x < 8 ? sizeof x : 8);
        waiting = word & nothing;
      }
    }
    benchmark::DoNotOptimize(x);
  }
}

__attribute__((noinline)) void empty_call(quad* r, const quad* a, const quad* b) {
  asm volatile("" : : "r"(r), "r"(a), "r"(b) : "memory");
}
BENCHMARK(throughput<quad, quad, empty_call>)->Name("empty/throughput/call");

// One row per contender. `ours` and `theirs` compute *r from *a and *b; NAME is the compiler's
// routine, with its prefix.
#define PEER(peer, prefix, operation, Result, Operand, theirs)                              \
  void operation##_##peer(Result* r, const Operand* a, [[maybe_unused]] const Operand* b) { \
    *r = static_cast<Result>(prefix##theirs);                                               \
  }                                                                                         \
  BENCHMARK(throughput<Result, Operand, operation##_##peer>)                                \
      ->Name(#operation "/throughput/" #peer);                                              \
  BENCHMARK(latency<Result, Operand, operation##_##peer>)->Name(#operation "/latency/" #peer);
#ifdef ZORVAC_BENCH_CLANG_RT
#define CLANG_PEER(...) PEER(clang_rt, clang_rt, __VA_ARGS__)
#else
#define CLANG_PEER(...)
#endif
#define OPERATION(operation, Result, Operand, ours, theirs)                                    \
  void operation##_zorvac(Result* r, const Operand* a, [[maybe_unused]] const Operand* b) {    \
    ours;                                                                                      \
  }                                                                                            \
  BENCHMARK(throughput<Result, Operand, operation##_zorvac>)                                   \
      ->Name(#operation "/throughput/zorvac");                                                 \
  BENCHMARK(latency<Result, Operand, operation##_zorvac>)->Name(#operation "/latency/zorvac"); \
  PEER(libgcc, , operation, Result, Operand, theirs)                                           \
  CLANG_PEER(operation, Result, Operand, theirs)

OPERATION(add, quad, quad, __addq(r, a, b), __addtf3(*a, *b))
OPERATION(subtract, quad, quad, __subq(r, a, b), __subtf3(*a, *b))
OPERATION(multiply, quad, quad, __mulq(r, a, b), __multf3(*a, *b))
OPERATION(divide, quad, quad, __divq(r, a, b), __divtf3(*a, *b))
OPERATION(equal, int, quad, *r = __eqq(a, b), __eqtf2(*a, *b) == 0)
OPERATION(less, int, quad, *r = __ltq(a, b), __lttf2(*a, *b) < 0)
OPERATION(to_double, double, quad, *r = __qtod(a), __trunctfdf2(*a))
OPERATION(from_double, quad, double, __dtoq(r, *a), __extenddftf2(*a))
OPERATION(to_int, int, quad, *r = __qtoi(a, ZORVAC_TO_INT_TOWARD_ZERO), __fixtfsi(*a))
OPERATION(from_int, quad, int, __itoq(r, *a), __floatsitf(*a))
OPERATION(to_int64, std::int64_t, quad, *r = __qtoj(a, ZORVAC_TO_INT_TOWARD_ZERO), __fixtfdi(*a))
OPERATION(from_int64, quad, std::int64_t, __jtoq(r, *a), __floatditf(*a))

}  // namespace
