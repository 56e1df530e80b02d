// A program with routines of every kind that debug information describes: in namespaces, classes
// and other routines, inlined, split into a hot and a cold part, unused.
#include <cstdio>
#include <cstdlib>

#include "work.h"

namespace {
struct shape {
  virtual ~shape() = default;
  [[nodiscard]] virtual int area() const = 0;
};
struct square : shape {
  explicit square(int s) : side{s} {}
  [[nodiscard]] int area() const override { return twice(side) * side; }
  int side;
};
__attribute__((noinline)) int rarely(int x) {
  if (__builtin_expect(x > 1000, 0)) {
    std::printf("%d is large\n", x);
    std::abort();
  }
  return bare(x) - label(x);
}
}  // namespace

int unused(int x) { return x < 0 ? std::rand() : twice(x); }

int main(int argc, char**) {
  const int values[] = {argc, -2, 3, 4 * argc};
  struct local {
    static __attribute__((noinline)) int inside(int x) { return leaf(x) ^ 5; }
  };
  auto lambda = [&](int x) __attribute__((noinline)) { return values[0] + local::inside(x); };
  const square s{argc};
  const shape& shape = s;
  std::printf("%d %d %d %d %d\n", total(values, values + 4), shape.area(), rarely(argc), lambda(7),
              other(argc));
}
