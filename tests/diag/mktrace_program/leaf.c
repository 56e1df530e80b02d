/* C, with a routine that has internal linkage. */
static int __attribute__((noinline)) step(int x) {
  int y = x;
  while (y > 10) y /= 3;
  return y;
}

int leaf(int x) { return step(x) + step(2 * x); }
