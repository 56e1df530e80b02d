// Comparisons of complex quads call the real ones, which a program may replace. This program has,
// to see how often they are called, with which operands, and what becomes of their answers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zorvac/quad.h"

namespace {

struct hop {
  std::string routine;
  const void *a, *b;
};
std::vector<hop> hops;
std::vector<int> answers;  // to the hops, in their order

int answer(const char* routine, const void* a, const void* b) {
  hops.push_back({routine, a, b});
  return hops.size() <= answers.size() ? answers[hops.size() - 1] : 0;
}

}  // namespace

extern "C" {
int __eqq(const void* a, const void* b) { return answer("__eqq", a, b); }
int __neq(const void* a, const void* b) { return answer("__neq", a, b); }
}

namespace {

// The imaginary parts are compared only where the real ones have not decided.
TEST(ComplexComparison, CallsTheRealOneUntilItIsDecided) {
  const struct {
    const char* name;
    int (*routine)(const void*, const void*, const void*, const void*);
    const char* calls;
    std::vector<int> answers;
    std::size_t hops;
    int result;
  } rows[] = {
      {"__ceqq, real parts differ", __ceqq, "__eqq", {0}, 1, 0},
      {"__ceqq, imaginary parts differ", __ceqq, "__eqq", {1, 0}, 2, 0},
      {"__ceqq, both are equal", __ceqq, "__eqq", {1, 1}, 2, 1},
      {"__cneq, real parts differ", __cneq, "__neq", {1}, 1, 1},
      {"__cneq, imaginary parts differ", __cneq, "__neq", {0, 1}, 2, 1},
      {"__cneq, both are equal", __cneq, "__neq", {0, 0}, 2, 0},
  };
  const char ar = 0, ai = 0, br = 0, bi = 0;  // only their addresses count
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    hops.clear();
    answers = row.answers;
    EXPECT_EQ(row.routine(&ar, &ai, &br, &bi), row.result);
    ASSERT_EQ(hops.size(), row.hops) << "calls of " << row.calls;
    const hop parts[] = {{row.calls, &ar, &br}, {row.calls, &ai, &bi}};
    for (std::size_t i = 0; i < hops.size(); ++i) {
      EXPECT_EQ(hops[i].routine, parts[i].routine) << "call " << i + 1;
      EXPECT_EQ(hops[i].a, parts[i].a) << "first operand of call " << i + 1;
      EXPECT_EQ(hops[i].b, parts[i].b) << "second operand of call " << i + 1;
    }
  }
}

}  // namespace
