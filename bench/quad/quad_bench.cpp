// Quad arithmetic, comparisons and conversions beside the run-time routines of the two compilers.
// Ours are called in the shared library, as programs call them; the others are linked in.
//
// Times are per call. Operands have random signs, random significands and exponents that differ by
// at most 20. Throughput: 1024 pairs again and again, which a branch predictor learns, as in a loop
// over the same data. Fresh: too many pairs for it to learn. Latency: each call waits for the one
// before; in arithmetic the result is the next operand, otherwise the address of the next operands
// depends on it.
#include <benchmark/benchmark.h>

#include <array>
#include <bit>
#include <cstdint>
#include <random>
#include <type_traits>
#include <vector>

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
// Only libgcc has these.
float __trunctfsf2(quad);
long double __trunctfxf2(quad);
quad __extendsftf2(float);
quad __extendxftf2(long double);
unsigned __fixunstfsi(quad);
std::uint64_t __fixunstfdi(quad);
zorvac_int128_t __fixtfti(quad);
zorvac_uint128_t __fixunstfti(quad);
quad __floatunsitf(unsigned);
quad __floatunditf(std::uint64_t);
quad __floattitf(zorvac_int128_t);
quad __floatuntitf(zorvac_uint128_t);
quad __negtf2(quad);
struct complex_quad {
  quad real, imaginary;
};
complex_quad libgcc_multiply(quad, quad, quad, quad) __asm__("__multc3");
complex_quad libgcc_divide(quad, quad, quad, quad) __asm__("__divtc3");
}

namespace {

constexpr std::size_t count = 1024, fresh_count = 1 << 18;

template <class Operand>
std::vector<Operand> random_operands(std::uint64_t seed, std::size_t size = count) {
  std::mt19937_64 random(seed);
  std::vector<Operand> operands(size);
  for (Operand& x : operands) {
    const std::uint64_t sign = random() << 63, exponent = random() % 21;
    if constexpr (sizeof(Operand) == 16 && !std::is_floating_point_v<Operand> &&
                  !std::is_same_v<Operand, quad>) {
      x = static_cast<Operand>(static_cast<zorvac_uint128_t>(random()) << 64 | random());
    } else if constexpr (std::is_integral_v<Operand>) {
      x = static_cast<Operand>(random());
    } else if constexpr (std::is_same_v<Operand, complex_quad>) {
      const auto parts = random_operands<quad>(random(), 2);
      x = {parts[0], parts[1]};
    } else if constexpr (std::is_same_v<Operand, quad>) {
      const auto high = sign | (0x3fff + exponent) << 48 | random() >> 16;
      x = std::bit_cast<quad>(static_cast<zorvac_uint128_t>(high) << 64 | random());
    } else {
      x = static_cast<Operand>(
          std::bit_cast<double>(sign | (0x3ff + exponent) << 52 | random() >> 12));
    }
  }
  return operands;
}

template <class Result, class Operand>
using kernel = void (*)(Result*, const Operand*, const Operand*);

template <class Result, class Operand, kernel<Result, Operand> Kernel, std::size_t Pairs = count>
void throughput(benchmark::State& state) {
  const auto a = random_operands<Operand>(1, Pairs), b = random_operands<Operand>(2, Pairs);
  std::array<Result, count> results;
  while (state.KeepRunningBatch(Pairs)) {
    for (std::size_t i = 0; i < Pairs; ++i) Kernel(&results[i % count], &a[i], &b[i]);
    benchmark::DoNotOptimize(results);
  }
}

template <class Result, class Operand, kernel<Result, Operand> Kernel>
void latency(benchmark::State& state) {
  const auto a = random_operands<Operand>(1), b = random_operands<Operand>(2);
  std::size_t nothing = 0;
  benchmark::DoNotOptimize(nothing);
  while (state.KeepRunningBatch(count)) {
    Result x{};
    if constexpr (std::is_same_v<Result, Operand>) x = a[0];
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

// Rows of one contender. `ours` and `theirs` compute *r from *a and *b.
#define CONTENDER(contender, operation, Result, Operand, statement)                              \
  void operation##_##contender(Result* r, const Operand* a, [[maybe_unused]] const Operand* b) { \
    statement;                                                                                   \
  }                                                                                              \
  BENCHMARK(throughput<Result, Operand, operation##_##contender>)                                \
      ->Name(#operation "/throughput/" #contender);                                              \
  BENCHMARK(latency<Result, Operand, operation##_##contender>)                                   \
      ->Name(#operation "/latency/" #contender);
#define FRESH(contender, operation)                                       \
  BENCHMARK(throughput<quad, quad, operation##_##contender, fresh_count>) \
      ->Name(#operation "/fresh/" #contender);

#define BESIDE_LIBGCC(operation, Result, Operand, ours, theirs) \
  CONTENDER(zorvac, operation, Result, Operand, ours)           \
  CONTENDER(libgcc, operation, Result, Operand, theirs)

// Beside both compilers' routines. `theirs` begins with the routine's name, which gets clang_rt as
// its prefix for clang's.
#ifdef ZORVAC_BENCH_CLANG_RT
#define CLANG(...) __VA_ARGS__
#else
#define CLANG(...)
#endif
#define OPERATION(operation, Result, Operand, ours, theirs)                         \
  BESIDE_LIBGCC(operation, Result, Operand, ours, *r = static_cast<Result>(theirs)) \
  CLANG(CONTENDER(clang_rt, operation, Result, Operand, *r = static_cast<Result>(clang_rt##theirs)))
#define ARITHMETIC(operation, ours, theirs)      \
  OPERATION(operation, quad, quad, ours, theirs) \
  FRESH(zorvac, operation)                       \
  FRESH(libgcc, operation)                       \
  CLANG(FRESH(clang_rt, operation))

ARITHMETIC(add, __addq(r, a, b), __addtf3(*a, *b))
ARITHMETIC(subtract, __subq(r, a, b), __subtf3(*a, *b))
ARITHMETIC(multiply, __mulq(r, a, b), __multf3(*a, *b))
ARITHMETIC(divide, __divq(r, a, b), __divtf3(*a, *b))
BESIDE_LIBGCC(negate, quad, quad, __negq(r, a), *r = __negtf2(*a))

OPERATION(equal, int, quad, *r = __eqq(a, b), __eqtf2(*a, *b) == 0)
OPERATION(less, int, quad, *r = __ltq(a, b), __lttf2(*a, *b) < 0)
BESIDE_LIBGCC(compare, int, quad, *r = __compareq(a, b), *r = static_cast<int>(__lttf2(*a, *b)))

OPERATION(to_double, double, quad, *r = __qtod(a), __trunctfdf2(*a))
OPERATION(from_double, quad, double, __dtoq(r, *a), __extenddftf2(*a))
BESIDE_LIBGCC(to_float, float, quad, *r = __qtof(a), *r = __trunctfsf2(*a))
BESIDE_LIBGCC(from_float, quad, float, __ftoq(r, *a), *r = __extendsftf2(*a))
BESIDE_LIBGCC(to_long_double, long double, quad, *r = __qtol(a), *r = __trunctfxf2(*a))
BESIDE_LIBGCC(from_long_double, quad, long double, __ltoq(r, *a), *r = __extendxftf2(*a))

OPERATION(to_int, int, quad, *r = __qtoi(a, ZORVAC_TO_INT_TOWARD_ZERO), __fixtfsi(*a))
OPERATION(from_int, quad, int, __itoq(r, *a), __floatsitf(*a))
OPERATION(to_int64, std::int64_t, quad, *r = __qtoj(a, ZORVAC_TO_INT_TOWARD_ZERO), __fixtfdi(*a))
OPERATION(from_int64, quad, std::int64_t, __jtoq(r, *a), __floatditf(*a))
BESIDE_LIBGCC(to_unsigned, unsigned, quad, *r = __qtou(a), *r = __fixunstfsi(*a))
BESIDE_LIBGCC(from_unsigned, quad, unsigned, __utoq(r, *a), *r = __floatunsitf(*a))
BESIDE_LIBGCC(to_unsigned64, std::uint64_t, quad, *r = __qtok(a), *r = __fixunstfdi(*a))
BESIDE_LIBGCC(from_unsigned64, quad, std::uint64_t, __ktoq(r, *a), *r = __floatunditf(*a))
BESIDE_LIBGCC(to_int128, zorvac_int128_t, quad, *r = __qtom(a), *r = __fixtfti(*a))
BESIDE_LIBGCC(from_int128, quad, zorvac_int128_t, __mtoq(r, *a), *r = __floattitf(*a))
BESIDE_LIBGCC(to_unsigned128, zorvac_uint128_t, quad, *r = __qton(a), *r = __fixunstfti(*a))
BESIDE_LIBGCC(from_unsigned128, quad, zorvac_uint128_t, __ntoq(r, *a), *r = __floatuntitf(*a))

BESIDE_LIBGCC(multiply_complex, complex_quad, complex_quad,
              __cmulq(r, &a->real, &a->imaginary, &b->real, &b->imaginary),
              *r = libgcc_multiply(a->real, a->imaginary, b->real, b->imaginary))
BESIDE_LIBGCC(divide_complex, complex_quad, complex_quad,
              __cdivq(r, &a->real, &a->imaginary, &b->real, &b->imaginary),
              *r = libgcc_divide(a->real, a->imaginary, b->real, b->imaginary))

}  // namespace
