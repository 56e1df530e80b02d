// The C++ class in whole programs, beside the same programs over the calls that it makes (which
// shows what the class costs) and over the compiler's __float128.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <random>
#include <vector>

#include "zorvac/quad.hpp"

// The class compares without a call.
extern "C" int zorvac_quad_lt(zorvac_uint128_t a, zorvac_uint128_t b);

namespace {

using zorvac::quad;
namespace call = zorvac::detail;
using word = zorvac_uint128_t;

// What a programmer writes who has the calls and no class. (The operators let the programs below be
// written once; there is no conversion but the one named.)
struct direct {
  word bits;
  friend direct operator+(direct a, direct b) { return {call::zorvac_quad_add(a.bits, b.bits)}; }
  friend direct operator-(direct a, direct b) { return {call::zorvac_quad_sub(a.bits, b.bits)}; }
  friend direct operator*(direct a, direct b) { return {call::zorvac_quad_mul(a.bits, b.bits)}; }
  friend direct operator/(direct a, direct b) { return {call::zorvac_quad_div(a.bits, b.bits)}; }
  friend bool operator<(direct a, direct b) { return zorvac_quad_lt(a.bits, b.bits) != 0; }
};

template <class T>
T from(quad q) {
  if constexpr (std::is_same_v<T, direct>)
    return {q.bits()};
  else
    return static_cast<T>(q);
}

template <class T>
std::vector<T> random_numbers(std::size_t count) {
  std::mt19937_64 random(1);
  std::uniform_real_distribution<double> number(-1, 1);
  std::vector<T> numbers;
  for (std::size_t i = 0; i < count; ++i) numbers.push_back(from<T>(quad(number(random)) / 3));
  return numbers;
}

template <class T>
void dot_product(benchmark::State& state) {
  const std::vector<T> a = random_numbers<T>(1000), b = random_numbers<T>(1100);
  for (auto _ : state) {
    T sum = a[0];
    for (std::size_t i = 0; i < a.size(); ++i) sum = sum + a[i] * b[i + 100];
    benchmark::DoNotOptimize(sum);
  }
}

// Without pivots: the diagonal is heavy.
template <class T>
void lu(benchmark::State& state) {
  constexpr std::size_t n = 200;
  std::vector<T> matrix = random_numbers<T>(n * n);
  for (std::size_t i = 0; i < n; ++i) matrix[i * n + i] = from<T>(n);
  for (auto _ : state) {
    std::vector<T> a = matrix;
    for (std::size_t k = 0; k < n; ++k)
      for (std::size_t i = k + 1; i < n; ++i) {
        const T factor = a[i * n + k] / a[k * n + k];
        a[i * n + k] = factor;
        for (std::size_t j = k + 1; j < n; ++j) a[i * n + j] = a[i * n + j] - factor * a[k * n + j];
      }
    benchmark::DoNotOptimize(a.data());
  }
}

template <class T>
void mandelbrot(benchmark::State& state) {
  const T step = from<T>(quad(1) / 12), left = from<T>(-1.5), top = from<T>(-1), four = from<T>(4);
  for (auto _ : state) {
    int steps = 0;
    for (int i = 0; i < 24 * 24; ++i) {
      const T cr = left + from<T>(i % 24) * step, ci = top + from<T>(i / 24) * step;
      T x = cr, y = ci, xx = x * x, yy = y * y;
      for (int n = 0; n < 60 && xx + yy < four; ++n, ++steps) {
        const T xy = x * y;
        y = xy + xy + ci;
        x = xx - yy + cr;
        xx = x * x;
        yy = y * y;
      }
    }
    benchmark::DoNotOptimize(steps);
  }
}

// Of the forces, the fourth power of the distance stands for its root and cube.
template <class T>
void n_body(benchmark::State& state) {
  struct body {
    T place[3], speed[3], mass;
  };
  const std::vector<T> numbers = random_numbers<T>(35);
  const T step = from<T>(quad(1) / 100), heavy = from<T>(1);
  for (auto _ : state) {
    body bodies[5];
    std::size_t next = 0;
    for (body& b : bodies) {
      for (T& x : b.place) x = numbers[next++];
      for (T& v : b.speed) v = numbers[next++];
      b.mass = numbers[next++] + heavy;
    }
    for (int time = 0; time < 20; ++time) {
      for (int i = 0; i < 5; ++i)
        for (int j = i + 1; j < 5; ++j) {
          body &a = bodies[i], &b = bodies[j];
          T apart[3], square = step;
          for (int k = 0; k < 3; ++k) {
            apart[k] = a.place[k] - b.place[k];
            square = square + apart[k] * apart[k];
          }
          const T pull = step / (square * square);
          for (int k = 0; k < 3; ++k) {
            a.speed[k] = a.speed[k] - apart[k] * b.mass * pull;
            b.speed[k] = b.speed[k] + apart[k] * a.mass * pull;
          }
        }
      for (body& b : bodies)
        for (int k = 0; k < 3; ++k) b.place[k] = b.place[k] + step * b.speed[k];
    }
    benchmark::DoNotOptimize(bodies);
  }
}

#define PROGRAM(name, program)                                       \
  BENCHMARK(program<quad>)->Name("program/" name "/zorvac_class");   \
  BENCHMARK(program<direct>)->Name("program/" name "/zorvac_calls"); \
  BENCHMARK(program<__float128>)->Name("program/" name "/libgcc");

PROGRAM("dot-product", dot_product)
PROGRAM("lu-200", lu)
PROGRAM("mandelbrot", mandelbrot)
PROGRAM("n-body", n_body)

}  // namespace
