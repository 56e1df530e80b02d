// The Mandelbrot set next to the point i, in steps of 1e-24: beside 1, doubles lose such a step,
// and binary128 numbers keep it. Compilers call a run-time library for every operation: linked with
// -lzorvac_float128, this takes some two thirds of the time and prints the same.
#include <stdio.h>
#include <time.h>

enum { columns = 64, rows = 12, most_steps = 500 };

int main(void) {
  const clock_t start = clock();
  for (int row = 0; row < rows; ++row) {
    for (int column = 0; column < columns; ++column) {
      const __float128 x0 = (column - columns / 2) * (__float128)1e-24;
      const __float128 y0 = 1 + (row - rows / 2) * (__float128)3e-24;
      __float128 x = 0, y = 0;
      int steps = 0;
      for (; steps < most_steps && x * x + y * y < 4; ++steps) {
        const __float128 real = x * x - y * y + x0;
        y = 2 * x * y + y0;
        x = real;
      }
      putchar(" .:-=+*#"[steps % 8]);
    }
    putchar('\n');
  }
  fprintf(stderr, "%.1f ms\n", 1e3 * (double)(clock() - start) / CLOCKS_PER_SEC);
  return 0;
}
