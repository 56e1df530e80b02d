// Whole programs in quads: a dot product, the LU factors of a matrix, planets, a Mandelbrot set.
// Each is written once, over what computes: direct calls of the C routines, as a compiler emits
// them (zorvac-calls), the C++ class over them (zorvac-class), and the compiler's own __float128,
// whose arithmetic is libgcc's. All must come to the same bits. Times are of a whole program.
#include <benchmark/benchmark.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/libc_peer.h"
#include "zorvac/quad.hpp"

namespace zorvac::bench {
namespace {

using bits = std::array<std::uint64_t, 2>;

struct calls {
  struct alignas(16) number {
    std::uint64_t low, high;
  };
  static void add(number& r, const number& a, const number& b) { __addq(&r, &a, &b); }
  static void subtract(number& r, const number& a, const number& b) { __subq(&r, &a, &b); }
  static void multiply(number& r, const number& a, const number& b) { __mulq(&r, &a, &b); }
  static void divide(number& r, const number& a, const number& b) { __divq(&r, &a, &b); }
  static bool less(const number& a, const number& b) { return __ltq(&a, &b) != 0; }
  static double rounded(const number& a) { return __qtod(&a); }
  static number exact(double value) {
    number q;
    __dtoq(&q, value);
    return q;
  }
};
template <class Number>
struct operators {
  using number = Number;
  static void add(number& r, const number& a, const number& b) { r = a + b; }
  static void subtract(number& r, const number& a, const number& b) { r = a - b; }
  static void multiply(number& r, const number& a, const number& b) { r = a * b; }
  static void divide(number& r, const number& a, const number& b) { r = a / b; }
  static bool less(const number& a, const number& b) { return a < b; }
  static double rounded(const number& a) { return static_cast<double>(a); }
  static number exact(double value) { return value; }
};

// Numbers of 113 bits between 0 and 1: sums of two doubles.
template <class By>
std::vector<typename By::number> random_numbers(std::size_t count) {
  std::mt19937_64 random(1);
  std::uniform_real_distribution<double> part(0, 1);
  std::vector<typename By::number> numbers;
  for (std::size_t i = 0; i < count; ++i) {
    auto number = By::exact(part(random));
    By::add(number, number, By::exact(std::ldexp(part(random), -60)));
    numbers.push_back(number);
  }
  return numbers;
}

template <class By>
typename By::number dot_product() {
  constexpr std::size_t count = 1000;
  static const auto a = random_numbers<By>(2 * count);
  auto sum = By::exact(0), product = sum;
  for (std::size_t i = 0; i < count; ++i) {
    By::multiply(product, a[i], a[count + i]);
    By::add(sum, sum, product);
  }
  return sum;
}

// Without exchanging rows: the diagonal is made large. Returns the product of the pivots.
template <class By>
typename By::number lu_factors() {
  constexpr std::size_t n = 200;
  static const auto numbers = random_numbers<By>(n * n);
  auto a = numbers;
  auto determinant = By::exact(1), factor = determinant, product = determinant;
  for (std::size_t i = 0; i < n; ++i) By::add(a[i * n + i], a[i * n + i], By::exact(n));
  for (std::size_t k = 0; k < n; ++k) {
    const auto* const pivots = &a[k * n];
    for (std::size_t i = k + 1; i < n; ++i) {
      auto* const row = &a[i * n];
      By::divide(factor, row[k], pivots[k]);
      for (std::size_t j = k + 1; j < n; ++j) {
        By::multiply(product, factor, pivots[j]);
        By::subtract(row[j], row[j], product);
      }
    }
    By::multiply(determinant, determinant, By::exact(1 / 256.0));
    By::multiply(determinant, determinant, pivots[k]);
  }
  return determinant;
}

// 1 / sqrt(x): two steps of Newton's method from the double, which double its correct bits.
template <class By>
typename By::number inverse_root(const typename By::number& x) {
  auto root = By::exact(1 / std::sqrt(By::rounded(x))), error = root;
  for (int step = 0; step < 2; ++step) {  // root += root * (1 - x * root * root) / 2
    By::multiply(error, x, root);
    By::multiply(error, error, root);
    By::subtract(error, By::exact(1), error);
    By::multiply(error, error, root);
    By::multiply(error, error, By::exact(0.5));
    By::add(root, root, error);
  }
  return root;
}

// Five bodies that attract each other, by the symplectic Euler method. Returns a coordinate.
template <class By>
typename By::number planets() {
  using number = typename By::number;
  constexpr std::size_t bodies = 5, steps = 100;
  static const auto numbers = random_numbers<By>(bodies * 7);
  struct body {
    std::array<number, 3> place, speed;
    number mass;
  };
  std::array<body, bodies> all;
  for (std::size_t i = 0; i < bodies; ++i) {
    const number* const of_body = &numbers[7 * i];
    all[i] = {
        {of_body[0], of_body[1], of_body[2]}, {of_body[3], of_body[4], of_body[5]}, of_body[6]};
  }
  const number time = By::exact(1.0 / 1024);
  for (std::size_t step = 0; step < steps; ++step) {
    for (std::size_t i = 0; i < bodies; ++i) {
      for (std::size_t j = i + 1; j < bodies; ++j) {
        std::array<number, 3> away;
        number square = By::exact(1.0 / 16), part, pull;  // softened, so that none come too near
        for (std::size_t axis = 0; axis < 3; ++axis) {
          By::subtract(away[axis], all[i].place[axis], all[j].place[axis]);
          By::multiply(part, away[axis], away[axis]);
          By::add(square, square, part);
        }
        const number inverse = inverse_root<By>(square);
        By::multiply(pull, inverse, inverse);
        By::multiply(pull, pull, inverse);
        By::multiply(pull, pull, time);
        for (std::size_t axis = 0; axis < 3; ++axis) {
          By::multiply(away[axis], away[axis], pull);
          By::multiply(part, away[axis], all[j].mass);
          By::subtract(all[i].speed[axis], all[i].speed[axis], part);
          By::multiply(part, away[axis], all[i].mass);
          By::add(all[j].speed[axis], all[j].speed[axis], part);
        }
      }
    }
    for (body& b : all) {
      for (std::size_t axis = 0; axis < 3; ++axis) {
        number way;
        By::multiply(way, b.speed[axis], time);
        By::add(b.place[axis], b.place[axis], way);
      }
    }
  }
  return all[0].place[0];
}

// The number of steps that all points of a grid take to leave the circle of radius 2, at most 50.
template <class By>
typename By::number mandelbrot() {
  constexpr int side = 32, most = 50;
  int steps = 0;
  const auto four = By::exact(4);
  for (int point = 0; point < side * side; ++point) {
    const auto x0 = By::exact(point % side * (2.5 / side) - 2);
    const int line = point / side;
    const auto y0 = By::exact(line * (2.5 / side) - 1.25);
    auto x = x0, y = y0, xx = x, yy = x, sum = x;
    for (int step = 0; step < most; ++step, ++steps) {
      By::multiply(xx, x, x);
      By::multiply(yy, y, y);
      By::add(sum, xx, yy);
      if (By::less(four, sum)) break;
      By::multiply(y, x, y);
      By::add(y, y, y);
      By::add(y, y, y0);
      By::subtract(x, xx, yy);
      By::add(x, x, x0);
    }
  }
  return By::exact(steps);
}

template <class Number>
void add_row(const std::string& program, const std::string& contender, Number (*run)()) {
  static std::map<std::string, bits> results;
  benchmark::RegisterBenchmark(("program/" + program + "/" + contender).c_str(),
                               [=](benchmark::State& state) {
                                 bits result{};
                                 for (auto _ : state)
                                   benchmark::DoNotOptimize(result = std::bit_cast<bits>(run()));
                                 if (results.emplace(program, result).first->second != result)
                                   state.SkipWithError("another result than the contender before");
                               });
}
template <class By>
void add_rows(const std::string& contender) {
  add_row("dot-product-1000", contender, dot_product<By>);
  add_row("lu-factors-200", contender, lu_factors<By>);
  add_row("planets-5", contender, planets<By>);
  add_row("mandelbrot-32", contender, mandelbrot<By>);
}

const bool registered = [] {
  add_rows<calls>("zorvac-calls");
  add_rows<operators<quad>>("zorvac-class");
  add_rows<operators<__float128>>("libgcc");
  tell_libgcc();
  return true;
}();

}  // namespace
}  // namespace zorvac::bench
