// A second unit with the same templates and inline routines.
#include "work.h"

int other(int x) {
  const long values[] = {x, 2L * x};
  const int ints[] = {x, 3};
  return static_cast<int>(total(values, values + 2)) + total(ints, ints + 2) + twice(x);
}
