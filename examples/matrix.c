/* A matrix product as a compiler of array code emits it: one call of the entry point for the type
   and storage of the operands. The program replaces the variants by its own functions, which store
   their name and pass the call on. So it can print which variant ran on this processor.

   usage: matrix [ORDER]          the default is 1000 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <zorvac/array.h>

static const char* taken;

/* The last declaration makes the semicolon after VARIANT() valid. */
#define VARIANT(letter)                                                                            \
  void variant_##letter(const void* a, const void* b, void* c, uint64_t m, uint64_t k, uint64_t n, \
                        uint64_t lda, uint64_t ldb,                                                \
                        uint64_t ldc) __asm__("_MATMUL_r8_n_n." #letter);                          \
  void variant_##letter(const void* a, const void* b, void* c, uint64_t m, uint64_t k, uint64_t n, \
                        uint64_t lda, uint64_t ldb, uint64_t ldc) {                                \
    void (*next)(const void*, const void*, void*, uint64_t, uint64_t, uint64_t, uint64_t,          \
                 uint64_t, uint64_t);                                                              \
    taken = "_MATMUL_r8_n_n." #letter;                                                             \
    *(void**)&next = dlsym(RTLD_NEXT, taken);                                                      \
    next(a, b, c, m, k, n, lda, ldb, ldc);                                                         \
  }                                                                                                \
  void variant_##letter(const void*, const void*, void*, uint64_t, uint64_t, uint64_t, uint64_t,   \
                        uint64_t, uint64_t)
VARIANT(J);
VARIANT(A);

static double seconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec + 1e-9 * (double)now.tv_nsec;
}

int main(int argc, char** argv) {
  const uint64_t n = argc > 1 ? strtoull(argv[1], NULL, 10) : 1000;
  double* const a = malloc(n * n * sizeof *a);
  double* const b = malloc(n * n * sizeof *b);
  double* const c = malloc(n * n * sizeof *c);
  if (n == 0 || a == NULL || b == NULL || c == NULL) return 2;
  for (uint64_t i = 0; i < n * n; ++i) {
    a[i] = rand() / (double)RAND_MAX - 0.5;
    b[i] = rand() / (double)RAND_MAX - 0.5;
  }

  double best = HUGE_VAL, spent = 0;
  for (int turn = 0; turn < 3 && spent < 1; ++turn) {
    const double start = seconds();
    _MATMUL_r8_n_n(a, b, c, n, n, n, n, n, n);
    const double taken_seconds = seconds() - start;
    if (taken_seconds < best) best = taken_seconds;
    spent += taken_seconds;
  }

  /* Compares a sample of elements with naive sums, with the error bound of any summation order. */
  double worst = 0;
  for (int sample = 0; sample < 1000; ++sample) {
    const uint64_t i = (uint64_t)rand() % n, j = (uint64_t)rand() % n;
    double sum = 0, magnitude = 0;
    for (uint64_t k = 0; k < n; ++k) {
      sum += a[i + k * n] * b[k + j * n];
      magnitude += fabs(a[i + k * n] * b[k + j * n]);
    }
    const double error = fabs(c[i + j * n] - sum) / magnitude;
    if (!(error <= worst)) worst = error;
  }
  const int right = worst <= 2 * (double)n * 0x1p-53;
  printf("%llu x %llu by %s: %.2f GFLOP/s\n", (unsigned long long)n, (unsigned long long)n, taken,
         2e-9 * (double)(n * n * n) / best);
  printf("1000 elements %s naive sums within the error of rounding\n",
         right ? "agree with" : "DIFFER FROM");
  free(a);
  free(b);
  free(c);
  return right ? 0 : 1;
}
