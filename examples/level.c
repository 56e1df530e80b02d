/* A program for processors with AVX2, compiled so that it says where it cannot run:
 *
 *   gcc -specs=zorvac.specs -march=x86-64-v3 -O2 level.c
 *
 * There is nothing to write in the program. The check comes before its constructors, and so before
 * anything that may use what the processor does not have. */
#include <stdio.h>

#define COUNT 1000
static float squares[COUNT];

__attribute__((constructor)) static void fill(void) {
  for (int i = 0; i < COUNT; ++i) squares[i] = (float)i * (float)i;
}

int main(void) {
  float sum = 0;
  for (int i = 0; i < 100; ++i) sum += squares[i];
  printf("started: the first 100 squares add up to %.0f\n", (double)sum);
  return 0;
}
