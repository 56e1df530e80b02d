// Whole programs in quads: a dot product, the LU factors of a matrix, planets, a Mandelbrot set.
// Each is written once, over a type of number: calls of the C routines, as a compiler emits them;
// the C++ class; and __float128 by libzorvac_float128 and by libgcc. All must give the same bits.
// Times are of a whole program.
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

using binary128 = __float128;

// A type of number over the routines whose names have this prefix.
#define NUMBER(type, prefix)                                                                       \
  extern "C" {                                                                                     \
  binary128 prefix##__addtf3(binary128, binary128);                                                \
  binary128 prefix##__subtf3(binary128, binary128);                                                \
  binary128 prefix##__multf3(binary128, binary128);                                                \
  binary128 prefix##__divtf3(binary128, binary128);                                                \
  long prefix##__gttf2(binary128, binary128);                                                      \
  binary128 prefix##__extenddftf2(double);                                                         \
  double prefix##__trunctfdf2(binary128);                                                          \
  }                                                                                                \
  struct type {                                                                                    \
    binary128 value;                                                                               \
    type() = default;                                                                              \
    type(double x) : value(prefix##__extenddftf2(x)) {}                                            \
    static type of(binary128 x) {                                                                  \
      type number;                                                                                 \
      number.value = x;                                                                            \
      return number;                                                                               \
    }                                                                                              \
    explicit operator double() const { return prefix##__trunctfdf2(value); }                       \
    friend type operator+(type a, type b) { return type::of(prefix##__addtf3(a.value, b.value)); } \
    friend type operator-(type a, type b) { return type::of(prefix##__subtf3(a.value, b.value)); } \
    friend type operator*(type a, type b) { return type::of(prefix##__multf3(a.value, b.value)); } \
    friend type operator/(type a, type b) { return type::of(prefix##__divtf3(a.value, b.value)); } \
    friend bool operator>(type a, type b) { return prefix##__gttf2(a.value, b.value) > 0; }        \
  };
NUMBER(by_libgcc, )
NUMBER(by_float128, zorvac)

namespace zorvac::bench {
namespace {

struct by_calls {
  alignas(16) std::uint64_t words[2];
  by_calls() = default;
  by_calls(double value) { __dtoq(this, value); }
  explicit operator double() const { return __qtod(this); }
  friend by_calls operator+(const by_calls& a, const by_calls& b) { return {__addq, a, b}; }
  friend by_calls operator-(const by_calls& a, const by_calls& b) { return {__subq, a, b}; }
  friend by_calls operator*(const by_calls& a, const by_calls& b) { return {__mulq, a, b}; }
  friend by_calls operator/(const by_calls& a, const by_calls& b) { return {__divq, a, b}; }
  friend bool operator>(const by_calls& a, const by_calls& b) { return __gtq(&a, &b) != 0; }

 private:
  by_calls(void (*operation)(void*, const void*, const void*), const by_calls& a,
           const by_calls& b) {
    operation(this, &a, &b);
  }
};

// Numbers of 113 bits between 0 and 1: sums of two doubles.
template <class Number>
std::vector<Number> random_numbers(std::size_t count) {
  std::mt19937_64 random(1);
  std::uniform_real_distribution<double> part(0, 1);
  std::vector<Number> numbers(count);
  for (Number& x : numbers) {
    x = part(random);
    x = x + Number(std::ldexp(part(random), -60));
  }
  return numbers;
}

template <class Number>
Number dot_product() {
  constexpr std::size_t count = 1000;
  static const auto a = random_numbers<Number>(2 * count);
  Number sum = 0;
  for (std::size_t i = 0; i < count; ++i) sum = sum + a[i] * a[count + i];
  return sum;
}

// Without exchanging rows: the diagonal is made large. Returns the last pivot.
template <class Number>
Number lu_factors() {
  constexpr std::size_t n = 200;
  static const auto numbers = random_numbers<Number>(n * n);
  auto a = numbers;
  for (std::size_t i = 0; i < n; ++i) a[i * n + i] = a[i * n + i] + Number(n);
  for (std::size_t k = 0; k < n; ++k) {
    for (std::size_t i = k + 1; i < n; ++i) {
      const Number factor = a[i * n + k] / a[k * n + k];
      for (std::size_t j = k + 1; j < n; ++j) a[i * n + j] = a[i * n + j] - factor * a[k * n + j];
    }
  }
  return a.back();
}

// 1 / sqrt(x): two steps of Newton's method from the double, which double its correct bits.
template <class Number>
Number inverse_root(Number x) {
  Number root = 1 / std::sqrt(static_cast<double>(x));
  for (int step = 0; step < 2; ++step)
    root = root + root * (Number(1) - x * root * root) * Number(0.5);
  return root;
}

// Five bodies that attract each other, by the symplectic Euler method. Returns a coordinate.
template <class Number>
Number planets() {
  constexpr std::size_t bodies = 5, steps = 100;
  static const auto numbers = random_numbers<Number>(bodies * 7);
  struct body {
    std::array<Number, 3> place, speed;
    Number mass;
  };
  std::array<body, bodies> all;
  for (std::size_t i = 0; i < bodies; ++i) {
    const Number* const n = &numbers[7 * i];
    all[i] = {{n[0], n[1], n[2]}, {n[3], n[4], n[5]}, n[6]};
  }
  const Number time = 1.0 / 1024;
  for (std::size_t step = 0; step < steps; ++step) {
    for (std::size_t i = 0; i < bodies; ++i) {
      for (std::size_t j = i + 1; j < bodies; ++j) {
        std::array<Number, 3> away;
        Number square = 1.0 / 16;  // keeps the distance above 0
        for (std::size_t axis = 0; axis < 3; ++axis) {
          away[axis] = all[i].place[axis] - all[j].place[axis];
          square = square + away[axis] * away[axis];
        }
        const Number inverse = inverse_root(square), pull = inverse * inverse * inverse * time;
        for (std::size_t axis = 0; axis < 3; ++axis) {
          const Number change = away[axis] * pull;
          all[i].speed[axis] = all[i].speed[axis] - change * all[j].mass;
          all[j].speed[axis] = all[j].speed[axis] + change * all[i].mass;
        }
      }
    }
    for (body& b : all) {
      for (std::size_t axis = 0; axis < 3; ++axis)
        b.place[axis] = b.place[axis] + b.speed[axis] * time;
    }
  }
  return all[0].place[0];
}

// The number of steps that all points of a grid take to leave the circle of radius 2, at most 50.
template <class Number>
Number mandelbrot() {
  constexpr int side = 32, most = 50;
  int steps = 0;
  for (int point = 0; point < side * side; ++point) {
    const int column = point % side, row = point / side;
    const Number x0 = column * (2.5 / side) - 2, y0 = row * (2.5 / side) - 1.25;
    Number x = x0, y = y0;
    for (int step = 0; step < most; ++step, ++steps) {
      const Number xx = x * x, yy = y * y;
      if (xx + yy > Number(4)) break;
      y = Number(2) * x * y + y0;
      x = xx - yy + x0;
    }
  }
  return steps;
}

template <class Number>
void add_row(const std::string& program, const std::string& contender, Number (*run)()) {
  using bits = std::array<std::uint64_t, 2>;
  static std::map<std::string, bits> results;
  benchmark::RegisterBenchmark(("program/" + program + "/" + contender).c_str(),
                               [=](benchmark::State& state) {
                                 Number result;
                                 for (auto _ : state) benchmark::DoNotOptimize(result = run());
                                 const auto seen = std::bit_cast<bits>(result);
                                 if (results.emplace(program, seen).first->second != seen)
                                   state.SkipWithError("another result than the contender before");
                               });
}
template <class Number>
void add_rows(const std::string& contender) {
  add_row("dot-product-1000", contender, dot_product<Number>);
  add_row("lu-factors-200", contender, lu_factors<Number>);
  add_row("planets-5", contender, planets<Number>);
  add_row("mandelbrot-32", contender, mandelbrot<Number>);
}

const bool registered = [] {
  add_rows<by_calls>("zorvac-calls");
  add_rows<quad>("zorvac-class");
  add_rows<by_float128>("zorvac-float128");
  add_rows<by_libgcc>("libgcc");
  record_libgcc();
  return true;
}();

}  // namespace
}  // namespace zorvac::bench
