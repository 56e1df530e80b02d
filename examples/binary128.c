/* Quad arithmetic as a C compiler without a 128-bit type of its own emits it: operands and results
   are passed by address. Sums 1/k! until the sum does not change any more. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <zorvac/quad.h>

typedef struct {
  uint64_t low, high;
} quad;

int main(void) {
  quad sum, term, k, previous;
  __itoq(&sum, 0);
  __itoq(&term, 1);
  int terms = 0;
  do {
    previous = sum;
    __addq(&sum, &sum, &term);
    __itoq(&k, ++terms);
    __divq(&term, &term, &k);
  } while (memcmp(&sum, &previous, sizeof sum) != 0);
  printf("e = 0x%016llx%016llx, %.15f, after %d terms\n", (unsigned long long)sum.high,
         (unsigned long long)sum.low, __qtod(&sum), terms);
  return 0;
}
