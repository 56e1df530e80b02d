#ifndef ZORVAC_TESTS_DIAG_MKTRACE_PROGRAM_WORK_H
#define ZORVAC_TESTS_DIAG_MKTRACE_PROGRAM_WORK_H
// What optimisers inline into other files, and linkers keep one copy of.
extern "C" int leaf(int x);
extern "C" int bare(int x);
extern "C" int label(int x);

template <class T>
struct accumulator {
  T sum = 0;
  void add(T x) {
    if (x > 0)
      sum += x * x;
    else
      sum -= x;
  }
};

template <class T>
__attribute__((noinline)) T total(const T* begin, const T* end) {
  accumulator<T> a;
  for (; begin != end; ++begin) a.add(*begin);
  return a.sum;
}

inline int twice(int x) { return leaf(x) + leaf(x + 1); }
int other(int x);
#endif
